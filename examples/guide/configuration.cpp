// Configuring the token service: a holder-of-key identity, limits and retries, a proxy, an
// observer, what a request asks for, and a service over the caller's own user agent.
#include <basalt/Crypto.h>
#include <basalt/Http.h>
#include <basalt/Ssl.h>
#include <ssoClient/ConnectionSpec.h>
#include <ssoClient/SecurityTokenService.h>

#include <chrono>

namespace Guide {

void AddHolderOfKey(SsoClient::SecurityTokenServiceConfig& config, const std::string& clientPem,
                    const std::string& clientKeyPem) {
    // [snippet:holder_of_key]
    Basalt::Ref<Basalt::Crypto::Certificate> certificate;
    Basalt::Crypto::CreateCertificateFromPem(clientPem, certificate);
    Basalt::Ref<Basalt::Crypto::PrivateKey> key;
    Basalt::Crypto::CreatePrivateKeyFromPem(clientKeyPem, key);  // a passphrase if encrypted
    config.holderOfKey = SsoClient::HolderOfKeyConfig{certificate, key};
    // [/snippet]
}

void AddLimits(SsoClient::SecurityTokenServiceConfig& config, const std::string& proxyPassword) {
    // [snippet:limits]
    SsoClient::ServiceLimits limits;
    limits.connectTimeout = std::chrono::seconds(2);
    limits.deadline = std::chrono::seconds(5);  // the whole operation, every GSS leg
    limits.retry = SsoClient::RetryPolicy();    // 3 tries, 200 ms doubling up to 2 s
    config.limits = limits;
    config.proxy = SsoClient::ProxyConfig{"http://proxy.example:3128", "user", proxyPassword,
                                          ".internal.example"};
    // [/snippet]
}

SsoClient::TokenSpec Spec() {
    // [snippet:token_spec]
    SsoClient::TokenSpec spec;
    spec.tokenLifetimeSec = 3600;                        // required: 1 to kMaxTokenLifetimeSec
    spec.appliesTo = "https://api.example.test/orders";  // the relying party's endpoint
    spec.audienceRestriction = {"https://api.example.test"};
    spec.renewable = true;
    spec.confirmation = SsoClient::CONFIRMATION_BEARER;  // bearer even with a holderOfKey
    // [/snippet]
    return spec;
}

std::shared_ptr<SsoClient::SecurityTokenService> OwnUserAgent(
    Basalt::Ssl::SSLContext* ssl, const std::shared_ptr<SsoClient::SamlTokenFactory>& factory) {
    // [snippet:config_ex]
    Basalt::Ref<Basalt::Http::ConnectionSpec> endpoint;
    SsoClient::CreateSsoSSLConnectionSpec("sts.example.com", 443, ssl, "", true, endpoint);
    Basalt::Ref<Basalt::Http::CookieStore> cookies;
    Basalt::Http::CreateCookieStore("sts", cookies);
    Basalt::Ref<Basalt::Http::HttpUserAgent> agent;
    Basalt::Http::CreateHttpUserAgent(endpoint.Get(), cookies.Get(), nullptr, agent);

    SsoClient::SecurityTokenServiceConfigEx config;
    config.url = "/sts/STSService";  // the request target, used as given
    config.userAgent = agent;
    config.tokenFactory = factory;
    auto sts = SsoClient::CreateSecurityTokenService(config);
    // [/snippet]
    return sts;
}

}  // namespace Guide
