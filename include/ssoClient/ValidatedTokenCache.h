#pragma once

#include <cstddef>
#include <memory>

#include <basalt/DateTime.h>
#include <basalt/Object.h>

#include <ssoClient/Export.h>
#include <ssoClient/SamlTokenFactory.h>
#include <ssoClient/TokenValidator.h>

namespace SsoClient {

// A resource server validates the same token on every request; these decorators remember the
// tokens they have validated so that a repeat costs a SHA-256 of the text instead of a signature
// check.
//
//   auto factory = SsoClient::CreateCachingSamlTokenFactory(
//       SsoClient::CreateSamlTokenFactory(resolver));
//   auto first = factory->CreateSamlToken(xml);    // parsed and verified
//   auto again = factory->CreateSamlToken(xml);    // the same object: again == first
//
// Entries are keyed by the SHA-256 of the exact token text (together with the clock tolerance,
// or the JWT's second argument), never by an ID, so a token that differs in one byte is
// validated afresh. An entry is used only while the injected clock is before the token's
// expiration time with tolerance, then dropped. Failures are never cached: a rejected text is
// rejected again by the wrapped factory or validator, with its exception. The least recently
// used entry goes when maxEntries are held. Concurrent first validations of one text may both
// run; every later call gets the object that was kept. Thread-safe.
struct ValidatedTokenCacheOptions {
    size_t maxEntries = 1024;
    // Where "now" comes from; null means the system clock.
    std::shared_ptr<const Basalt::System::Clock> clock;
};

// A SamlTokenFactory that caches CreateSamlToken(xml, tolerance) of inner. CreateSamlTokenFromDom
// has no text to key by and goes to inner every time. Throws Basalt::InvalidArgumentException for
// a null inner or maxEntries of 0.
SSOCLIENT_API std::shared_ptr<SamlTokenFactory> CreateCachingSamlTokenFactory(
    std::shared_ptr<SamlTokenFactory> inner, const ValidatedTokenCacheOptions& options = {});

// A TokenValidator (e.g. of JWTs) that caches Validate(token, second) of inner. Throws
// Basalt::InvalidArgumentException for a null inner or maxEntries of 0.
SSOCLIENT_API void CreateCachingTokenValidator(const Basalt::Ref<TokenValidator>& inner,
                                               const ValidatedTokenCacheOptions& options,
                                               Basalt::Ref<TokenValidator>& validator);

}  // namespace SsoClient
