#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <basalt/DateTime.h>
#include <basalt/Jwt.h>
#include <basalt/Object.h>

#include <ssoClient/TokenValidator.h>

namespace SsoClient {

// Validates JWT bearer tokens into JwtTokenImpl objects; immutable, so any number of threads may
// validate at once.
class JwtTokenValidator final : public virtual TokenValidator, public virtual Basalt::ObjectImpl {
  public:
    // Keeps its own copies of audiences and of the key texts (null entries dropped); clock must
    // outlive the validator.
    JwtTokenValidator(std::vector<std::string> audiences, const Basalt::Jwt::SigningKeys& keys,
                      int64_t clockToleranceSec,
                      const Basalt::System::Clock& clock = Basalt::System::SystemClock());

    std::shared_ptr<const SamlToken> Validate(std::string_view token,
                                              std::string_view second) const override;

  private:
    const std::vector<std::string> m_audiences;
    Basalt::Jwt::SigningKeys m_signingKeys;
    const int64_t m_clockToleranceSec;
    const Basalt::System::Clock& m_clock;
};

}  // namespace SsoClient
