#pragma once

#include <string>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/Object.h>

namespace Basalt {
namespace Ssl {

// Lowest TLS protocol version a context accepts. Anything older than TLS 1.2 is not offered.
enum class TlsVersion { Tls1_2, Tls1_3 };

// How a TLS client authenticates servers and itself. The defaults are the safe ones: the peer's
// chain is verified against the system's trusted CAs and its name against the host connected
// to, TLS 1.2 or later.
struct SSLContextOptions {
    // Trusted CA certificates as a PEM bundle and/or as certificate objects. When both are empty
    // the system's trust store is used; otherwise only these certificates are trusted.
    std::string trustedCaPem;
    std::vector<Ref<Crypto::Certificate>> trustedCertificates;
    // Client certificate and its private key for mutual TLS; both or neither.
    Ref<Crypto::Certificate> clientCertificate;
    Ref<Crypto::PrivateKey> clientKey;
    // Certificate chain verification and host name verification. Turning either off makes the
    // connection open to interception; every context created so logs a warning.
    bool verifyPeer = true;
    bool verifyHostName = true;
    // Optional pinned server key: a PEM public key ("-----BEGIN PUBLIC KEY-----") or certificate.
    // When set, a server whose leaf certificate carries another key is refused even if its chain
    // verifies.
    std::string pinnedPublicKeyPem;
    TlsVersion minimumVersion = TlsVersion::Tls1_2;
};

// An immutable TLS client configuration shared by any number of connections and threads. It
// also owns the cache of kept-alive connections and TLS sessions made under it, so a connection
// is only ever reused by requests that trust the same CAs and present the same client identity.
class BASALT_API SSLContext : public virtual Object {
  public:
    virtual const SSLContextOptions& GetOptions() const = 0;

  protected:
    ~SSLContext() override;
};

// Creates a context. Throws InvalidArgumentException when the trusted PEM or the pinned key
// cannot be parsed, or when the client certificate and key are not given together or do not
// match.
BASALT_API void CreateSSLContext(const SSLContextOptions& options, Ref<SSLContext>& context);

}  // namespace Ssl
}  // namespace Basalt
