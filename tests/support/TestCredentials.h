#pragma once

#include <basalt/Crypto.h>
#include <basalt/Ssl.h>
#include <basalt/XmlSecurity.h>
#include <ssoClient/HolderOfKeyConfig.h>
#include <ssoClient/SecurityTokenService.h>
#include <ssoClient/Types.h>

#include <string>
#include <vector>

#include "TestData.h"

namespace TestSupport {

// A request for a token of lifetimeSec seconds, the rest left as it comes.
inline SsoClient::TokenSpec Spec(int64_t lifetimeSec = 600) {
    SsoClient::TokenSpec spec;
    spec.tokenLifetimeSec = lifetimeSec;
    return spec;
}

// A holder-of-key identity from PEM files under tests/data.
inline SsoClient::HolderOfKeyConfig LoadHolderOfKey(
    const std::string& certificateFile = "certs/sts-rsa.pem",
    const std::string& keyFile = "certs/sts-rsa.key") {
    return {TestData::LoadCertificate(certificateFile), TestData::LoadPrivateKey(keyFile)};
}

// The STS's TLS and token-signing trust, and the client's holder-of-key identity.
struct StsTrust {
    explicit StsTrust(const std::string& tlsCa = "sts/ca.pem") {
        Basalt::Ssl::SSLContextOptions options;
        options.trustedCaPem = TestData::Read(tlsCa);
        Basalt::Ssl::CreateSSLContext(options, sslContext);
        resolver = TestData::TrustOnly({"sts/signing.pem"});
    }
    Basalt::Ref<Basalt::Ssl::SSLContext> sslContext;
    Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    SsoClient::HolderOfKeyConfig client = LoadHolderOfKey("sts/client.pem", "sts/client.key");
};

// A service configuration for the loopback test STS at url, trusting its TLS CA and its
// token-signing certificate.
inline SsoClient::SecurityTokenServiceConfig LoopbackStsConfig(const std::string& url) {
    static const StsTrust trust;
    SsoClient::SecurityTokenServiceConfig config;
    config.url = url;
    config.tokenFactory = SsoClient::CreateSamlTokenFactory(trust.resolver.Get());
    config.keyInfoResolver = trust.resolver;
    config.sslContext = trust.sslContext.Get();
    config.allowPlainHttp = true;  // the loopback STS may speak plain HTTP
    return config;
}

}  // namespace TestSupport
