#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/DateTime.h>
#include <basalt/XmlSecurity.h>

#include <ssoClient/Types.h>

namespace SsoClient {
namespace Saml {

// A SAML NameID (or Issuer): its Format attribute (empty when absent) and its text.
struct NameId {
    std::string format;
    std::string value;
};

struct SubjectRecord {
    NameId nameId;
    int32_t confirmationType = Saml_Bearer;                // Saml_Bearer or Saml_HOK
    std::optional<NameId> delegateId;                      // NameID inside SubjectConfirmation
    Basalt::System::DateTime confirmationNotOnOrAfter;     // bearer only
    Basalt::Ref<Basalt::Crypto::Certificate> certificate;  // holder-of-key only
};

struct CountRestriction {
    std::optional<int64_t> count;  // non-negative when present
};

struct DelegateRecord {
    NameId nameId;
    Basalt::System::DateTime delegationInstant;
};

struct ConditionsRecord {
    Basalt::System::DateTime notBefore;
    Basalt::System::DateTime notOnOrAfter;
    std::optional<CountRestriction> renewRestriction;
    std::optional<std::vector<DelegateRecord>> delegationRestriction;
    std::optional<std::set<std::string>> audienceRestriction;
    std::optional<CountRestriction> proxyRestriction;
};

struct AttributeRecord {
    std::string name;
    std::string nameFormat;    // empty when absent
    std::string friendlyName;  // empty when absent
    std::vector<std::string> values;
};

struct AuthnRecord {
    Basalt::System::DateTime authnInstant;
    std::string authnContextClassRef;
};

// Everything the walk reads from one Assertion.
struct ParsedAssertion {
    std::string version;
    std::string id;
    Basalt::System::DateTime issueInstant;
    NameId issuer;
    Basalt::Ref<Basalt::Xml::Security::Signature> signature;
    SubjectRecord subject;
    ConditionsRecord conditions;
    std::optional<std::vector<Advice>> advice;
    AuthnRecord authnStatement;
    std::optional<std::vector<AttributeRecord>> attributes;
};

}  // namespace Saml
}  // namespace SsoClient
