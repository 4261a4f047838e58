// Feeds arbitrary text to the JWT decoder, then asks every question of what it decodes, with a key
// of each verifying family (RSA, EC P-256, Ed25519: those of tests/data/jwt, so that seeds signed
// with them verify). Decoding never throws; anything thrown, a crash or a sanitizer report is a
// finding. Returns -1 for text the decoder refuses, 0 otherwise.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <basalt/Jwt.h>

namespace {

const char kRsaKey[] = R"(-----BEGIN PUBLIC KEY-----
MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKCAQEAm0OMb8GA85IggHVUdJsX
Y4slFTHUWUl64ggzkm8CSORWOx1GkGMv5EJv4OufGHu/S+Lzlz/AgbhqRvFUQegm
0GVMYfTUJY07OYn0P4ycSgZxBo7vEDRpmEe1VPMUSt1cOt/KQLW0xYVP9uezORmQ
gMyuVSQI7jdssCjCGQFyGsC6rp2tzEj9Vckh/F9NioO0qSbqaTIwMjpXwoMlW5vx
ZIWX50xzgbUw2/RiW1s5jBJFQdOutgFLTdk4mkf2WRrSnZQQlAd8xLVt7l2ZT8X0
yQEslzp5k6krUinI0eCvDaQ9PEq9q9zxOnTqMDN/foexud4sT9okaKNy5D8rxxUE
yQIDAQAB
-----END PUBLIC KEY-----
)";
const char kEcKey[] = R"(-----BEGIN PUBLIC KEY-----
MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEw0ta4QkxXUj4u00L/nniZvYIi1BF
fbucrXVIq+PTncUL92APD2ghgPue9Ct2qgLK5SqFdYtoVogHDMG+Q+pgmg==
-----END PUBLIC KEY-----
)";
const char kEd25519Key[] = R"(-----BEGIN PUBLIC KEY-----
MCowBQYDK2VwAyEAaCW9iW5anaLfHbXRU2U1I9vgOm/ZaCZ5IGFwidKoNno=
-----END PUBLIC KEY-----
)";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Basalt::Jwt::Decoder decoder(std::string(reinterpret_cast<const char*>(data), size));
    if (!decoder.IsDecoded()) {
        return -1;  // refused: not worth keeping in the corpus
    }
    static const Basalt::Jwt::SigningKeys keys = {std::make_shared<const std::string>(kRsaKey),
                                                  std::make_shared<const std::string>(kEcKey),
                                                  std::make_shared<const std::string>(kEd25519Key)};
    decoder.ValidateSignature(keys);
    decoder.GetAudience({"https://api.example.test", ""});
    decoder.GetId();
    decoder.GetIssuer();
    decoder.GetSubject();
    decoder.GetUsername();
    decoder.GetExpirationTime();
    decoder.GetIssuedAt();
    decoder.GetNotBefore();
    std::vector<std::string> groups;
    decoder.GetGroups(groups);
    return 0;
}
