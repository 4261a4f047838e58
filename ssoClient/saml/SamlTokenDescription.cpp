#include <ssoClient/Description.h>

#include <vector>

#include <basalt/Format.h>

#include "internal/saml/Descriptions.h"

namespace SsoClient {

using Basalt::PrintFormatter;
using Basalt::Detail::ASPrintInternal;

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
