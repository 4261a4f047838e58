#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <basalt/Exception.h>
#include <basalt/Http.h>
#include <basalt/Ssl.h>
#include <basalt/XmlSecurity.h>
#include <boost/optional.hpp>

#include <ssoClient/AsyncOperation.h>
#include <ssoClient/Export.h>
#include <ssoClient/HolderOfKeyConfig.h>
#include <ssoClient/SamlToken.h>
#include <ssoClient/SamlTokenFactory.h>
#include <ssoClient/ServiceObserver.h>
#include <ssoClient/ServiceOptions.h>
#include <ssoClient/Types.h>

namespace SsoClient {

// Produces the caller's GSS/SPNego legs for AcquireTokenByGSS.
class SSOCLIENT_API NegotiationHandler {
  public:
    virtual ~NegotiationHandler();
    // Given the service's latest leg (empty on the first call), returns the next leg to send.
    // Returning null is a contract violation (InvalidArgumentException).
    virtual std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>& serverLeg) = 0;
};

// Receives the result of an asynchronous token operation on a pool thread: the token (null on
// failure, or when the reply carried none) and the exception (null on success; valid only during
// the call).
using TokenCallback =
    std::function<void(const std::shared_ptr<const SamlToken>&, const Basalt::Exception*)>;
// Receives the result of an asynchronous validation: a set optional on success, none on failure.
using ValidationCallback =
    std::function<void(const boost::optional<bool>&, const Basalt::Exception*)>;

// The client of a WS-Trust token service. Immutable and safe to share between threads; each call
// uses its own HTTP session. Token operations return the issued token (null when the reply carried
// none) and throw on failure: InvalidCredentialsException / PasswordExpiredException for rejected
// credentials, CommunicationException when the exchange fails, SsoException for unexpected
// replies or tokens that do not parse, Basalt::InvalidArgumentException /
// Basalt::InvalidStateException for misuse.
class SSOCLIENT_API SecurityTokenService {
  public:
    virtual ~SecurityTokenService();

    // The password is wiped from every buffer the library fills with it on its way to the socket
    // (the request's DOM, its serialised text, the HTTP body and libcurl's copies; see
    // Basalt::Http::ClientRequest::GetBodyWriter) before that buffer is freed; the caller's own
    // string stays the caller's to wipe.
    virtual std::shared_ptr<const SamlToken> AcquireToken(const std::string& user,
                                                          const std::string& password,
                                                          const TokenSpec& spec) const = 0;
    virtual std::shared_ptr<const SamlToken> AcquireTokenByGSS(
        const TokenSpec& spec, NegotiationHandler& handler) const = 0;
    // Needs a HolderOfKeyConfig; the request is signed with its key.
    virtual std::shared_ptr<const SamlToken> AcquireTokenByCertificate(
        const TokenSpec& spec) const = 0;
    // Presents a holder-of-key token, proving its key with the configured private key.
    virtual std::shared_ptr<const SamlToken> AcquireTokenByToken(const SamlToken& token,
                                                                 const TokenSpec& spec) const = 0;
    // The service's verdict on the token.
    virtual bool ValidateToken(const SamlToken& token) const = 0;
    // A renewed holder-of-key token valid for seconds more.
    virtual std::shared_ptr<const SamlToken> RenewToken(const SamlToken& token,
                                                        long seconds) const = 0;

    // The same operations, returning at once. Each builds its request and handles the reply on
    // the foundation's thread pool, and no thread waits while the request is on the network, so
    // any number may be in flight and a server that never answers delays only its own calls;
    // the service's limits and retries apply as to the synchronous ones (a retry's pause holds
    // no thread either). The callback is called exactly once, on a pool thread, with the outcome
    // the synchronous operation would return or throw; a null token or handler is refused at
    // once with Basalt::InvalidArgumentException, and failures to queue are thrown to the caller.
    // The returned handle cancels the operation (see AsyncOperation). An operation holds what it
    // needs: the caller may drop the service, the token and the handler at once.
    virtual std::shared_ptr<AsyncOperation> AcquireTokenAsync(
        const std::string& user, const std::string& password, const TokenSpec& spec,
        const TokenCallback& callback) const = 0;
    // The handler is called on pool threads, one leg at a time; it may block.
    virtual std::shared_ptr<AsyncOperation> AcquireTokenByGSSAsync(
        const TokenSpec& spec, const std::shared_ptr<NegotiationHandler>& handler,
        const TokenCallback& callback) const = 0;
    virtual std::shared_ptr<AsyncOperation> AcquireTokenByCertificateAsync(
        const TokenSpec& spec, const TokenCallback& callback) const = 0;
    virtual std::shared_ptr<AsyncOperation> AcquireTokenByTokenAsync(
        const std::shared_ptr<const SamlToken>& token, const TokenSpec& spec,
        const TokenCallback& callback) const = 0;
    virtual std::shared_ptr<AsyncOperation> ValidateTokenAsync(
        const std::shared_ptr<const SamlToken>& token,
        const ValidationCallback& callback) const = 0;
    virtual std::shared_ptr<AsyncOperation> RenewTokenAsync(
        const std::shared_ptr<const SamlToken>& token, long seconds,
        const TokenCallback& callback) const = 0;
};

// Connect by URL: the library makes its own HTTP(S) connections.
struct SecurityTokenServiceConfig {
    // The service endpoint, e.g. "https://sts.example.com:8443/sts/STSService".
    std::string url;
    // Trusted token-signing certificates (used by negotiation contexts; issued tokens are
    // verified by tokenFactory).
    Basalt::Ref<const Basalt::Xml::Security::KeyInfoResolver> keyInfoResolver;
    // Turns issued assertions into tokens (and verifies their signatures). When unset, a factory
    // over keyInfoResolver is made; one of the two is required.
    std::shared_ptr<SamlTokenFactory> tokenFactory;
    // Server name to present and verify for HTTPS; empty means the URL's host.
    std::string sslParameter;
    // The client's signing identity, for holder-of-key operations.
    boost::optional<HolderOfKeyConfig> holderOfKey;
    // Required for an https URL.
    Basalt::Ssl::SSLContext* sslContext = nullptr;
    // Keep connections alive and reuse them across calls.
    bool connectionFlag = false;
    // Time limits and retries (see ServiceLimits); unset: 240 s per request, one try each.
    boost::optional<ServiceLimits> limits;
    // The proxy to connect through; unset: direct connections.
    boost::optional<ProxyConfig> proxy;
    // With no proxy set: take one from the http_proxy / https_proxy / no_proxy environment
    // variables. Off by default, so that configuration comes from this record only.
    bool environmentProxy = false;
    // Told of every operation, retry and issued token (see ServiceObserver); none by default.
    std::shared_ptr<ServiceObserver> observer;
    // Passwords, GSS legs, tokens and holder-of-key requests are refused over a plain http://
    // url unless this is set (a warning is logged once when it is used): with it unset, a
    // holderOfKey makes the factory throw, and every operation throws
    // Basalt::InvalidArgumentException before anything is sent.
    bool allowPlainHttp = false;
};

// Connect through the caller's own HTTP user agent (connections, TLS and cookies are the
// caller's; every call shares them).
struct SecurityTokenServiceConfigEx {
    // The request target of every request, used as given (not parsed).
    std::string url;
    // Required.
    Basalt::Ref<Basalt::Http::HttpUserAgent> userAgent;
    // Required.
    std::shared_ptr<SamlTokenFactory> tokenFactory;
    boost::optional<HolderOfKeyConfig> holderOfKey;
    // Time limits and retries (see ServiceLimits); unset: 240 s per request, one try each. The
    // proxy is the user agent's business.
    boost::optional<ServiceLimits> limits;
    // Told of every operation, retry and issued token (see ServiceObserver); none by default.
    std::shared_ptr<ServiceObserver> observer;
};

// Assembles a service; the configuration is checked first, so a mistake surfaces here rather
// than at the first call (nothing is sent either way). Throws Basalt::InvalidArgumentException
// naming the field: an https URL without an SSL context, no tokenFactory (and, for
// SecurityTokenServiceConfig, no keyInfoResolver to make one from), no userAgent, a
// holderOfKey without certificate or private key, a private key that does not match the
// certificate, limits out of range, or a proxy that is no http://host:port URL. URL parse errors
// pass through.
SSOCLIENT_API std::shared_ptr<SecurityTokenService> CreateSecurityTokenService(
    const SecurityTokenServiceConfig& config);
SSOCLIENT_API std::shared_ptr<SecurityTokenService> CreateSecurityTokenService(
    const SecurityTokenServiceConfigEx& config);

}  // namespace SsoClient
