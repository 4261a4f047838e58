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

#include "fuzz/JwtKeys.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Basalt::Jwt::Decoder decoder(std::string(reinterpret_cast<const char*>(data), size));
    if (!decoder.IsDecoded()) {
        return -1;  // refused: not worth keeping in the corpus
    }
    static const Basalt::Jwt::SigningKeys keys = Fuzz::JwtKeys();
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
