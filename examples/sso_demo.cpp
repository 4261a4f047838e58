// A tour of the client against a WS-Trust token service: tokens by password, by certificate, by
// token and by a GSS exchange, renewal and validation, a token provider renewing its token, then
// the same asynchronously; and, for a resource server, a JWT bearer token validated with the
// issuer's certificate.
//
//   sso_demo <service-url> <trust-dir> [<jwt> [<client-keytab>]]
//
// <trust-dir> holds ca.pem (the TLS CA), signing.pem (the token-signing certificate) and
// client.pem/client.key (the holder-of-key identity), as the loopback test STS provides them.
// With a client keytab, the demo also logs on with Kerberos to the service HTTP@localhost: from
// the default credential cache (after kinit) and from the keytab; Kerberos itself is configured
// as usual (KRB5_CONFIG, KRB5CCNAME).
#include <basalt/Crypto.h>
#include <basalt/Ssl.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/JwtTokenValidator.h>
#include <ssoClient/KerberosNegotiationHandler.h>
#include <ssoClient/SecurityTokenService.h>
#include <ssoClient/TokenProvider.h>

#include <condition_variable>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <thread>

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The test STS's toy GSS mechanism: introduce yourself, then answer each challenge with a
// digest of the challenge and the password. A real host would call its GSS-API here.
class DemoNegotiation : public SsoClient::NegotiationHandler {
  public:
    DemoNegotiation(std::string upn, std::string password)
        : m_upn(std::move(upn)), m_password(std::move(password)) {}

    std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>& serverLeg) override {
        std::string text(serverLeg.begin(), serverLeg.end());
        std::string reply;
        if (text.empty() && !m_started) {
            reply = "HELLO " + m_upn + " 2";
            m_started = true;
        } else if (text.rfind("WELCOME", 0) == 0) {
            reply = "THANKS";  // the service's last word gets a (non-empty) acknowledgement
        } else if (text.rfind("CHALLENGE", 0) == 0) {
            std::istringstream words(text);
            std::string kind, round, nonce;
            words >> kind >> round >> nonce;
            std::string proof = nonce + ":" + m_password;
            reply = "RESPONSE " + round + " " +
                    Basalt::StringUtil::ToHex(Basalt::Crypto::Digest(
                        Basalt::Crypto::DigestAlgorithm::Sha256, proof.data(), proof.size()));
        }
        std::cout << "  GSS leg: server said \"" << text << "\", we answer \"" << reply << "\"\n";
        return std::make_shared<std::vector<unsigned char>>(reply.begin(), reply.end());
    }

  private:
    std::string m_upn;
    std::string m_password;
    bool m_started = false;
};

void Show(const char* what, const std::shared_ptr<const SsoClient::SamlToken>& token) {
    std::cout << what << ":\n  "
              << (token ? SsoClient::CreateSamlTokenDescription(*token) : "(none)") << "\n";
}

// Waits for one asynchronous result.
class Completion {
  public:
    SsoClient::TokenCallback TokenCallback(const char* what) {
        return [this, what](const std::shared_ptr<const SsoClient::SamlToken>& token,
                            const Basalt::Exception* error) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (error) {
                std::cout << what << " failed: " << error->what() << "\n";
            } else {
                Show(what, token);
            }
            m_done = true;
            m_changed.notify_all();
        };
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_done; });
        m_done = false;
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false;
};

// A provider hands out one token until it nears expiry, then renews it in the background. A
// four-second token shows this in a moment; real tokens live minutes or hours.
void ShowProvider(const std::shared_ptr<SsoClient::SecurityTokenService>& service,
                  SsoClient::TokenSpec spec) {
    spec.tokenLifetimeSec = 4;
    SsoClient::TokenProviderOptions options;
    options.refreshFraction = 0.5;  // refresh in the second half of the lifetime
    options.refreshBeforeSec = 0;
    options.minValiditySec = 1;
    auto provider = SsoClient::CreateTokenProvider(
        service, SsoClient::TokenRecipe::ByPassword("alice", "alice-password"), spec, options);
    const auto first = provider->GetToken();
    std::cout << "== Token provider\nSame token twice: "
              << (provider->GetToken() == first ? "yes" : "no") << "\n";
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    auto next = provider->GetToken();  // due for refresh: starts it, hands out the current one
    std::cout << "Same token while it is renewed: " << (next == first ? "yes" : "no") << "\n";
    while (next == first) {  // ends within a second: then only the renewed token is usable
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        next = provider->GetToken();
    }
    Show("Renewed in the background", next);
}

// What a resource server does with a bearer JWT: validate it against its audience and the
// issuer's signing certificate, and use the token like any other.
void ValidateJwt(const std::string& jwt, const std::string& trustDir) {
    Basalt::Ref<SsoClient::TokenValidator> validator;
    SsoClient::CreateJwtTokenValidator(
        {"urn:sso-demo"},
        {std::make_shared<const std::string>(ReadFile(trustDir + "/signing.pem"))}, 600, validator);
    std::cout << "== JWT\nValidated JWT:\n  "
              << SsoClient::CreateSamlTokenDescription(*validator->Validate(jwt, "")) << "\n";
    try {
        validator->Validate(jwt.substr(0, jwt.size() - 2) + "AA", "");
    } catch (const SsoClient::SsoException& e) {
        std::cout << "Tampered JWT: " << e.what() << "\n";
    }
}

// Kerberos logons: the user's default cache, then a service account's keytab; and what a user
// sees when the service principal is wrong.
void ShowKerberos(const SsoClient::SecurityTokenService& service, const SsoClient::TokenSpec& spec,
                  const std::string& keytab) {
    std::cout << "== Kerberos\n";
    auto fromCache = SsoClient::CreateKerberosNegotiationHandler("HTTP@localhost");
    Show("By Kerberos (default cache)", service.AcquireTokenByGSS(spec, *fromCache));
    SsoClient::KerberosOptions options;
    options.credentials = {Basalt::Gss::CredentialSource::ClientKeytab, keytab, ""};
    auto fromKeytab = SsoClient::CreateKerberosNegotiationHandler("HTTP@localhost", options);
    Show("By Kerberos (client keytab)", service.AcquireTokenByGSS(spec, *fromKeytab));
    try {
        auto wrong = SsoClient::CreateKerberosNegotiationHandler("HTTP@nowhere", options);
        service.AcquireTokenByGSS(spec, *wrong);
    } catch (const SsoClient::SsoException& e) {
        std::cout << "Wrong service principal: " << e.what() << "\n";
    }
}

int Run(const std::string& url, const std::string& trustDir, const std::string& keytab) {
    Basalt::Ssl::SSLContextOptions tls;
    tls.trustedCaPem = ReadFile(trustDir + "/ca.pem");
    Basalt::Ref<Basalt::Ssl::SSLContext> sslContext;
    Basalt::Ssl::CreateSSLContext(tls, sslContext);

    std::vector<Basalt::Ref<Basalt::Crypto::Certificate>> signers(1);
    Basalt::Crypto::CreateCertificateFromPem(ReadFile(trustDir + "/signing.pem"), signers[0]);
    Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver(signers, resolver);

    SsoClient::HolderOfKeyConfig identity;
    Basalt::Crypto::CreateCertificateFromPem(ReadFile(trustDir + "/client.pem"),
                                             identity.certificate);
    Basalt::Crypto::CreatePrivateKeyFromPem(ReadFile(trustDir + "/client.key"),
                                            identity.privateKey);

    SsoClient::SecurityTokenServiceConfig config;
    config.url = url;
    config.keyInfoResolver = resolver;
    config.tokenFactory = SsoClient::CreateSamlTokenFactory(resolver.Get());
    config.sslContext = sslContext.Get();
    config.holderOfKey = identity;
    config.connectionFlag = true;
    std::shared_ptr<SsoClient::SecurityTokenService> service =
        SsoClient::CreateSecurityTokenService(config);

    SsoClient::TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    spec.renewable = true;
    spec.delegable = true;
    spec.audienceRestriction = {"urn:demo:service"};

    std::cout << "== Synchronous\n";
    Show("By password (alice)", service->AcquireToken("alice", "alice-password", spec));
    auto hok = service->AcquireTokenByCertificate(spec);
    Show("By certificate (holder-of-key)", hok);
    Show("By token (presenting the holder-of-key token)", service->AcquireTokenByToken(*hok, spec));
    auto renewed = service->RenewToken(*hok, 1200);
    Show("Renewed for 1200 s", renewed);
    std::cout << "Validate renewed token: "
              << (service->ValidateToken(*renewed) ? "valid" : "invalid") << "\n";
    DemoNegotiation negotiation("bob@example.test", "bob-password");
    Show("By GSS (bob)", service->AcquireTokenByGSS(spec, negotiation));
    try {
        service->AcquireToken("alice", "not-her-password", spec);
    } catch (const SsoClient::InvalidCredentialsException& e) {
        std::cout << "Wrong password: " << e.what() << "\n";
    }

    if (!keytab.empty()) {
        ShowKerberos(*service, spec, keytab);
    }
    ShowProvider(service, spec);

    std::cout << "== Asynchronous\n";
    Completion completion;
    service->AcquireTokenAsync("alice", "alice-password", spec,
                               completion.TokenCallback("By password"));
    completion.Wait();
    service->AcquireTokenByCertificateAsync(spec, completion.TokenCallback("By certificate"));
    completion.Wait();
    service->AcquireTokenByTokenAsync(hok, spec, completion.TokenCallback("By token"));
    completion.Wait();
    service->RenewTokenAsync(hok, 900, completion.TokenCallback("Renewed for 900 s"));
    completion.Wait();
    service->AcquireTokenByGSSAsync(
        spec, std::make_shared<DemoNegotiation>("alice@example.test", "alice-password"),
        completion.TokenCallback("By GSS (alice)"));
    completion.Wait();
    std::mutex mutex;
    std::condition_variable changed;
    bool validated = false;
    service->ValidateTokenAsync(
        hok, [&](const boost::optional<bool>& valid, const Basalt::Exception* error) {
            std::lock_guard<std::mutex> lock(mutex);
            std::cout << "Validate holder-of-key token: "
                      << (error ? error->what() : (*valid ? "valid" : "invalid")) << "\n";
            validated = true;
            changed.notify_all();
        });
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return validated; });
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 5) {
        std::cerr << "usage: " << argv[0]
                  << " <service-url> <trust-dir> [<jwt> [<client-keytab>]]\n";
        return 2;
    }
    try {
        const int status = Run(argv[1], argv[2], argc == 5 ? argv[4] : "");
        if (argc >= 4) {
            ValidateJwt(argv[3], argv[2]);
        }
        return status;
    } catch (const std::exception& e) {
        std::cerr << "demo failed: " << e.what() << "\n";
        return 1;
    }
}
