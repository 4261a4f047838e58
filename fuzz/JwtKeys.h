#pragma once

// The public keys of tests/data/jwt, one of each verifying family (RSA, EC P-256, Ed25519), so that
// seeds signed with them verify.

#include <memory>
#include <string>

#include <basalt/Jwt.h>

namespace Fuzz {

inline const char kRsaKey[] = R"(-----BEGIN PUBLIC KEY-----
MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKCAQEAm0OMb8GA85IggHVUdJsX
Y4slFTHUWUl64ggzkm8CSORWOx1GkGMv5EJv4OufGHu/S+Lzlz/AgbhqRvFUQegm
0GVMYfTUJY07OYn0P4ycSgZxBo7vEDRpmEe1VPMUSt1cOt/KQLW0xYVP9uezORmQ
gMyuVSQI7jdssCjCGQFyGsC6rp2tzEj9Vckh/F9NioO0qSbqaTIwMjpXwoMlW5vx
ZIWX50xzgbUw2/RiW1s5jBJFQdOutgFLTdk4mkf2WRrSnZQQlAd8xLVt7l2ZT8X0
yQEslzp5k6krUinI0eCvDaQ9PEq9q9zxOnTqMDN/foexud4sT9okaKNy5D8rxxUE
yQIDAQAB
-----END PUBLIC KEY-----
)";
inline const char kEcKey[] = R"(-----BEGIN PUBLIC KEY-----
MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEw0ta4QkxXUj4u00L/nniZvYIi1BF
fbucrXVIq+PTncUL92APD2ghgPue9Ct2qgLK5SqFdYtoVogHDMG+Q+pgmg==
-----END PUBLIC KEY-----
)";
inline const char kEd25519Key[] = R"(-----BEGIN PUBLIC KEY-----
MCowBQYDK2VwAyEAaCW9iW5anaLfHbXRU2U1I9vgOm/ZaCZ5IGFwidKoNno=
-----END PUBLIC KEY-----
)";

inline Basalt::Jwt::SigningKeys JwtKeys() {
    return {std::make_shared<const std::string>(kRsaKey),
            std::make_shared<const std::string>(kEcKey),
            std::make_shared<const std::string>(kEd25519Key)};
}

}  // namespace Fuzz
