#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/sha.h>

#include <array>
#include <climits>
#include <cstring>
#include <list>
#include <mutex>
#include <unordered_map>

#include "internal/jwt/JwtInternal.h"
#include "internal/system/Immortal.h"

namespace Basalt {
namespace Jwt {

namespace {

using Digest = std::array<unsigned char, SHA256_DIGEST_LENGTH>;

struct DigestHash {
    size_t operator()(const Digest& digest) const {
        size_t hash;
        std::memcpy(&hash, digest.data(), sizeof hash);
        return hash;
    }
};

KeyKind KindOf(EVP_PKEY* key) {
    switch (EVP_PKEY_get_base_id(key)) {
        case EVP_PKEY_RSA:
            return KeyKind::Rsa;
        case EVP_PKEY_ED25519:
            return KeyKind::Ed25519;
        case EVP_PKEY_EC:
            break;
        default:
            return KeyKind::Unusable;
    }
    char curve[64] = {};
    if (EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, curve, sizeof curve,
                                       nullptr) != 1) {
        return KeyKind::Unusable;
    }
    const std::string name(curve);
    return name == "prime256v1"  ? KeyKind::EcP256
           : name == "secp384r1" ? KeyKind::EcP384
           : name == "secp521r1" ? KeyKind::EcP521
                                 : KeyKind::Unusable;
}

// The public key of a PEM certificate or PEM public key; null when text is neither.
UniquePtr<EVP_PKEY> ParsePublicKey(std::string_view text) {
    if (text.size() > INT_MAX) {
        return nullptr;
    }
    UniquePtr<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (!bio) {
        return nullptr;
    }
    if (text.find("-----BEGIN CERTIFICATE-----") != std::string_view::npos) {
        UniquePtr<X509> certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
        return UniquePtr<EVP_PKEY>(certificate ? X509_get_pubkey(certificate.get()) : nullptr);
    }
    return UniquePtr<EVP_PKEY>(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
}

// Least recently used entries go first once the cache is full. One lock: lookups are a hash and
// a list splice, tiny next to the signature check that follows.
class KeyCache {
  public:
    std::shared_ptr<const ParsedKey> Get(std::string_view text) {
        Digest digest;
        SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_index.find(digest);
        if (found != m_index.end()) {
            m_order.splice(m_order.begin(), m_order, found->second);
            return found->second->second;
        }
        auto parsed = std::make_shared<ParsedKey>();
        parsed->key = ParsePublicKey(text);
        parsed->kind = parsed->key ? KindOf(parsed->key.get()) : KeyKind::Unusable;
        ERR_clear_error();
        ++m_parses;
        if (m_order.size() >= kKeyCacheCapacity) {
            m_index.erase(m_order.back().first);
            m_order.pop_back();
        }
        m_order.emplace_front(digest, parsed);
        m_index.emplace(digest, m_order.begin());
        return parsed;
    }

    KeyCacheStatistics Statistics() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return {m_parses, m_order.size()};
    }

  private:
    using Entry = std::pair<Digest, std::shared_ptr<const ParsedKey>>;
    mutable std::mutex m_mutex;
    std::list<Entry> m_order;  // most recently used first
    std::unordered_map<Digest, std::list<Entry>::iterator, DigestHash> m_index;
    uint64_t m_parses = 0;
};

// Validations may still run on other threads while the process exits.
KeyCache& SharedKeyCache() {
    static Immortal<KeyCache> cache;
    return *cache;
}

}  // namespace

std::shared_ptr<const ParsedKey> LookUpKey(std::string_view text) {
    return SharedKeyCache().Get(text);
}

KeyCacheStatistics GetKeyCacheStatistics() {
    return SharedKeyCache().Statistics();
}

}  // namespace Jwt
}  // namespace Basalt
