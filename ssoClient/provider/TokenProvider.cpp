#include <ssoClient/Exceptions.h>
#include <ssoClient/TokenProvider.h>

#include "internal/service/AsyncCall.h"

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>

#include <algorithm>
#include <future>
#include <limits>
#include <mutex>
#include <random>
#include <utility>
#include <vector>

namespace SsoClient {
namespace {

using Token = std::shared_ptr<const SamlToken>;
constexpr int64_t kMicrosPerSec = 1000000;

// One acquisition or refresh; callers that find no usable token join it.
struct Flight {
    std::promise<Token> promise;
    std::shared_future<Token> result = promise.get_future().share();
    Token current;  // the token to renew, if any
    // Guarded by the state's mutex.
    std::vector<TokenCallback> callbacks;
    std::shared_ptr<AsyncOperation> operation;  // while it runs asynchronously
    bool done = false;
};

// What a caller does after looking at the state: use token, rethrow failure, or join flight
// (starting it first when run is set). A refresh comes with a token to use.
struct Plan {
    Token token;
    std::exception_ptr failure;
    std::shared_ptr<Flight> flight;
    bool run = false;
};

// Hands the outcome to a callback as the service's asynchronous calls do.
void Deliver(const TokenCallback& callback, const Token& token, const std::exception_ptr& failure) {
    if (!failure) {
        callback(token, nullptr);
        return;
    }
    ReportFailure(failure, [&](const Basalt::Exception* e) { callback(nullptr, e); });
}

// The provider's state, shared with the work it queues on the pool so that work finishing after
// the provider is gone touches only this.
class ProviderState : public std::enable_shared_from_this<ProviderState> {
  public:
    ProviderState(std::shared_ptr<const SecurityTokenService> service, TokenRecipe recipe,
                  TokenSpec spec, TokenProviderOptions options)
        : m_service(std::move(service)),
          m_recipe(std::move(recipe)),
          m_spec(std::move(spec)),
          m_options(std::move(options)),
          m_random(std::random_device{}()) {}

    Token Get() {
        const Plan plan = Decide(nullptr);
        if (plan.failure) {
            std::rethrow_exception(plan.failure);
        }
        if (plan.token) {
            Queue(plan);
            CacheHit();
            return plan.token;
        }
        if (plan.run) {
            // An acquisition the caller waits for runs on its thread.
            const std::shared_ptr<Flight>& flight = plan.flight;
            Finish(flight, [&] {
                return Renews(flight->current) ? m_service->RenewToken(*flight->current, Lifetime())
                                               : m_recipe.Get()(*m_service, m_spec);
            });
        }
        return plan.flight->result.get();
    }

    void GetAsync(const TokenCallback& callback) {
        const Plan plan = Decide(&callback);
        Queue(plan);
        if (plan.token) {
            CacheHit();
        }
        if (plan.token || plan.failure) {
            Deliver(callback, plan.token, plan.failure);
        }
    }

    void Invalidate() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_token.reset();
        m_flight.reset();  // its callers still get its outcome; it is not kept
        m_failure = nullptr;
        m_failures = 0;
        m_retryAt = std::numeric_limits<int64_t>::min();
    }

    // The provider is going: a refresh nobody waits for is cancelled, so that it keeps neither
    // this state nor a connection to a service that does not answer.
    void Abandon() {
        std::shared_ptr<AsyncOperation> operation;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_flight && m_flight->callbacks.empty()) {
                operation = m_flight->operation;
            }
        }
        if (operation) {
            operation->Cancel();
        }
    }

  private:
    int64_t Now() const { return m_options.clock->Now().GetUtcTime(); }

    bool Usable(const SamlToken& token, int64_t now) const {
        return now + m_options.minValiditySec * kMicrosPerSec <
               token.GetExpirationTime().GetUtcTime();
    }

    // The instant a refresh of token becomes due.
    int64_t RefreshAt(const SamlToken& token) const {
        const int64_t start = token.GetStartTime().GetUtcTime();
        const int64_t expiry = token.GetExpirationTime().GetUtcTime();
        const int64_t lifetime = expiry - start;
        const int64_t byFraction = expiry - static_cast<int64_t>(m_options.refreshFraction *
                                                                 static_cast<double>(lifetime));
        const int64_t byMargin = expiry - m_options.refreshBeforeSec * kMicrosPerSec;
        return std::max(std::min(byFraction, byMargin), start + lifetime / 2);
    }

    // The delay before the next attempt after m_failures consecutive failures.
    int64_t Backoff() {
        int64_t full = m_options.initialBackoffSec;
        for (int n = 1; n < m_failures && full > 0 && full < m_options.maxBackoffSec; ++n) {
            full *= 2;
        }
        full = std::min(full, m_options.maxBackoffSec) * kMicrosPerSec;
        return std::uniform_int_distribution<int64_t>(full / 2, full)(m_random);
    }

    // Looks at the state under the lock; a new flight is made current here, and an asynchronous
    // caller that has to wait joins its flight here, so no outcome is missed.
    Plan Decide(const TokenCallback* callback) {
        Plan plan;
        std::lock_guard<std::mutex> lock(m_mutex);
        const int64_t now = Now();
        const bool retryDue = now >= m_retryAt;
        if (m_token && Usable(*m_token, now)) {
            plan.token = m_token;
            plan.run = !m_flight && retryDue && now >= m_refreshAt;
        } else if (!m_flight && !retryDue) {
            plan.failure = m_failure;
            return plan;
        } else {
            plan.run = !m_flight;
        }
        if (plan.run) {
            m_flight = std::make_shared<Flight>();
            m_flight->current = m_token;
        }
        plan.flight = m_flight;
        if (callback && !plan.token) {
            m_flight->callbacks.push_back(*callback);
        }
        return plan;
    }

    // Starts the flight of plan as an asynchronous operation if this caller is to run it.
    void Queue(const Plan& plan) {
        if (!plan.run) {
            return;
        }
        const std::shared_ptr<Flight>& flight = plan.flight;
        try {
            std::shared_ptr<AsyncOperation> operation = Start(flight);
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!flight->done) {
                flight->operation = std::move(operation);
            }
        } catch (...) {
            Complete(flight, nullptr, std::current_exception());
        }
    }

    // The operation renewing or acquiring the flight's token; its callback completes the flight
    // (and keeps this state until then).
    std::shared_ptr<AsyncOperation> Start(const std::shared_ptr<Flight>& flight) {
        TokenCallback done = [self = shared_from_this(), flight](const Token& token,
                                                                 const Basalt::Exception* e) {
            self->Finish(flight, [&] {
                if (e) {
                    e->Throw();
                }
                return token;
            });
        };
        if (Renews(flight->current)) {
            return m_service->RenewTokenAsync(flight->current, Lifetime(), done);
        }
        if (m_recipe.GetAsync()) {
            return m_recipe.GetAsync()(*m_service, m_spec, done);
        }
        return RunBlocking(
            "TokenRecipe",
            [service = m_service, acquire = m_recipe.Get(), spec = m_spec] {
                return acquire(*service, spec);
            },
            done);
    }

    void CacheHit() const {
        if (m_options.observer) {
            m_options.observer->ProviderCacheHit();
        }
    }

    // Whether a flight renews current rather than acquiring anew; tells the observer of the
    // refresh about to start.
    bool Renews(const Token& current) const {
        const bool renewal = current && current->IsRenewable() &&
                             current->GetTokenType() == Saml_HOK &&
                             Now() < current->GetExpirationTime().GetUtcTime();
        if (m_options.observer) {
            m_options.observer->ProviderRefresh(renewal);
        }
        return renewal;
    }

    long Lifetime() const { return static_cast<long>(m_spec.tokenLifetimeSec); }

    // Completes flight with the token fetch returns, or with what it or the check throws.
    template <class Fetch>
    void Finish(const std::shared_ptr<Flight>& flight, const Fetch& fetch) {
        try {
            Token token = fetch();
            if (!token) {
                throw SsoException("The token service returned no token");
            }
            if (Now() >= token->GetExpirationTimeWithTolerance().GetUtcTime()) {
                throw InvalidTokenException("The token service returned an expired token");
            }
            Complete(flight, token, nullptr);
        } catch (...) {
            Complete(flight, nullptr, std::current_exception());
        }
    }

    // Hands the outcome to the flight's callers; only its first call does anything.
    void Complete(const std::shared_ptr<Flight>& flight, const Token& token,
                  const std::exception_ptr& failure) {
        std::vector<TokenCallback> callbacks;
        std::shared_ptr<AsyncOperation> operation;  // holds its callback, which holds the flight
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (std::exchange(flight->done, true)) {
                return;
            }
            callbacks.swap(flight->callbacks);
            operation = std::move(flight->operation);
            if (m_flight == flight) {
                m_flight.reset();
                Record(token, failure);
            }
        }
        failure ? flight->promise.set_exception(failure) : flight->promise.set_value(token);
        for (const TokenCallback& callback : callbacks) {
            try {
                Deliver(callback, token, failure);
            } catch (...) {
                // A callback's own failure must not keep the others from theirs.
            }
        }
    }

    // Keeps the outcome of the current flight; the caller holds the mutex.
    void Record(const Token& token, const std::exception_ptr& failure) {
        if (token) {
            m_token = token;
            m_refreshAt = RefreshAt(*token);
            m_failure = nullptr;
            m_failures = 0;
            m_retryAt = std::numeric_limits<int64_t>::min();
            return;
        }
        m_failure = failure;
        ++m_failures;
        m_retryAt = Now() + Backoff();
    }

    const std::shared_ptr<const SecurityTokenService> m_service;
    const TokenRecipe m_recipe;
    const TokenSpec m_spec;
    const TokenProviderOptions m_options;

    std::mutex m_mutex;
    Token m_token;
    int64_t m_refreshAt = 0;
    std::shared_ptr<Flight> m_flight;
    std::exception_ptr m_failure;
    int m_failures = 0;
    int64_t m_retryAt = std::numeric_limits<int64_t>::min();
    std::mt19937_64 m_random;
};

class TokenProviderImpl final : public TokenProvider {
  public:
    explicit TokenProviderImpl(std::shared_ptr<ProviderState> state) : m_state(std::move(state)) {}
    ~TokenProviderImpl() override { m_state->Abandon(); }
    Token GetToken() override { return m_state->Get(); }
    void GetTokenAsync(const TokenCallback& callback) override { m_state->GetAsync(callback); }
    void Invalidate() override { m_state->Invalidate(); }

  private:
    const std::shared_ptr<ProviderState> m_state;
};

void CheckOptions(const TokenProviderOptions& options) {
    const bool valid = options.refreshFraction >= 0 && options.refreshFraction <= 1 &&
                       options.refreshBeforeSec >= 0 && options.minValiditySec >= 0 &&
                       options.initialBackoffSec >= 0 &&
                       options.maxBackoffSec >= options.initialBackoffSec;
    if (!valid) {
        throw Basalt::InvalidArgumentException("Token provider options out of range");
    }
}

}  // namespace

TokenRecipe::TokenRecipe(Acquire acquire, AcquireAsync acquireAsync)
    : m_acquire(std::move(acquire)), m_acquireAsync(std::move(acquireAsync)) {}

TokenRecipe TokenRecipe::ByPassword(std::string user, std::string password) {
    const auto secret = std::make_shared<const Basalt::StringUtil::SecretText>(std::move(password));
    return TokenRecipe(
        [user, secret](const SecurityTokenService& service, const TokenSpec& spec) {
            return service.AcquireToken(user, secret->Get(), spec);
        },
        [user, secret](const SecurityTokenService& service, const TokenSpec& spec,
                       const TokenCallback& callback) {
            return service.AcquireTokenAsync(user, secret->Get(), spec, callback);
        });
}

TokenRecipe TokenRecipe::ByCertificate() {
    return TokenRecipe(
        [](const SecurityTokenService& service, const TokenSpec& spec) {
            return service.AcquireTokenByCertificate(spec);
        },
        [](const SecurityTokenService& service, const TokenSpec& spec,
           const TokenCallback& callback) {
            return service.AcquireTokenByCertificateAsync(spec, callback);
        });
}

TokenRecipe TokenRecipe::ByToken(std::shared_ptr<const SamlToken> token) {
    if (!token) {
        throw Basalt::InvalidArgumentException("TokenRecipe::ByToken: the token may not be null");
    }
    return TokenRecipe(
        [token](const SecurityTokenService& service, const TokenSpec& spec) {
            return service.AcquireTokenByToken(*token, spec);
        },
        [token](const SecurityTokenService& service, const TokenSpec& spec,
                const TokenCallback& callback) {
            return service.AcquireTokenByTokenAsync(token, spec, callback);
        });
}

TokenRecipe TokenRecipe::ByGss(std::function<std::shared_ptr<NegotiationHandler>()> factory) {
    if (!factory) {
        throw Basalt::InvalidArgumentException("TokenRecipe::ByGss: no handler factory");
    }
    const auto handler = [factory] {
        std::shared_ptr<NegotiationHandler> made = factory();
        if (!made) {
            throw Basalt::InvalidArgumentException(
                "TokenRecipe::ByGss: the factory returned no handler");
        }
        return made;
    };
    return TokenRecipe(
        [handler](const SecurityTokenService& service, const TokenSpec& spec) {
            return service.AcquireTokenByGSS(spec, *handler());
        },
        [handler](const SecurityTokenService& service, const TokenSpec& spec,
                  const TokenCallback& callback) {
            return service.AcquireTokenByGSSAsync(spec, handler(), callback);
        });
}

TokenProvider::~TokenProvider() = default;

std::unique_ptr<TokenProvider> CreateTokenProvider(
    std::shared_ptr<const SecurityTokenService> service, TokenRecipe recipe, TokenSpec spec,
    TokenProviderOptions options) {
    if (!service || !recipe.Get()) {
        throw Basalt::InvalidArgumentException("A token provider needs a service and a recipe");
    }
    CheckOptions(options);
    if (!options.clock) {
        options.clock = std::shared_ptr<const Basalt::System::Clock>(
            std::shared_ptr<void>(), &Basalt::System::SystemClock());
    }
    return std::make_unique<TokenProviderImpl>(std::make_shared<ProviderState>(
        std::move(service), std::move(recipe), std::move(spec), std::move(options)));
}

}  // namespace SsoClient
