#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>
#include <climits>
#include <cstring>
#include <functional>
#include <mutex>
#include <string_view>

#include "internal/system/Immortal.h"

#include <basalt/Exception.h>
#include "internal/crypto/CryptoInternal.h"

namespace Basalt {
namespace Crypto {

Certificate::~Certificate() = default;
PrivateKey::~PrivateKey() = default;

namespace {

std::string BioText(BIO* bio) {
    char* data = nullptr;
    long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

std::string NameText(const X509_NAME* name) {
    UniquePtr<BIO> bio(BIO_new(BIO_s_mem()));
    if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) {
        throw Exception(TakeOpenSslErrors("Cannot print a distinguished name"));
    }
    return BioText(bio.get());
}

// A validity time; OpenSSL parses certificates without reading them, so a malformed one is only
// noticed here, and makes the certificate malformed.
System::DateTime AsnTime(const ASN1_TIME* time) {
    struct tm broken {};
    if (ASN1_TIME_to_tm(time, &broken) != 1) {
        throw InvalidArgumentException(TakeOpenSslErrors("Invalid certificate time"));
    }
    System::DateTimeFields f;
    f.year = broken.tm_year + 1900;
    f.month = broken.tm_mon + 1;
    f.day = broken.tm_mday;
    f.hour = broken.tm_hour;
    f.minute = broken.tm_min;
    f.second = broken.tm_sec;
    try {
        return System::DateTimeFromFields(f);
    } catch (const DateTimeFormatException& e) {
        throw InvalidArgumentException(std::string("Invalid certificate time: ") + e.what());
    }
}

class CertificateImpl final : public ObjectImpl, public Certificate {
  public:
    // From the DER it was decoded from: no need to encode it again.
    CertificateImpl(UniquePtr<X509> x509, std::vector<unsigned char> der)
        : m_x509(std::move(x509)),
          m_notBefore(AsnTime(X509_get0_notBefore(m_x509.get()))),
          m_notAfter(AsnTime(X509_get0_notAfter(m_x509.get()))),
          m_der(std::move(der)) {
        CheckPublicKey();
    }
    explicit CertificateImpl(UniquePtr<X509> x509)
        : m_x509(std::move(x509)),
          m_notBefore(AsnTime(X509_get0_notBefore(m_x509.get()))),
          m_notAfter(AsnTime(X509_get0_notAfter(m_x509.get()))) {
        int size = i2d_X509(m_x509.get(), nullptr);
        if (size <= 0) {
            throw InvalidArgumentException(TakeOpenSslErrors("Cannot encode the certificate"));
        }
        m_der.resize(static_cast<size_t>(size));
        unsigned char* out = m_der.data();
        i2d_X509(m_x509.get(), &out);
        CheckPublicKey();
    }

    X509* Native() const { return m_x509.get(); }

    const std::vector<unsigned char>& GetDer() const override { return m_der; }
    std::string GetSubjectName() const override {
        return NameText(X509_get_subject_name(m_x509.get()));
    }
    std::string GetIssuerName() const override {
        return NameText(X509_get_issuer_name(m_x509.get()));
    }
    std::string GetSerialNumber() const override {
        UniquePtr<BIGNUM> number(ASN1_INTEGER_to_BN(X509_get0_serialNumber(m_x509.get()), nullptr));
        UniquePtr<OpenSslChars> text(number ? BN_bn2dec(number.get()) : nullptr);
        if (!text) {
            throw Exception(TakeOpenSslErrors("Cannot read the serial number"));
        }
        return text.get();
    }
    std::vector<unsigned char> GetThumbprintSha256() const override {
        return Digest(DigestAlgorithm::Sha256, m_der.data(), m_der.size());
    }
    System::DateTime GetNotBefore() const override { return m_notBefore; }
    System::DateTime GetNotAfter() const override { return m_notAfter; }
    std::string GetPublicKeyPem() const override {
        UniquePtr<BIO> bio(BIO_new(BIO_s_mem()));
        if (!bio || PEM_write_bio_PUBKEY(bio.get(), X509_get0_pubkey(m_x509.get())) != 1) {
            throw Exception(TakeOpenSslErrors("Cannot write the public key"));
        }
        return BioText(bio.get());
    }
    bool VerifySignature(DigestAlgorithm digest, const void* data, size_t size,
                         const std::vector<unsigned char>& signature) const override {
        UniquePtr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
        EVP_PKEY* key = X509_get0_pubkey(m_x509.get());
        bool valid =
            ctx && key &&
            EVP_DigestVerifyInit(ctx.get(), nullptr, DigestMethod(digest), nullptr, key) == 1 &&
            EVP_DigestVerify(ctx.get(), signature.data(), signature.size(),
                             static_cast<const unsigned char*>(data), size) == 1;
        ERR_clear_error();  // a bad signature is an answer, not an error to report later
        return valid;
    }
    bool Equals(const Certificate& other) const override { return m_der == other.GetDer(); }

  private:
    // Decoded lazily by OpenSSL too: a key it cannot read makes the certificate malformed.
    void CheckPublicKey() const {
        if (X509_get0_pubkey(m_x509.get()) == nullptr) {
            throw InvalidArgumentException(TakeOpenSslErrors("Invalid certificate public key"));
        }
    }

    UniquePtr<X509> m_x509;
    const System::DateTime m_notBefore;
    const System::DateTime m_notAfter;
    std::vector<unsigned char> m_der;
};

class PrivateKeyImpl final : public ObjectImpl, public PrivateKey {
  public:
    explicit PrivateKeyImpl(UniquePtr<EVP_PKEY> key) : m_key(std::move(key)) {}

    EVP_PKEY* Native() const { return m_key.get(); }

    std::string GetAlgorithmName() const override {
        return EVP_PKEY_get_base_id(m_key.get()) == EVP_PKEY_RSA ? "RSA" : "EC";
    }
    int GetBits() const override { return EVP_PKEY_get_bits(m_key.get()); }
    std::vector<unsigned char> Sign(DigestAlgorithm digest, const void* data,
                                    size_t size) const override {
        UniquePtr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
        size_t length = 0;
        const auto* bytes = static_cast<const unsigned char*>(data);
        if (!ctx ||
            EVP_DigestSignInit(ctx.get(), nullptr, DigestMethod(digest), nullptr, m_key.get()) !=
                1 ||
            EVP_DigestSign(ctx.get(), nullptr, &length, bytes, size) != 1) {
            throw Exception(TakeOpenSslErrors("Signing failed"));
        }
        std::vector<unsigned char> signature(length);
        if (EVP_DigestSign(ctx.get(), signature.data(), &length, bytes, size) != 1) {
            throw Exception(TakeOpenSslErrors("Signing failed"));
        }
        signature.resize(length);
        return signature;
    }
    bool Matches(const Certificate& certificate) const override {
        bool same = EVP_PKEY_eq(m_key.get(), X509_get0_pubkey(NativeCertificate(certificate))) == 1;
        ERR_clear_error();
        return same;
    }

  private:
    UniquePtr<EVP_PKEY> m_key;
};

// Decoded certificates by their DER. Decoding costs more than a signature check (OpenSSL builds
// a decoder for every public key it reads), and a holder-of-key token carries the same
// confirmation certificate every time its holder gets one. Certificates are immutable, so every
// caller can share one object. An entry is found by a plain hash of the DER and taken only when
// the DER is the same byte for byte, so no input can stand in for another certificate. Bounded:
// each shard replaces its entries in turn; the shards have locks of their own so that threads
// decoding different certificates rarely meet.
class CertificateCache {
  public:
    static size_t HashOf(std::string_view der) { return std::hash<std::string_view>()(der); }

    Ref<Certificate> Find(size_t hash, std::string_view der) {
        Shard& shard = ShardOf(hash);
        std::lock_guard<std::mutex> lock(shard.mutex);
        for (const Entry& entry : shard.entries) {
            if (entry.certificate && entry.hash == hash && SameDer(*entry.certificate, der)) {
                return entry.certificate;
            }
        }
        return nullptr;
    }

    void Add(size_t hash, const Ref<Certificate>& certificate) {
        Shard& shard = ShardOf(hash);
        std::lock_guard<std::mutex> lock(shard.mutex);
        Entry& entry = shard.entries[shard.next];
        shard.next = (shard.next + 1) % kEntriesPerShard;
        entry.hash = hash;
        entry.certificate = certificate;
    }

  private:
    static constexpr size_t kShards = 16;
    static constexpr size_t kEntriesPerShard = 16;

    struct Entry {
        size_t hash = 0;
        Ref<Certificate> certificate;
    };
    struct alignas(64) Shard {  // one cache line per lock
        std::mutex mutex;
        std::array<Entry, kEntriesPerShard> entries;
        size_t next = 0;
    };

    static bool SameDer(const Certificate& certificate, std::string_view der) {
        const std::vector<unsigned char>& own = certificate.GetDer();
        return own.size() == der.size() && std::memcmp(own.data(), der.data(), der.size()) == 0;
    }
    Shard& ShardOf(size_t hash) { return m_shards[(hash >> 8) % kShards]; }

    std::array<Shard, kShards> m_shards;
};

CertificateCache& DecodedCertificates() {
    // Immortal: certificates may be decoded by work that runs while the process exits.
    static Immortal<CertificateCache> cache;
    return *cache;
}

// Passphrase callback for PEM_read_bio_PrivateKey; never prompts on a terminal.
int PassphraseCallback(char* buffer, int size, int, void* userData) {
    const auto* passphrase = static_cast<const std::string_view*>(userData);
    if (passphrase->empty() || passphrase->size() > static_cast<size_t>(size)) {
        return -1;
    }
    passphrase->copy(buffer, passphrase->size());
    return static_cast<int>(passphrase->size());
}

}  // namespace

UniquePtr<BIO> MemoryBio(std::string_view data) {
    if (data.size() > INT_MAX) {
        throw InvalidArgumentException("Input too large");
    }
    UniquePtr<BIO> bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    if (!bio) {
        throw Exception("Out of memory creating a BIO");
    }
    return bio;
}

std::string TakeOpenSslErrors(const char* fallback) {
    std::string text = fallback;
    bool first = true;
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
        char reason[256];
        ERR_error_string_n(code, reason, sizeof reason);
        text += first ? ": " : "; ";
        text += reason;
        first = false;
    }
    return text;
}

const EVP_MD* DigestMethod(DigestAlgorithm algorithm) {
    switch (algorithm) {
        case DigestAlgorithm::Sha1:
            return EVP_sha1();
        case DigestAlgorithm::Sha256:
            return EVP_sha256();
        case DigestAlgorithm::Sha384:
            return EVP_sha384();
        case DigestAlgorithm::Sha512:
            return EVP_sha512();
    }
    throw InvalidArgumentException("Unknown digest algorithm");
}

std::vector<unsigned char> Digest(DigestAlgorithm algorithm, const void* data, size_t size) {
    std::vector<unsigned char> digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (EVP_Digest(data, size, digest.data(), &length, DigestMethod(algorithm), nullptr) != 1) {
        throw Exception(TakeOpenSslErrors("Digest failed"));
    }
    digest.resize(length);
    return digest;
}

X509* NativeCertificate(const Certificate& certificate) {
    const auto* impl = dynamic_cast<const CertificateImpl*>(&certificate);
    if (!impl) {
        ThrowTypeMismatchException(typeid(CertificateImpl), typeid(certificate));
    }
    return impl->Native();
}

EVP_PKEY* NativePrivateKey(const PrivateKey& key) {
    const auto* impl = dynamic_cast<const PrivateKeyImpl*>(&key);
    if (!impl) {
        ThrowTypeMismatchException(typeid(PrivateKeyImpl), typeid(key));
    }
    return impl->Native();
}

void WrapCertificate(UniquePtr<X509> x509, Ref<Certificate>& certificate) {
    certificate = new CertificateImpl(std::move(x509));
}

void CreateCertificate(const unsigned char* der, size_t size, Ref<Certificate>& certificate) {
    if (der == nullptr || size == 0 || size > LONG_MAX) {
        throw InvalidArgumentException("Invalid certificate: no DER data");
    }
    const std::string_view bytes(reinterpret_cast<const char*>(der), size);
    const size_t hash = CertificateCache::HashOf(bytes);
    CertificateCache& cache = DecodedCertificates();
    if (Ref<Certificate> known = cache.Find(hash, bytes)) {
        certificate = std::move(known);
        return;
    }
    const unsigned char* cursor = der;
    UniquePtr<X509> x509(d2i_X509(nullptr, &cursor, static_cast<long>(size)));
    if (!x509) {
        throw InvalidArgumentException(TakeOpenSslErrors("Invalid DER certificate"));
    }
    if (cursor != der + size) {
        throw InvalidArgumentException(
            "Invalid DER certificate: trailing data after the certificate");
    }
    Ref<Certificate> decoded(new CertificateImpl(std::move(x509), {der, der + size}));
    cache.Add(hash, decoded);
    certificate = std::move(decoded);
}

void CreateCertificatesFromPem(std::string_view pem, std::vector<Ref<Certificate>>& certificates) {
    UniquePtr<BIO> bio = MemoryBio(pem);
    std::vector<Ref<Certificate>> parsed;
    while (UniquePtr<X509> x509{PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)}) {
        Ref<Certificate> certificate;
        WrapCertificate(std::move(x509), certificate);
        parsed.push_back(certificate);
    }
    // Running out of PEM blocks ends the loop with "no start line"; anything else is damage.
    unsigned long error = ERR_peek_last_error();
    bool cleanEnd =
        ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
    if (parsed.empty() || (error != 0 && !cleanEnd)) {
        throw InvalidArgumentException(TakeOpenSslErrors("Invalid PEM certificate"));
    }
    ERR_clear_error();
    certificates.swap(parsed);
}

void CreateCertificateFromPem(std::string_view pem, Ref<Certificate>& certificate) {
    UniquePtr<BIO> bio = MemoryBio(pem);
    UniquePtr<X509> x509(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!x509) {
        throw InvalidArgumentException(TakeOpenSslErrors("Invalid PEM certificate"));
    }
    WrapCertificate(std::move(x509), certificate);
}

void CreatePrivateKeyFromPem(std::string_view pem, Ref<PrivateKey>& key,
                             std::string_view passphrase) {
    UniquePtr<BIO> bio = MemoryBio(pem);
    UniquePtr<EVP_PKEY> pkey(
        PEM_read_bio_PrivateKey(bio.get(), nullptr, PassphraseCallback, &passphrase));
    if (!pkey) {
        throw InvalidArgumentException(
            TakeOpenSslErrors("Invalid PEM private key or wrong passphrase"));
    }
    int type = EVP_PKEY_get_base_id(pkey.get());
    if (type != EVP_PKEY_RSA && type != EVP_PKEY_EC) {
        throw InvalidArgumentException(
            "Unsupported private key type: only RSA and EC keys are accepted");
    }
    // The halves are not checked against each other when read; a key whose private half does not
    // fit its public one would sign what nothing verifies.
    UniquePtr<EVP_PKEY_CTX> check(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey.get(), nullptr));
    if (!check || EVP_PKEY_pairwise_check(check.get()) != 1) {
        throw InvalidArgumentException(TakeOpenSslErrors("Inconsistent PEM private key"));
    }
    key = new PrivateKeyImpl(std::move(pkey));
}

}  // namespace Crypto
}  // namespace Basalt
