#pragma once

// Shared by the canonicaliser and the signature code: xmlsec initialisation and the allow-list
// of algorithms. Never included from a public header.

#include <xmlsec/keys.h>
#include <xmlsec/transforms.h>
#include <xmlsec/xmldsig.h>

#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

#include <basalt/Crypto.h>
#include "internal/system/UniquePtr.h"

namespace Basalt {

BASALT_DELETER(xmlSecDSigCtx, xmlSecDSigCtxDestroy);
BASALT_DELETER(xmlSecKey, xmlSecKeyDestroy);
BASALT_DELETER(xmlSecKeyData, xmlSecKeyDataDestroy);

namespace Xml {
namespace Security {

// Initialises xmlsec and its OpenSSL backend once per process (thread-safe), routing its error
// reports to ThreadXmlSecError instead of standard error.
void InitXmlSecurity();

// The last error xmlsec reported on this thread (for exception messages), then forgets it.
std::string TakeXmlSecError();

enum class AlgorithmKind { Canonicalization, Transform, Digest, Signature };
enum class KeyKind { None, Rsa, Ec };

struct Algorithm {
    const char* uri;
    AlgorithmKind kind;  // canonicalisation methods are transforms too
    KeyKind key;         // for signature methods
    int c14nMode;        // xmlC14NMode, for canonicalisation methods
    bool withComments;
};

// The allowed algorithm with that URI and kind, or null. Canonicalisation methods also count as
// transforms.
const Algorithm* FindAlgorithm(std::string_view uri, AlgorithmKind kind);
// Every allowed algorithm.
const std::vector<Algorithm>& AllowedAlgorithms();
// The xmlsec transform of an allowed algorithm.
xmlSecTransformId TransformIdOf(const Algorithm& algorithm);

// Implemented by resolvers that hold verification keys ready for xmlsec (the trusted-certificate
// resolver makes them once, when it is created).
class ReadyKeySource {
  public:
    // The key of certificate, owned by the source and shared read-only between verifications;
    // null if the source has none for it.
    virtual xmlSecKey* ReadyKey(const Crypto::Certificate& certificate) const = 0;

  protected:
    ~ReadyKeySource() = default;
};

// A new xmlsec key over a native key (which gains a reference).
UniquePtr<xmlSecKey> CreateXmlSecKey(EVP_PKEY* native);

}  // namespace Security
}  // namespace Xml
}  // namespace Basalt
