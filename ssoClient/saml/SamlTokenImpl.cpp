#include "internal/saml/SamlTokenImpl.h"

#include <algorithm>
#include <cctype>
#include <limits>

#include <basalt/IO.h>
#include <basalt/Thread.h>

#include <ssoClient/Exceptions.h>
#include "internal/saml/AssertionParser.h"
#include "internal/saml/ExtensionNames.h"
#include "internal/saml/ParsedAssertion.h"
#include "internal/saml/SamlNames.h"
#include "internal/saml/Validation.h"
#include "internal/xml/XmlUtils.h"

namespace SsoClient {

namespace Saml {

PrincipalId ParseUpn(const std::string& format, const std::string& value) {
    if (format != kUpnFormat) {
        throw ParseException("Invalid or unsupported NameId format '" + format + "'");
    }
    const size_t at = value.rfind('@');
    if (at == std::string::npos || at == 0 || at == value.size() - 1) {
        throw ParseException("Failed to parse the UPN NameID: `" + value +
                             "'; name or domain part is missing.");
    }
    return PrincipalId{value.substr(0, at), value.substr(at + 1)};
}

PrincipalId ParseGroupIdentity(const std::string& value) {
    const size_t slash = value.find('\\');
    if (slash == std::string::npos || slash == 0 || slash == value.size() - 1) {
        throw ParseException("Failed to parse Group Identity value: `" + value +
                             "'; domain or group missing");
    }
    return PrincipalId{value.substr(slash + 1), value.substr(0, slash)};
}

bool ParseIsSolution(const std::vector<std::string>& values) {
    if (values.empty()) {
        throw ParseException("No value found for attribute isSolution.");
    }
    constexpr std::string_view kTrue = "TRUE";
    const std::string& first = values.front();
    const bool isTrue = first.size() == kTrue.size() &&
                        std::equal(first.begin(), first.end(), kTrue.begin(), [](char a, char b) {
                            return std::toupper(static_cast<unsigned char>(a)) == b;
                        });
    // A second value is refused even when the first one is valid.
    if (values.size() > 1) {
        throw ParseException("More than one value found for attribute isSolution.");
    }
    return isTrue;
}

}  // namespace Saml

namespace {

// Counts beyond the int32 range saturate rather than wrap.
int32_t NarrowCount(int64_t count) {
    return static_cast<int32_t>(std::min<int64_t>(count, std::numeric_limits<int32_t>::max()));
}

}  // namespace

SamlTokenImpl::SamlTokenImpl(std::string_view xml, bool verify,
                             const Basalt::Xml::Security::KeyInfoResolver* resolver,
                             long clockToleranceSec, const Basalt::System::Clock& clock)
    : m_xml(xml), m_clockToleranceSec(clockToleranceSec) {
    Basalt::Ref<Basalt::Xml::Document> document;
    ParseXmlText(m_xml, document);
    Basalt::Ref<Basalt::Xml::ElementNode> root;
    if (document) {
        root = document->GetDocumentElement();
    }
    Initialize(root, verify, clock, resolver);
    m_signature = nullptr;  // and with it the DOM; GetSignature builds it again when asked
}

SamlTokenImpl::SamlTokenImpl(Basalt::Xml::ElementNode& assertion, bool verify,
                             const Basalt::Xml::Security::KeyInfoResolver* resolver,
                             long clockToleranceSec, const Basalt::System::Clock& clock)
    : m_clockToleranceSec(clockToleranceSec) {
    Basalt::Ref<Basalt::Xml::Security::Canonicalizer> canonicalizer;
    Basalt::Xml::Security::CreateCanonicalizer("http://www.w3.org/TR/2001/REC-xml-c14n-20010315#",
                                               canonicalizer);
    Basalt::Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    canonicalizer->Canonicalize(&assertion, writer.Get());
    m_xml = writer->TakeString();
    Initialize(Basalt::Ref<Basalt::Xml::ElementNode>(&assertion), verify, clock, resolver);
    // The caller's element stays the signature's: its canonical text need not verify alike.
    std::call_once(m_signatureBuilt, [] {});
}

SamlTokenImpl::~SamlTokenImpl() = default;

void SamlTokenImpl::Initialize(const Basalt::Ref<Basalt::Xml::ElementNode>& assertion, bool verify,
                               const Basalt::System::Clock& clock,
                               const Basalt::Xml::Security::KeyInfoResolver* resolver) {
    Saml::CurrentExtensionNames();  // the first token fixes the extension hosts
    Saml::ParsedAssertion parsed;
    Saml::WalkAssertion(assertion, parsed);
    Saml::ValidateAssertion(parsed, m_clockToleranceSec, clock);
    m_issuer = std::move(parsed.issuer.value);
    m_signature = std::move(parsed.signature);
    if (verify) {
        Saml::VerifySignature(*m_signature, resolver);
    }

    m_id = std::move(parsed.id);
    m_subject = std::make_unique<PrincipalId>(
        Saml::ParseUpn(parsed.subject.nameId.format, parsed.subject.nameId.value));
    m_startTime = parsed.conditions.notBefore;
    m_expirationTime = parsed.conditions.notOnOrAfter;
    m_tokenType = static_cast<TokenType>(parsed.subject.confirmationType);
    m_holderOfKeyCertificate = std::move(parsed.subject.certificate);

    const auto& conditions = parsed.conditions;
    const bool hasProxyCount = conditions.proxyRestriction && conditions.proxyRestriction->count;
    // The renew count deliberately comes from the proxy restriction's count: a renew
    // restriction with a count only enables it.
    m_renewCount = 0;
    if (conditions.renewRestriction && conditions.renewRestriction->count && hasProxyCount) {
        m_renewCount = NarrowCount(*conditions.proxyRestriction->count);
    }
    m_delegableCount = hasProxyCount ? NarrowCount(*conditions.proxyRestriction->count) : 0;

    if (parsed.advice) {
        m_advice = std::move(*parsed.advice);
    }
    if (parsed.attributes) {
        InterpretAttributes(parsed);
    }
    if (conditions.delegationRestriction) {
        m_delegationChain.reserve(conditions.delegationRestriction->size());
        for (const auto& delegate : *conditions.delegationRestriction) {
            m_delegationChain.push_back(
                Delegate{Saml::ParseUpn(delegate.nameId.format, delegate.nameId.value),
                         delegate.delegationInstant});
        }
    }
    if (conditions.audienceRestriction) {
        m_audience = std::move(*parsed.conditions.audienceRestriction);
    }
}

void SamlTokenImpl::InterpretAttributes(const Saml::ParsedAssertion& parsed) {
    const auto firstValue = [](const Saml::AttributeRecord& attribute) {
        return attribute.values.empty() ? std::string() : attribute.values.front();
    };
    const Saml::ExtensionNames& names = Saml::CurrentExtensionNames();
    for (const auto& attribute : *parsed.attributes) {
        if (attribute.name == names.groupIdentity) {
            m_groups.reserve(m_groups.size() + attribute.values.size());
            for (const auto& value : attribute.values) {
                m_groups.push_back(Saml::ParseGroupIdentity(value));
            }
        } else if (attribute.name == names.isSolution) {
            m_isSolution = Saml::ParseIsSolution(attribute.values);
        } else if (attribute.name == Saml::kGivenNameAttribute) {
            m_givenName = firstValue(attribute);
        } else if (attribute.name == Saml::kSurnameAttribute) {
            m_surname = firstValue(attribute);
        } else {
            Saml::WarnOnNearMissAttribute(attribute.name);
        }
    }
}

Basalt::Xml::Security::Signature* SamlTokenImpl::GetSignature() const {
    std::call_once(m_signatureBuilt, [this] {
        Basalt::Ref<Basalt::Xml::Document> document;
        ParseXmlText(m_xml, document);
        Saml::ReadAssertionSignature(document->GetDocumentElement(), m_signature);
    });
    return m_signature.Get();
}

Basalt::System::DateTime SamlTokenImpl::GetExpirationTimeWithTolerance() const {
    return Basalt::System::DateTimeFromUtc(
        static_cast<long>(Saml::SaturatingAdd(m_expirationTime.GetUtcTime(),
                                              Saml::ToleranceMicros(m_clockToleranceSec))),
        false);
}

void SamlTokenImpl::GetPersonName(PersonName& name) const {
    name.givenName = m_givenName;
    name.surname = m_surname;
}

const std::string& SamlTokenImpl::GetUnsupportedInfo() const {
    Basalt::Panic("NOT_IMPLEMENTED %s:%d\n", "ssoClient/SamlTokenImpl", 94);
}

}  // namespace SsoClient
