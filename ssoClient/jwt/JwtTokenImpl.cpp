#include "internal/jwt/JwtTokenImpl.h"

#include <limits>

#include <ssoClient/Exceptions.h>

#include "internal/saml/Validation.h"

namespace SsoClient {

namespace {

// The largest second of the signed 32-bit range: an expiry, or a present, beyond it less the
// tolerance fails the time checks, whatever else the token says.
constexpr int64_t kMaxSeconds = 2147483647;

int64_t Minus(int64_t a, int64_t b) {
    int64_t result;
    if (__builtin_sub_overflow(a, b, &result)) {
        return b < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    }
    return result;
}

Basalt::System::DateTime FromSeconds(int64_t seconds) {
    return Basalt::System::DateTimeFromUtc(Saml::ToleranceMicros(seconds), false);
}

PrincipalId SplitPrincipal(const std::string& text, const char* message) {
    PrincipalId principal;
    if (!Jwt::SplitAtLast(text, '@', principal.name, principal.domain)) {
        throw InvalidTokenException(message);
    }
    return principal;
}

}  // namespace

namespace Jwt {

bool SplitAtLast(const std::string& text, char separator, std::string& before, std::string& after) {
    const size_t at = text.rfind(separator);
    if (at == std::string::npos || at == 0 || at + 1 == text.size()) {
        return false;
    }
    before = text.substr(0, at);
    after = text.substr(at + 1);
    return true;
}

}  // namespace Jwt

JwtTokenImpl::JwtTokenImpl(std::string_view jwt, std::string_view context,
                           const std::vector<std::string>& audiences,
                           const Basalt::Jwt::SigningKeys& keys, int64_t clockToleranceSec,
                           const Basalt::System::Clock& clock)
    : m_jwt(jwt), m_context(context), m_clockToleranceSec(clockToleranceSec) {
    const Basalt::Jwt::Decoder decoder(m_jwt);
    if (!decoder.IsDecoded()) {
        throw InvalidTokenException("Token decoding failed");
    }
    if (!decoder.ValidateSignature(keys)) {
        throw InvalidSignatureException("Token signature validation failed");
    }
    CheckClaims(decoder, audiences);
    CheckTimes(decoder, clock.Now().GetUtcTime() / 1000000);
    ReadPrincipals(decoder);
}

void JwtTokenImpl::CheckClaims(const Basalt::Jwt::Decoder& decoder,
                               const std::vector<std::string>& audiences) {
    m_id = decoder.GetId();
    if (m_id.empty()) {
        throw InvalidTokenException("Missing token id");
    }
    m_audience = decoder.GetAudience(audiences);
    if (m_audience.empty()) {
        throw InvalidTokenException("Missing or incorrect audience");
    }
    m_issuer = decoder.GetIssuer();
    if (m_issuer.empty()) {
        throw InvalidTokenException("Missing issuer");
    }
}

void JwtTokenImpl::CheckTimes(const Basalt::Jwt::Decoder& decoder, int64_t now) {
    const int64_t tolerance = m_clockToleranceSec;
    const int64_t latest = Minus(kMaxSeconds, tolerance);
    const int64_t exp = decoder.GetExpirationTime();
    if (exp < 1) {
        throw InvalidTokenException("Missing expiration time");
    }
    if (exp > latest || now > Saml::SaturatingAdd(exp, tolerance)) {
        throw InvalidTokenException("Token has already expired");
    }
    m_expirationTime = FromSeconds(exp);
    const int64_t iat = decoder.GetIssuedAt();
    if (iat < 1) {
        throw InvalidTokenException("Missing 'issued at' time");
    }
    if (now > latest || iat > Saml::SaturatingAdd(now, tolerance)) {
        throw InvalidTokenException("Token 'issued at' time is in the future");
    }
    int64_t nbf = decoder.GetNotBefore();
    if (nbf > 0) {
        if (now > latest || nbf > Saml::SaturatingAdd(now, tolerance)) {
            throw InvalidTokenException("Token 'not before' time is in the future");
        }
    } else {
        nbf = iat;
    }
    m_startTime = FromSeconds(nbf);
}

void JwtTokenImpl::ReadPrincipals(const Basalt::Jwt::Decoder& decoder) {
    const std::string subject = decoder.GetSubject();
    if (subject.empty()) {
        throw InvalidTokenException("Mising subject");
    }
    m_subject = std::make_unique<PrincipalId>(SplitPrincipal(subject, "Invalid subject"));
    std::vector<std::string> groups;
    if (!decoder.GetGroups(groups)) {
        throw InvalidTokenException("Incorrect groups format");
    }
    for (const auto& group : groups) {
        m_groups.push_back(SplitPrincipal(group, "Incorrect group format"));
    }
    // A user name without an inner space is not a person's name: both parts stay empty.
    Jwt::SplitAtLast(decoder.GetUsername(), ' ', m_personName.givenName, m_personName.surname);
}

Basalt::System::DateTime JwtTokenImpl::GetExpirationTimeWithTolerance() const {
    return Basalt::System::DateTimeFromUtc(
        static_cast<long>(Saml::SaturatingAdd(m_expirationTime.GetUtcTime(),
                                              Saml::ToleranceMicros(m_clockToleranceSec))),
        false);
}

void JwtTokenImpl::GetAudience(std::set<std::string>& audience) const {
    audience.clear();
    audience.insert(m_audience);
}

}  // namespace SsoClient
