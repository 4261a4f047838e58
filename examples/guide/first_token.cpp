// A first token: connects to a token service, acquires a token by password and prints it.
//
//   first_token <service-url> <trust-dir> [<user> <password>]
//
// <trust-dir> holds ca.pem (the service's TLS CA) and signing.pem (its token-signing
// certificate), as tests/data/sts does for the loopback test STS.
#include <basalt/Crypto.h>
#include <basalt/Ssl.h>
#include <basalt/XmlSecurity.h>
#include <ssoClient/Description.h>
#include <ssoClient/SecurityTokenService.h>

#include <fstream>
#include <iostream>
#include <iterator>

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// [snippet:connect]
std::shared_ptr<SsoClient::SecurityTokenService> Connect(const std::string& url,
                                                         const std::string& caPem,
                                                         const std::string& signingPem) {
    // TLS: trust the service's CA only (left empty, the system's trust store is used).
    Basalt::Ssl::SSLContextOptions tls;
    tls.trustedCaPem = caPem;
    Basalt::Ref<Basalt::Ssl::SSLContext> ssl;
    Basalt::Ssl::CreateSSLContext(tls, ssl);

    // Issued tokens: their signatures must verify with the service's signing certificate.
    std::vector<Basalt::Ref<Basalt::Crypto::Certificate>> trusted(1);
    Basalt::Crypto::CreateCertificateFromPem(signingPem, trusted[0]);
    Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver(trusted, resolver);

    SsoClient::SecurityTokenServiceConfig config;
    config.url = url;
    config.sslContext = ssl.Get();  // the service keeps its own reference
    config.tokenFactory = SsoClient::CreateSamlTokenFactory(resolver.Get());
    return SsoClient::CreateSecurityTokenService(config);
}
// [/snippet]

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 5) {
        std::cerr << "usage: first_token <service-url> <trust-dir> [<user> <password>]\n";
        return 2;
    }
    const std::string url = argv[1], dir = argv[2];
    const std::string user = argc == 5 ? argv[3] : "alice";
    const std::string password = argc == 5 ? argv[4] : "alice-password";
    try {
        // [snippet:first_token]
        auto sts = Connect(url, ReadFile(dir + "/ca.pem"), ReadFile(dir + "/signing.pem"));
        SsoClient::TokenSpec spec;
        spec.tokenLifetimeSec = 600;  // required: 1 s up to 100 years
        std::shared_ptr<const SsoClient::SamlToken> token = sts->AcquireToken(user, password, spec);
        std::cout << SsoClient::CreateSamlTokenDescription(*token) << "\n";
        // [/snippet]
    } catch (const std::exception& error) {
        std::cerr << "first_token: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
