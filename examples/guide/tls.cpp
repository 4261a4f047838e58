// TLS contexts for the token service: a private CA with a pinned server key, and mutual TLS.
#include <basalt/Crypto.h>
#include <basalt/Ssl.h>

namespace Guide {

Basalt::Ref<Basalt::Ssl::SSLContext> Pinned(const std::string& corporateCaPem,
                                            const std::string& stsPublicKeyPem) {
    // [snippet:tls_pinned]
    Basalt::Ssl::SSLContextOptions tls;
    tls.trustedCaPem = corporateCaPem;         // only these CAs (empty: the system's store)
    tls.pinnedPublicKeyPem = stsPublicKeyPem;  // and the server's key must be this one
    tls.minimumVersion = Basalt::Ssl::TlsVersion::Tls1_3;
    Basalt::Ref<Basalt::Ssl::SSLContext> ssl;
    Basalt::Ssl::CreateSSLContext(tls, ssl);
    // [/snippet]
    return ssl;
}

Basalt::Ref<Basalt::Ssl::SSLContext> Mutual(const std::string& caPem, const std::string& certPem,
                                            const std::string& keyPem) {
    // [snippet:tls_mutual]
    Basalt::Ssl::SSLContextOptions tls;
    tls.trustedCaPem = caPem;
    Basalt::Crypto::CreateCertificateFromPem(certPem, tls.clientCertificate);
    Basalt::Crypto::CreatePrivateKeyFromPem(keyPem, tls.clientKey);
    Basalt::Ref<Basalt::Ssl::SSLContext> ssl;
    Basalt::Ssl::CreateSSLContext(tls, ssl);  // throws if the key does not match
    // [/snippet]
    return ssl;
}

}  // namespace Guide
