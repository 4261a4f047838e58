#pragma once

// JWTs for the tests: the fixtures that PyJWT and jwcrypto signed (tests/data/jwt/tokens.txt, from
// generate.py there), and tokens with any header and payload signed here with the fixture keys
// through the foundation (PKCS#1 v1.5 for RSA, DER ECDSA for EC).

#include <memory>
#include <string>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/Jwt.h>
#include <basalt/StringUtil.h>

#include "TestData.h"

namespace JwtTest {

inline std::string Base64Url(const std::string& bytes) {
    std::string text = Basalt::StringUtil::Base64Encode(bytes.data(), bytes.size());
    text.erase(text.find_last_not_of('=') + 1);
    for (char& c : text) {
        c = c == '+' ? '-' : c == '/' ? '_' : c;
    }
    return text;
}

// A fixture token by its name in tokens.txt ("RS256-pyjwt"); empty, which never decodes, for an
// unknown name.
inline std::string Fixture(const std::string& name) {
    const std::string lines = "\n" + TestData::Read("jwt/tokens.txt");
    const size_t at = lines.find("\n" + name + " ");
    const size_t start = at == std::string::npos ? 0 : at + name.size() + 2;
    return lines.substr(start, lines.find('\n', start) - start);
}

inline Basalt::Jwt::SigningKeys Keys(const std::vector<std::string>& files) {
    Basalt::Jwt::SigningKeys keys;
    for (const auto& file : files) {
        keys.push_back(std::make_shared<const std::string>(TestData::Read("jwt/" + file)));
    }
    return keys;
}

// "header.payload.signature", signed by the fixture private key keyFile with SHA-256.
inline std::string Sign(const std::string& payload,
                        const std::string& header = R"({"alg":"RS256"})",
                        const std::string& keyFile = "rsa.key") {
    const std::string input = Base64Url(header) + "." + Base64Url(payload);
    const auto signature =
        TestData::LoadPrivateKey("jwt/" + keyFile)
            ->Sign(Basalt::Crypto::DigestAlgorithm::Sha256, input.data(), input.size());
    return input + "." + Base64Url(std::string(signature.begin(), signature.end()));
}

}  // namespace JwtTest
