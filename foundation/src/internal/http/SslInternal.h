#pragma once

// The native side of Basalt::Ssl::SSLContext, for the foundation's HTTP client.

#include <openssl/ssl.h>

#include <string>

#include <basalt/Ssl.h>
#include "internal/crypto/CryptoInternal.h"
#include "internal/http/HttpInternal.h"

namespace Basalt {
namespace Ssl {

class SSLContextImpl final : public ObjectImpl, public SSLContext {
  public:
    explicit SSLContextImpl(const SSLContextOptions& options);
    ~SSLContextImpl() override;

    const SSLContextOptions& GetOptions() const override { return m_options; }
    std::string ToString() const override;

    // True when the context trusts only its own CAs rather than the system store.
    bool HasOwnTrust() const { return m_trust != nullptr; }
    // libcurl's pinned-key form ("sha256//<base64>"), empty when no key is pinned.
    const std::string& GetPinnedKeyHash() const { return m_pinnedKeyHash; }
    // Connections and TLS sessions made under this context.
    CURLSH* GetShare() const { return m_share.Get(); }
    // Installs the trust store, client identity and protocol floor into a new SSL_CTX;
    // returns false (with the reason in error) if OpenSSL refuses them.
    bool Install(SSL_CTX* ctx, std::string& error) const;

  private:
    void LoadTrust();
    void LoadPinnedKey();
    void CheckClientIdentity() const;

    SSLContextOptions m_options;
    UniquePtr<X509_STORE> m_trust;
    std::string m_pinnedKeyHash;
    mutable Http::CurlShare m_share;
};

}  // namespace Ssl
}  // namespace Basalt
