#pragma once

#include <functional>
#include <string>

#include <ssoClient/Types.h>

namespace SsoClient {

// One-line texts of the public records, for log lines. Their formats are fixed: log readers and
// tests match them letter for letter.

// Records joined with ", " between non-empty accumulated text and the next description; an empty
// list gives "".
template <class Sequence>
std::string JoinDescriptions(
    const Sequence& items,
    const std::function<std::string(const typename Sequence::value_type&)>& describe) {
    std::string text;
    for (const auto& item : items) {
        if (!text.empty()) {
            text += ", ";
        }
        text += describe(item);
    }
    return text;
}

// Plain strings joined with ", " before every element but the first (empty strings keep their
// separators).
template <class Sequence>
std::string JoinStrings(const Sequence& items) {
    std::string text;
    bool first = true;
    for (const std::string& item : items) {
        if (!first) {
            text += ", ";
        }
        text += item;
        first = false;
    }
    return text;
}

// "{Name: alice; Domain:sales}"
std::string DescribePrincipalId(const PrincipalId& principal);
// As above, or "(null)".
std::string DescribePrincipalId(const PrincipalId* principal);
// "{Name: ...; Domain:...} at 2024-01-05T03:04:05.000000Z"
std::string DescribeDelegate(const Delegate& delegate);
// "[source=<name>, attributes=[v1, v2]]"
std::string DescribeAdviceAttribute(const AdviceAttribute& attribute);
// "Advice [source=<source>, attributes=[<attribute descriptions>]]"
std::string DescribeAdvice(const Advice& advice);
// "TokenSpec [tokenLifetimeSec=..., delegable=..., ..., advice=[...]"
std::string DescribeTokenSpec(const TokenSpec& spec);

}  // namespace SsoClient
