#include <basalt/Ssl.h>

#include <openssl/err.h>
#include <openssl/pem.h>

#include "internal/crypto/CryptoInternal.h"
#include "internal/system/FoundationLog.h"
#include "internal/http/SslInternal.h"
#include <basalt/Exception.h>
#include <basalt/StringUtil.h>

namespace Basalt {
namespace Ssl {

SSLContext::~SSLContext() = default;

namespace {

// The public key of a PEM public key or, failing that, of a PEM certificate.
UniquePtr<EVP_PKEY> ReadPublicKeyPem(const std::string& pem) {
    UniquePtr<EVP_PKEY> key(
        PEM_read_bio_PUBKEY(Crypto::MemoryBio(pem).get(), nullptr, nullptr, nullptr));
    if (!key) {
        UniquePtr<X509> cert(
            PEM_read_bio_X509(Crypto::MemoryBio(pem).get(), nullptr, nullptr, nullptr));
        if (cert) {
            key.reset(X509_get_pubkey(cert.get()));
        }
    }
    ERR_clear_error();
    if (!key) {
        throw InvalidArgumentException(
            "SSLContext: the pinned public key is neither a PEM public key nor a PEM certificate");
    }
    return key;
}

}  // namespace

SSLContextImpl::SSLContextImpl(const SSLContextOptions& options) : m_options(options) {
    LoadTrust();
    LoadPinnedKey();
    CheckClientIdentity();
    if (!m_options.verifyPeer || !m_options.verifyHostName) {
        Service::LogInternal(FoundationLogger(), Service::Logger::LL_Warning,
                             "SSLContext created with %1 verification turned off: connections "
                             "made with it can be intercepted",
                             PrintFormatter(!m_options.verifyPeer ? "certificate" : "host name"));
    }
}

SSLContextImpl::~SSLContextImpl() = default;

std::string SSLContextImpl::ToString() const {
    return std::string("SSLContext(") + (m_trust ? "own CAs" : "system CAs") +
           (m_options.clientCertificate ? ", client certificate" : "") +
           (m_pinnedKeyHash.empty() ? "" : ", pinned key") +
           (m_options.verifyPeer && m_options.verifyHostName ? "" : ", VERIFICATION OFF") + ")";
}

void SSLContextImpl::LoadTrust() {
    std::vector<Ref<Crypto::Certificate>> certificates = m_options.trustedCertificates;
    if (!m_options.trustedCaPem.empty()) {
        std::vector<Ref<Crypto::Certificate>> fromPem;
        Crypto::CreateCertificatesFromPem(m_options.trustedCaPem, fromPem);
        certificates.insert(certificates.end(), fromPem.begin(), fromPem.end());
    }
    if (certificates.empty()) {
        return;  // the system store
    }
    m_trust.reset(X509_STORE_new());
    if (!m_trust) {
        throw Exception("Out of memory creating a trust store");
    }
    for (const Ref<Crypto::Certificate>& certificate : certificates) {
        if (!certificate) {
            throw InvalidArgumentException("SSLContext: null trusted certificate");
        }
        // Adding the same certificate twice is harmless; any other failure is not.
        if (X509_STORE_add_cert(m_trust.get(), Crypto::NativeCertificate(*certificate)) != 1) {
            unsigned long error = ERR_peek_last_error();
            if (ERR_GET_REASON(error) != X509_R_CERT_ALREADY_IN_HASH_TABLE) {
                throw Exception(
                    Crypto::TakeOpenSslErrors("SSLContext: cannot add a trusted certificate"));
            }
            ERR_clear_error();
        }
    }
    // As libcurl does for its own stores: a trusted intermediate or leaf is an anchor too.
    X509_STORE_set_flags(m_trust.get(), X509_V_FLAG_PARTIAL_CHAIN);
}

void SSLContextImpl::LoadPinnedKey() {
    if (m_options.pinnedPublicKeyPem.empty()) {
        return;
    }
    UniquePtr<EVP_PKEY> key = ReadPublicKeyPem(m_options.pinnedPublicKeyPem);
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(key.get(), &der);
    UniquePtr<OpenSslBytes> owned(der);
    if (size <= 0) {
        throw Exception(Crypto::TakeOpenSslErrors("SSLContext: cannot encode the pinned key"));
    }
    std::vector<unsigned char> hash =
        Crypto::Digest(Crypto::DigestAlgorithm::Sha256, der, static_cast<size_t>(size));
    m_pinnedKeyHash = "sha256//" + StringUtil::Base64Encode(hash);
}

void SSLContextImpl::CheckClientIdentity() const {
    const bool hasCertificate = static_cast<bool>(m_options.clientCertificate);
    if (hasCertificate != static_cast<bool>(m_options.clientKey)) {
        throw InvalidArgumentException(
            "SSLContext: a client certificate and its private key must be given together");
    }
    if (hasCertificate && !m_options.clientKey->Matches(*m_options.clientCertificate)) {
        throw InvalidArgumentException(
            "SSLContext: the client private key does not match the client certificate");
    }
}

bool SSLContextImpl::Install(SSL_CTX* ctx, std::string& error) const {
    const int floor =
        m_options.minimumVersion == TlsVersion::Tls1_3 ? TLS1_3_VERSION : TLS1_2_VERSION;
    if (SSL_CTX_set_min_proto_version(ctx, floor) != 1) {
        error = Crypto::TakeOpenSslErrors("cannot set the TLS version floor");
        return false;
    }
    if (m_trust) {
        X509_STORE_up_ref(m_trust.get());
        SSL_CTX_set_cert_store(ctx, m_trust.get());
    }
    if (m_options.clientCertificate) {
        if (SSL_CTX_use_certificate(ctx, Crypto::NativeCertificate(*m_options.clientCertificate)) !=
                1 ||
            SSL_CTX_use_PrivateKey(ctx, Crypto::NativePrivateKey(*m_options.clientKey)) != 1) {
            error = Crypto::TakeOpenSslErrors("cannot install the client certificate");
            return false;
        }
    }
    return true;
}

void CreateSSLContext(const SSLContextOptions& options, Ref<SSLContext>& context) {
    context = new SSLContextImpl(options);
}

}  // namespace Ssl
}  // namespace Basalt
