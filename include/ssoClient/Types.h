#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/optional.hpp>

#include <basalt/DateTime.h>

#include <ssoClient/Export.h>

namespace SsoClient {

class SamlToken;

// The identity of a user, group or solution.
struct SSOCLIENT_API PrincipalId {
    std::string name;    // account or group name, without domain
    std::string domain;  // the domain (realm) the name belongs to

    // Equal when both name and domain match ignoring ASCII case (strcasecmp: comparison stops
    // at the first NUL byte, only ASCII letters fold); an object always equals itself.
    bool operator==(const PrincipalId& other) const;
    bool operator!=(const PrincipalId& other) const { return !(*this == other); }
};

// One link of a token's delegation chain.
struct Delegate {
    PrincipalId principal;                       // to whom the token was delegated
    Basalt::System::DateTime delegationInstant;  // when
};

// One attribute of an advice.
struct AdviceAttribute {
    std::string name;
    std::vector<std::string> values;  // in document order; may be empty
};

// Advice to be carried into an issued token.
struct Advice {
    std::string source;
    std::vector<AdviceAttribute> attributes;
};

// How the subject of an issued token is confirmed. Only zero / non-zero matters to requests:
// any value other than CONFIRMATION_DEFAULT asks for a bearer token.
enum ConfirmationType : int32_t {
    // Follows the request: holder-of-key requests ask for a public-key token.
    CONFIRMATION_DEFAULT = 0,
    // Always ask for a bearer token.
    CONFIRMATION_BEARER = 1,
};

// The kind of a token object.
enum TokenType : int32_t {
    Saml_Bearer = 0,
    Saml_HOK = 1,
    JWT_Bearer = 2,
};

// The longest token lifetime a request may ask for: 100 years, in seconds.
constexpr int64_t kMaxTokenLifetimeSec = 3155760000;

// What a caller asks the token service for.
struct TokenSpec {
    // Requested lifetime in seconds; every request needs 1 to kMaxTokenLifetimeSec (0 until set,
    // which requests reject with Basalt::InvalidArgumentException).
    int64_t tokenLifetimeSec = 0;
    std::set<std::string> audienceRestriction;
    std::vector<Advice> advice;
    bool delegable = false;
    // The principal the token is to be delegated to.
    boost::optional<std::string> delegateTo;
    // A token on whose behalf the request is made (the ActAs element).
    boost::optional<std::shared_ptr<const SamlToken>> actAsToken;
    bool renewable = false;
    ConfirmationType confirmation = CONFIRMATION_DEFAULT;
    // The endpoint address of the relying party the token is for, sent as wsp:AppliesTo in issue
    // requests (after wst:RequestType); absent, no AppliesTo is sent.
    boost::optional<std::string> appliesTo;
};

// A person's name as a token states it.
struct PersonName {
    std::string givenName;
    std::string surname;
};

}  // namespace SsoClient
