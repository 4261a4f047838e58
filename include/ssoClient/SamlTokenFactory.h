#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <basalt/Object.h>
#include <basalt/Xml.h>
#include <basalt/XmlSecurity.h>

#include <ssoClient/Export.h>
#include <ssoClient/SamlToken.h>

namespace SsoClient {

// Turns SAML 2.0 assertions into tokens. Every operation either returns a fully parsed and
// validated token or throws: ParseException for structure, validity window, delegation and
// signature coverage problems, InvalidSignatureException when the signature does not verify;
// XML parser and certificate failures of the foundation pass through.
class SSOCLIENT_API SamlTokenFactory {
  public:
    // Same as CreateSamlToken(xml, 600).
    virtual std::shared_ptr<const SamlToken> CreateSamlToken(const std::string& xml) const;
    // Parses, validates with the clock tolerance (seconds) and verifies the assertion text.
    virtual std::shared_ptr<const SamlToken> CreateSamlToken(const std::string& xml,
                                                             long clockToleranceSec) const = 0;
    // Same as CreateSamlTokenFromDom(element, 600).
    virtual std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(
        Basalt::Xml::ElementNode* element) const;
    // Validates and verifies an Assertion element; the caller keeps the element.
    virtual std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(
        Basalt::Xml::ElementNode* element, long clockToleranceSec) const = 0;

  protected:
    SamlTokenFactory() = default;
    SamlTokenFactory(const SamlTokenFactory&) = default;
    SamlTokenFactory& operator=(const SamlTokenFactory&) = default;
    // Factories are destroyed through the shared_ptr that created them.
    ~SamlTokenFactory() = default;
};

// The clock tolerance, in seconds, of the overloads that take none: ten minutes. Any value is
// accepted: a negative one narrows the validity window, and the time arithmetic saturates at the
// ends of the representable range instead of overflowing.
inline constexpr long kDefaultClockToleranceSec = 600;

// Token from assertion text, signature verified with resolver (keys come only from it). The token
// keeps a byte-for-byte copy of xml.
SSOCLIENT_API std::shared_ptr<const SamlToken> CreateSamlToken(
    std::string_view xml, const Basalt::Xml::Security::KeyInfoResolver* resolver,
    long clockToleranceSec);
SSOCLIENT_API std::shared_ptr<const SamlToken> CreateSamlToken(
    std::string_view xml, const Basalt::Xml::Security::KeyInfoResolver* resolver);
// Token from assertion text WITHOUT signature verification: only for text that was already
// authenticated by other means. Structure, coverage and validity are still checked.
SSOCLIENT_API std::shared_ptr<const SamlToken> CreateSamlToken(std::string_view xml,
                                                               long clockToleranceSec);
SSOCLIENT_API std::shared_ptr<const SamlToken> CreateSamlToken(std::string_view xml);
// A literal tolerance such as 0 would otherwise be ambiguous with a null resolver.
inline std::shared_ptr<const SamlToken> CreateSamlToken(std::string_view xml,
                                                        int clockToleranceSec) {
    return CreateSamlToken(xml, static_cast<long>(clockToleranceSec));
}

// Chooses the resolver after parsing, e.g. by issuer.
using KeyInfoResolverProvider =
    std::function<Basalt::Ref<const Basalt::Xml::Security::KeyInfoResolver>(const SamlToken*)>;
// Parses and validates the text (tolerance 600), asks resolverProvider for the resolver of the
// parsed token, then verifies the signature with it. An empty provider throws
// std::bad_function_call.
SSOCLIENT_API std::shared_ptr<const SamlToken> CreateSamlToken(
    std::string_view xml, const KeyInfoResolverProvider& resolverProvider);

// Token from an Assertion element (the caller keeps it); the token's XML is the element's
// inclusive canonical form. A null element throws Basalt::InvalidArgumentException.
SSOCLIENT_API std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(
    Basalt::Xml::ElementNode* assertion, const Basalt::Xml::Security::KeyInfoResolver* resolver,
    long clockToleranceSec);
SSOCLIENT_API std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(
    Basalt::Xml::ElementNode* assertion, const Basalt::Xml::Security::KeyInfoResolver* resolver);
// Without signature verification, as CreateSamlToken(xml, clockToleranceSec).
SSOCLIENT_API std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(
    Basalt::Xml::ElementNode* assertion, long clockToleranceSec);
inline std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(Basalt::Xml::ElementNode* assertion,
                                                               int clockToleranceSec) {
    return CreateSamlTokenFromDom(assertion, static_cast<long>(clockToleranceSec));
}

// Chooses, for this process, the scheme and host of the vendor-extension URIs, replacing those set
// when the library was built: namespaceBase for the advice namespaces
// (<namespaceBase>/names/2009/12/std-ext/...), attributeNameBase for the group-identity and
// isSolution attribute names (<attributeNameBase>/schemas/attr-names/...), each e.g.
// "https://sts.corp.example" without a trailing slash. Call it once at start-up:
//
//   SsoClient::SetSamlExtensionHosts("https://sts.corp.example", "https://sts.corp.example");
//
// Throws Basalt::InvalidStateException "SAML extension hosts must be set before the first token
// is parsed or requested" once a token has been parsed or a request with advice built. A token
// whose group-identity or isSolution attribute differs from the names in effect only in its host
// is read without it; the first such attribute logs a warning on the "SsoClient" logger.
SSOCLIENT_API void SetSamlExtensionHosts(const std::string& namespaceBase,
                                         const std::string& attributeNameBase);

// A factory that always verifies with resolver (a reference is kept; may be null, in which case
// every verification fails).
SSOCLIENT_API std::shared_ptr<SamlTokenFactory> CreateSamlTokenFactory(
    const Basalt::Xml::Security::KeyInfoResolver* resolver);

}  // namespace SsoClient
