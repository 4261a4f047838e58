#include "ssoClient/saml/Descriptions.h"

#include <vector>

#include <basalt/Format.h>

#include "ssoClient/Description.h"
#include "ssoClient/SamlToken.h"

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
    return DescribePrincipalId(delegate.principal) + " at " +
           delegate.delegationInstant.ToString();
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

namespace {

const char* TokenTypeName(TokenType type) {
    switch (type) {
        case Saml_Bearer:
            return "Saml_Bearer";
        case Saml_HOK:
            return "Saml_HOK";
        case JWT_Bearer:
            return "JWT_Bearer";
    }
    return "";
}

}  // namespace

std::string CreateSamlTokenDescription(const SamlToken& token) {
    std::vector<PrincipalId> groups;
    token.GetGroups(groups);
    std::vector<Delegate> chain;
    token.GetDelegationChain(chain);
    const TokenType type = token.GetTokenType();
    // The token is queried in the documented order, each operation once.
    const std::string subject = DescribePrincipalId(token.GetSubject());
    const Basalt::System::DateTime startTime = token.GetStartTime();
    const Basalt::System::DateTime endTime = token.GetExpirationTime();
    const int32_t renewCount = token.GetRenewCount();
    const int32_t delegableCount = token.GetDelegableCount();
    const bool isSolution = token.IsSolution();
    const std::string groupText = JoinDescriptions(
        groups, {static_cast<std::string (*)(const PrincipalId&)>(DescribePrincipalId)});
    const std::string chainText = JoinDescriptions(chain, {DescribeDelegate});
    return ASPrintInternal(
        "SamlToken [subject=%1, groups=[%2], delegationChain=[%3], startTime=%4, endTime=%5, "
        "renewCount=%6, delegableCount=%7, isSolution=%8, type=%9]",
        PrintFormatter(subject), PrintFormatter(groupText), PrintFormatter(chainText),
        Basalt::DatePrintFormatter(startTime), Basalt::DatePrintFormatter(endTime),
        PrintFormatter(renewCount), PrintFormatter(delegableCount), PrintFormatter(isSolution),
        PrintFormatter(TokenTypeName(type)));
}

}  // namespace SsoClient
