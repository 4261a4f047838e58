#include <ssoClient/SamlTokenFactory.h>

#include <basalt/Exception.h>

#include "internal/saml/SamlTokenImpl.h"
#include "internal/saml/Validation.h"

namespace SsoClient {

namespace {

// The factory behind CreateSamlTokenFactory: always verifies with its resolver.
class SamlTokenFactoryDefault final : public SamlTokenFactory {
  public:
    explicit SamlTokenFactoryDefault(const Basalt::Xml::Security::KeyInfoResolver* resolver)
        : m_resolver(resolver) {}
    ~SamlTokenFactoryDefault() = default;

    using SamlTokenFactory::CreateSamlToken;
    using SamlTokenFactory::CreateSamlTokenFromDom;

    std::shared_ptr<const SamlToken> CreateSamlToken(const std::string& xml,
                                                     long clockToleranceSec) const override {
        return SsoClient::CreateSamlToken(xml, m_resolver.Get(), clockToleranceSec);
    }
    std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(Basalt::Xml::ElementNode* element,
                                                            long clockToleranceSec) const override {
        return SsoClient::CreateSamlTokenFromDom(element, m_resolver.Get(), clockToleranceSec);
    }

  private:
    Basalt::Ref<const Basalt::Xml::Security::KeyInfoResolver> m_resolver;
};

Basalt::Xml::ElementNode& RequireElement(Basalt::Xml::ElementNode* assertion) {
    if (assertion == nullptr) {
        throw Basalt::InvalidArgumentException(
            "CreateSamlTokenFromDom: the assertion element may not be null");
    }
    return *assertion;
}

}  // namespace

std::shared_ptr<const SamlToken> SamlTokenFactory::CreateSamlToken(const std::string& xml) const {
    return CreateSamlToken(xml, kDefaultClockToleranceSec);
}

std::shared_ptr<const SamlToken> SamlTokenFactory::CreateSamlTokenFromDom(
    Basalt::Xml::ElementNode* element) const {
    return CreateSamlTokenFromDom(element, kDefaultClockToleranceSec);
}

std::shared_ptr<const SamlToken> CreateSamlToken(
    std::string_view xml, const Basalt::Xml::Security::KeyInfoResolver* resolver,
    long clockToleranceSec) {
    return std::make_shared<const SamlTokenImpl>(xml, true, resolver, clockToleranceSec);
}

std::shared_ptr<const SamlToken> CreateSamlToken(
    std::string_view xml, const Basalt::Xml::Security::KeyInfoResolver* resolver) {
    return CreateSamlToken(xml, resolver, kDefaultClockToleranceSec);
}

std::shared_ptr<const SamlToken> CreateSamlToken(std::string_view xml, long clockToleranceSec) {
    return std::make_shared<const SamlTokenImpl>(xml, false, nullptr, clockToleranceSec);
}

std::shared_ptr<const SamlToken> CreateSamlToken(std::string_view xml) {
    return CreateSamlToken(xml, kDefaultClockToleranceSec);
}

std::shared_ptr<const SamlToken> CreateSamlToken(std::string_view xml,
                                                 const KeyInfoResolverProvider& resolverProvider) {
    std::shared_ptr<const SamlToken> token = CreateSamlToken(xml, kDefaultClockToleranceSec);
    if (!resolverProvider) {
        throw std::bad_function_call();
    }
    const Basalt::Ref<const Basalt::Xml::Security::KeyInfoResolver> resolver =
        resolverProvider(token.get());
    Saml::VerifySignature(*token->GetSignature(), resolver.Get());
    return token;
}

std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(
    Basalt::Xml::ElementNode* assertion, const Basalt::Xml::Security::KeyInfoResolver* resolver,
    long clockToleranceSec) {
    return std::make_shared<const SamlTokenImpl>(RequireElement(assertion), true, resolver,
                                                 clockToleranceSec);
}

std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(
    Basalt::Xml::ElementNode* assertion, const Basalt::Xml::Security::KeyInfoResolver* resolver) {
    return CreateSamlTokenFromDom(assertion, resolver, kDefaultClockToleranceSec);
}

std::shared_ptr<const SamlToken> CreateSamlTokenFromDom(Basalt::Xml::ElementNode* assertion,
                                                        long clockToleranceSec) {
    return std::make_shared<const SamlTokenImpl>(RequireElement(assertion), false, nullptr,
                                                 clockToleranceSec);
}

std::shared_ptr<SamlTokenFactory> CreateSamlTokenFactory(
    const Basalt::Xml::Security::KeyInfoResolver* resolver) {
    return std::make_shared<SamlTokenFactoryDefault>(resolver);
}

}  // namespace SsoClient
