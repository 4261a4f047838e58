#include "internal/saml/Descriptions.h"

#include <basalt/Format.h>

namespace SsoClient {

using Basalt::PrintFormatter;
using Basalt::Detail::ASPrintInternal;

std::string DescribePrincipalId(const PrincipalId& principal) {
    return "{Name: " + principal.name + "; Domain:" + principal.domain + "}";
}

std::string DescribePrincipalId(const PrincipalId* principal) {
    return principal == nullptr ? std::string("(null)") : DescribePrincipalId(*principal);
}

std::string DescribeDelegate(const Delegate& delegate) {
    return DescribePrincipalId(delegate.principal) + " at " + delegate.delegationInstant.ToString();
}

std::string DescribeAdviceAttribute(const AdviceAttribute& attribute) {
    // The labels repeat those of the advice description on purpose.
    return ASPrintInternal("[source=%1, attributes=[%2]]", PrintFormatter(attribute.name),
                           PrintFormatter(JoinStrings(attribute.values)));
}

std::string DescribeAdvice(const Advice& advice) {
    return ASPrintInternal(
        "Advice [source=%1, attributes=[%2]]", PrintFormatter(advice.source),
        PrintFormatter(JoinDescriptions(advice.attributes, {DescribeAdviceAttribute})));
}

std::string DescribeTokenSpec(const TokenSpec& spec) {
    const std::string delegateTo = spec.delegateTo ? *spec.delegateTo : std::string("<unset>");
    const std::string audience = JoinStrings(spec.audienceRestriction);
    const std::string advice = JoinDescriptions(spec.advice, {DescribeAdvice});
    return ASPrintInternal(
        "TokenSpec [tokenLifetimeSec=%1, delegable=%2, delegateTo=%3, renewable=%4, "
        "confirmationType=%5,audienceRestriction=%6, advice=[%7]",
        PrintFormatter(static_cast<int64_t>(spec.tokenLifetimeSec)), PrintFormatter(spec.delegable),
        PrintFormatter(delegateTo), PrintFormatter(spec.renewable),
        PrintFormatter(static_cast<int32_t>(spec.confirmation)), PrintFormatter(audience),
        PrintFormatter(advice));
}

}  // namespace SsoClient
