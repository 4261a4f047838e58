// Feeds arbitrary text to the JWT bearer-token validator (the keys of fuzz/JwtKeys.h trusted, the
// present fixed in 2027), then reads the token it makes. Refusals are InvalidTokenException and
// its subclasses; anything else, a crash or a sanitizer report is a finding. Returns 0 for an
// accepted token, -1 for a refused one.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <basalt/DateTime.h>
#include <ssoClient/Exceptions.h>

#include "fuzz/JwtKeys.h"
#include "internal/jwt/JwtTokenValidator.h"

namespace {

class FixedClock final : public Basalt::System::Clock {
  public:
    Basalt::System::DateTime Now() const override {
        return Basalt::System::DateTimeFromUtc(1800000000L * 1000000, false);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FixedClock clock;
    static const Basalt::Ref<SsoClient::JwtTokenValidator> validator(
        new SsoClient::JwtTokenValidator({"https://api.example.test"}, Fuzz::JwtKeys(), 600,
                                         clock));
    std::shared_ptr<const SsoClient::SamlToken> token;
    try {
        token =
            validator->Validate(std::string_view(reinterpret_cast<const char*>(data), size), "");
    } catch (const SsoClient::InvalidTokenException&) {
        return -1;  // refused: not worth keeping in the corpus
    }
    token->GetStartTime().ToString();
    token->GetExpirationTimeWithTolerance().ToString();
    SsoClient::PersonName name;
    token->GetPersonName(name);
    std::vector<SsoClient::PrincipalId> groups;
    token->GetGroups(groups);
    std::set<std::string> audience;
    token->GetAudience(audience);
    return 0;
}
