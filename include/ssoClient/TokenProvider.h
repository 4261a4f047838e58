#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <basalt/DateTime.h>

#include <ssoClient/Export.h>
#include <ssoClient/SamlToken.h>
#include <ssoClient/SecurityTokenService.h>
#include <ssoClient/Types.h>

namespace SsoClient {

// How a provider obtains a new token from its service: one of the service's acquisitions, in its
// blocking form (for a GetToken caller that has to wait anyway) and its asynchronous one (for
// background refreshes and GetTokenAsync, so that no pool thread waits on the network).
class SSOCLIENT_API TokenRecipe {
  public:
    using Acquire = std::function<std::shared_ptr<const SamlToken>(const SecurityTokenService&,
                                                                   const TokenSpec&)>;
    // Starts the acquisition and returns its handle; calls back exactly once, as the service's
    // asynchronous operations do.
    using AcquireAsync = std::function<std::shared_ptr<AsyncOperation>(
        const SecurityTokenService&, const TokenSpec&, const TokenCallback&)>;
    // AcquireToken(user, password, spec).
    static TokenRecipe ByPassword(std::string user, std::string password);
    // AcquireTokenByCertificate(spec); the service needs a HolderOfKeyConfig.
    static TokenRecipe ByCertificate();
    // AcquireTokenByToken(*token, spec). A null token throws Basalt::InvalidArgumentException.
    static TokenRecipe ByToken(std::shared_ptr<const SamlToken> token);
    // AcquireTokenByGSS(spec, *handlerFactory()): a fresh handler for every acquisition, since
    // a negotiation cannot be replayed. No factory throws Basalt::InvalidArgumentException at
    // once; a factory that returns no handler makes that acquisition throw it.
    static TokenRecipe ByGss(std::function<std::shared_ptr<NegotiationHandler>()> handlerFactory);
    // Any other acquisition. Without an asynchronous form, background acquisitions run acquire
    // on a pool thread, which it holds for as long as it blocks.
    explicit TokenRecipe(Acquire acquire, AcquireAsync acquireAsync = nullptr);

    const Acquire& Get() const { return m_acquire; }
    // Empty for a recipe that has no asynchronous form.
    const AcquireAsync& GetAsync() const { return m_acquireAsync; }

  private:
    Acquire m_acquire;
    AcquireAsync m_acquireAsync;
};

// When a provider refreshes and how it backs off. The defaults suit tokens of minutes to hours.
struct TokenProviderOptions {
    // A refresh starts in the background with the first call after the token enters the last
    // refreshFraction of its lifetime or the last refreshBeforeSec seconds before its expiry,
    // whichever comes first, but never in the first half of its lifetime (so short tokens are
    // not refreshed continuously). No timer runs for a provider nobody calls.
    double refreshFraction = 0.2;
    int64_t refreshBeforeSec = 300;
    // GetToken hands out a token only while it stays valid at least this long: now + margin
    // before its NotOnOrAfter (so never past its expiry, with or without clock tolerance).
    int64_t minValiditySec = 30;
    // After the nth consecutive failure no acquisition is tried for a random delay between half
    // and all of min(initialBackoffSec * 2^(n-1), maxBackoffSec).
    int64_t initialBackoffSec = 1;
    int64_t maxBackoffSec = 60;
    // Where "now" comes from; null means the system clock.
    std::shared_ptr<const Basalt::System::Clock> clock;
    // Told of each cache hit and each refresh (see ServiceObserver); none by default.
    std::shared_ptr<ServiceObserver> observer;
};

// Hands out a valid token for as long as the process lives: acquires it once, keeps it, renews
// or re-acquires it in the background before it expires, and never lets concurrent callers
// stampede the service.
//
//   auto provider = SsoClient::CreateTokenProvider(
//       service, SsoClient::TokenRecipe::ByPassword("alice", password), spec);
//   std::shared_ptr<const SsoClient::SamlToken> token = provider->GetToken();  // one STS call
//   provider->GetToken();      // the same token, no network traffic
//   provider->Invalidate();    // the server rejected it: the next call acquires a new one
//
// Single flight: any number of callers that find no usable token during an acquisition (or a
// refresh) share that one service call and all get its token or its exception. The provider
// holds no lock while the service works. A refresh renews a renewable holder-of-key token
// (RenewToken for spec.tokenLifetimeSec) and re-acquires any other; it runs as the service's
// asynchronous operation, holding no thread while the request is on the network, and callers keep
// getting the current token meanwhile. A failed call is not retried before its back-off has
// passed (nothing waits for it to pass: the next call after it tries again). The provider is
// thread-safe. Destroying it with a call in flight is safe: a refresh nobody waits for is
// cancelled; one that GetTokenAsync callers wait for completes for them and its token is dropped.
class SSOCLIENT_API TokenProvider {
  public:
    virtual ~TokenProvider();
    // A token valid for at least the minimum margin. Without one, acquires it (or joins the
    // acquisition in flight) and returns its token; a null token from the service throws
    // SsoException "The token service returned no token", one already past its expiration time
    // with tolerance InvalidTokenException "The token service returned an expired token". During
    // a back-off after a failure,
    // throws that failure again, with its class as the service threw it (CommunicationException,
    // InvalidCredentialsException, ...).
    virtual std::shared_ptr<const SamlToken> GetToken() = 0;
    // As GetToken, but calls callback exactly once: at once on the caller's thread when a token
    // or a back-off failure is at hand, otherwise on a pool thread when the acquisition ends
    // (an acquisition it starts is the service's asynchronous operation).
    // A failure that is not a Basalt::Exception reaches the callback as an SsoException.
    virtual void GetTokenAsync(const TokenCallback& callback) = 0;
    // Forgets the token and any back-off: the next call acquires a new one. Callers of an
    // acquisition already in flight still get its result, but it is not kept.
    virtual void Invalidate() = 0;
};

// A provider of tokens made by recipe from service with spec. Throws
// Basalt::InvalidArgumentException for a null service, an empty recipe or options out of range
// (a fraction outside [0, 1], a negative margin or back-off, maxBackoffSec < initialBackoffSec).
SSOCLIENT_API std::unique_ptr<TokenProvider> CreateTokenProvider(
    std::shared_ptr<const SecurityTokenService> service, TokenRecipe recipe, TokenSpec spec,
    TokenProviderOptions options = {});

}  // namespace SsoClient
