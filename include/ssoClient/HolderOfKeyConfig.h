#pragma once

#include <basalt/Crypto.h>

namespace SsoClient {

// The client's signing identity for holder-of-key requests: a certificate and its private key.
// Requests that prove possession of the key are signed with privateKey and carry certificate.
struct HolderOfKeyConfig {
    Basalt::Ref<Basalt::Crypto::Certificate> certificate;
    Basalt::Ref<Basalt::Crypto::PrivateKey> privateKey;
};

}  // namespace SsoClient
