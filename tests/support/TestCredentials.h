#pragma once

#include <basalt/Crypto.h>
#include <ssoClient/HolderOfKeyConfig.h>
#include <ssoClient/Types.h>

#include <string>

#include "TestData.h"

namespace TestSupport {

// A request for a token of lifetimeSec seconds, the rest left as it comes.
inline SsoClient::TokenSpec Spec(int64_t lifetimeSec = 600) {
    SsoClient::TokenSpec spec;
    spec.tokenLifetimeSec = lifetimeSec;
    return spec;
}

// A holder-of-key identity from PEM files under tests/data.
inline SsoClient::HolderOfKeyConfig LoadHolderOfKey(
    const std::string& certificateFile = "certs/sts-rsa.pem",
    const std::string& keyFile = "certs/sts-rsa.key") {
    SsoClient::HolderOfKeyConfig config;
    Basalt::Crypto::CreateCertificateFromPem(TestData::Read(certificateFile), config.certificate);
    Basalt::Crypto::CreatePrivateKeyFromPem(TestData::Read(keyFile), config.privateKey);
    return config;
}

}  // namespace TestSupport
