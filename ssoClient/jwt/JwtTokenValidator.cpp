#include "internal/jwt/JwtTokenValidator.h"

#include <ssoClient/JwtTokenValidator.h>

#include "internal/jwt/JwtTokenImpl.h"

namespace SsoClient {

TokenValidator::~TokenValidator() = default;

namespace {

// Copies of the texts themselves, so that no caller can change a trusted key afterwards.
Basalt::Jwt::SigningKeys CopyKeys(const Basalt::Jwt::SigningKeys& keys) {
    Basalt::Jwt::SigningKeys copies;
    for (const auto& key : keys) {
        if (key) {
            copies.push_back(std::make_shared<const std::string>(*key));
        }
    }
    return copies;
}

}  // namespace

JwtTokenValidator::JwtTokenValidator(std::vector<std::string> audiences,
                                     const Basalt::Jwt::SigningKeys& keys,
                                     int64_t clockToleranceSec, const Basalt::System::Clock& clock)
    : m_audiences(std::move(audiences)),
      m_signingKeys(CopyKeys(keys)),
      m_clockToleranceSec(clockToleranceSec),
      m_clock(clock) {}

std::shared_ptr<const SamlToken> JwtTokenValidator::Validate(std::string_view token,
                                                             std::string_view second) const {
    return std::make_shared<const JwtTokenImpl>(token, second, m_audiences, m_signingKeys,
                                                m_clockToleranceSec, m_clock);
}

void CreateJwtTokenValidator(const std::vector<std::string>& audiences,
                             const std::list<std::shared_ptr<const std::string>>& signingKeys,
                             int64_t clockToleranceSec, Basalt::Ref<TokenValidator>& validator) {
    validator = new JwtTokenValidator(audiences, signingKeys, clockToleranceSec);
}

}  // namespace SsoClient
