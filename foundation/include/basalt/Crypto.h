#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <basalt/DateTime.h>
#include <basalt/Object.h>

namespace Basalt {
namespace Crypto {

enum class DigestAlgorithm { Sha1, Sha256, Sha384, Sha512 };

// Message digest of data.
BASALT_API std::vector<unsigned char> Digest(DigestAlgorithm algorithm, const void* data,
                                             size_t size);

// An X.509 certificate (immutable).
class BASALT_API Certificate : public virtual Object {
  public:
    // The DER encoding.
    virtual const std::vector<unsigned char>& GetDer() const = 0;
    // Subject and issuer distinguished names in RFC 2253 form, e.g. "CN=sts,O=Example".
    virtual std::string GetSubjectName() const = 0;
    virtual std::string GetIssuerName() const = 0;
    // The serial number in decimal, as XML signatures carry it.
    virtual std::string GetSerialNumber() const = 0;
    // SHA-256 of the DER encoding.
    virtual std::vector<unsigned char> GetThumbprintSha256() const = 0;
    virtual System::DateTime GetNotBefore() const = 0;
    virtual System::DateTime GetNotAfter() const = 0;
    // The public key in PEM ("-----BEGIN PUBLIC KEY-----") form.
    virtual std::string GetPublicKeyPem() const = 0;
    // True if signature is a valid PKCS#1 v1.5 (RSA) or ECDSA (DER) signature of data with the
    // certificate's key and the given digest.
    virtual bool VerifySignature(DigestAlgorithm digest, const void* data, size_t size,
                                 const std::vector<unsigned char>& signature) const = 0;
    // Same DER encoding.
    virtual bool Equals(const Certificate& other) const = 0;

  protected:
    ~Certificate() override;
};

// A private key (RSA or EC).
class BASALT_API PrivateKey : public virtual Object {
  public:
    // "RSA" or "EC".
    virtual std::string GetAlgorithmName() const = 0;
    // Key size in bits.
    virtual int GetBits() const = 0;
    // Signs data with the digest: PKCS#1 v1.5 for RSA, DER-encoded ECDSA for EC.
    virtual std::vector<unsigned char> Sign(DigestAlgorithm digest, const void* data,
                                            size_t size) const = 0;
    // True if the certificate carries this key's public half.
    virtual bool Matches(const Certificate& certificate) const = 0;

  protected:
    ~PrivateKey() override;
};

// Parses one DER certificate; malformed input or trailing bytes throw InvalidArgumentException.
BASALT_API void CreateCertificate(const unsigned char* der, size_t size,
                                  Ref<Certificate>& certificate);
// Parses the first PEM "CERTIFICATE" block of pem; throws InvalidArgumentException if there is
// none or it is malformed.
BASALT_API void CreateCertificateFromPem(std::string_view pem, Ref<Certificate>& certificate);
// Parses every PEM certificate of pem in order; throws if there is none or one is malformed.
BASALT_API void CreateCertificatesFromPem(std::string_view pem,
                                          std::vector<Ref<Certificate>>& certificates);
// Parses a PEM private key (PKCS#8, encrypted PKCS#8, or traditional RSA/EC). An encrypted key
// needs passphrase; a missing or wrong passphrase, or malformed input, throws
// InvalidArgumentException. Keys other than RSA and EC are refused likewise.
BASALT_API void CreatePrivateKeyFromPem(std::string_view pem, Ref<PrivateKey>& key,
                                        std::string_view passphrase = {});

}  // namespace Crypto
}  // namespace Basalt
