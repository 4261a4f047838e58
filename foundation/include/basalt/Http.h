#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <basalt/Exception.h>
#include <basalt/IO.h>
#include <basalt/Object.h>
#include <basalt/Ssl.h>
#include <basalt/StringUtil.h>

namespace Basalt {
namespace Http {

// Request methods; POST is 3.
enum class HttpMethod { Get = 1, Head = 2, Post = 3, Put = 4, Delete = 5, Options = 6, Patch = 7 };

// Splits an http or https URL (scheme case-insensitive). host comes without the brackets of an
// IPv6 literal; port defaults to 80 or 443; path keeps the query and is "/" when the URL has
// none; a fragment is dropped. Throws Basalt::Exception naming the URL and the fault for any
// other scheme, user information, an empty host, a bad port or characters not allowed in a URL.
BASALT_API void ParseHttpURL(std::string_view url, bool& secure, std::string& host, int& port,
                             std::string& path);

// Cookies received by one user agent and sent back on its later requests to matching hosts and
// paths. Safe to use from several threads.
class BASALT_API CookieStore : public virtual Object {
  public:
    // The cookies held, one per line in the Netscape cookie-file format.
    virtual std::vector<std::string> GetCookieLines() const = 0;
    // Replaces the held cookies with the given lines.
    virtual void SetCookieLines(std::vector<std::string> lines) = 0;
    virtual void Clear() = 0;

  protected:
    ~CookieStore() override;
};

// Creates an empty cookie store. Only in-memory stores exist: name is a label for diagnostics.
BASALT_API void CreateCookieStore(const std::string& name, Ref<CookieStore>& store);

// Where and how a user agent connects. Every request of the agent goes to this host and port.
class BASALT_API ConnectionSpec : public virtual Object {
  public:
    virtual std::string GetHost() const = 0;
    virtual int GetPort() const = 0;
    // The TLS configuration; null for plain HTTP.
    virtual Ssl::SSLContext* GetSSLContext() const = 0;
    // The name sent as SNI and verified against the server's certificate; empty means the host.
    virtual std::string GetServerName() const = 0;
    // True if connections may be kept alive and reused by later requests of any user agent
    // with the same pool (TLS sessions are resumed too); false keeps each user agent's
    // connections (and TLS sessions) to itself, closed when the agent goes.
    virtual bool IsReusable() const = 0;

  protected:
    ~ConnectionSpec() override;
};

// A connection spec implemented outside the foundation. Besides describing the
// endpoint it takes part in every new TLS connection: after the context's own checks passed,
// the agent hands it the peer's certificate chain (leaf first) on the HTTP thread.
class BASALT_API CustomConnectionSpec : public virtual ConnectionSpec {
  public:
    // Accepts the handshake by returning; throwing a Basalt::Exception refuses the connection
    // and becomes the request's failure.
    virtual void OnHandshake(const std::vector<Ref<Crypto::Certificate>>& peerChain) const = 0;

  protected:
    ~CustomConnectionSpec() override;
};

// Creates a foundation connection spec (no handshake step).
BASALT_API void CreateConnectionSpec(const std::string& host, int port, Ssl::SSLContext* context,
                                     const std::string& serverName, bool reusable,
                                     Ref<ConnectionSpec>& spec);

// A cache of kept-alive connections and TLS sessions. Plain connections of reusable
// ConnectionSpecs go to a process-wide pool unless the user agent was given its own; TLS
// connections are always cached per SSL context.
class BASALT_API HttpConnectionPool : public virtual Object {
  protected:
    ~HttpConnectionPool() override;
};

BASALT_API void CreateHttpConnectionPool(Ref<HttpConnectionPool>& pool);

// One request: method, target path, headers and body.
class BASALT_API ClientRequest : public virtual Object {
  public:
    virtual HttpMethod GetMethod() const = 0;
    virtual const std::string& GetPath() const = 0;
    // Sets a header, replacing one of the same name (names compare case-insensitively).
    // Throws InvalidArgumentException for a name that is not an HTTP token or a value holding
    // CR, LF or NUL.
    virtual void SetHeader(const std::string& name, const std::string& value) = 0;
    // The value of a header, empty if not set.
    virtual std::string GetHeader(const std::string& name) const = 0;
    // Appends to the body. The body may be secret: every copy the foundation makes of it is
    // wiped before it is freed, and so are libcurl's when the foundation initialised libcurl
    // (the first HTTP request of a process that had not initialised it already).
    virtual Writer* GetBodyWriter() = 0;
    // Limit on the whole exchange, in microseconds; 0 (the default) means none.
    virtual void SetTimeout(int64_t microseconds) = 0;
    // Limit on setting up the connection (TCP, then TLS), in microseconds; 0 (the default) leaves
    // libcurl's 300 s. Running out fails the request with FailureKind::ConnectTimeout.
    virtual void SetConnectTimeout(int64_t microseconds) = 0;

  protected:
    ~ClientRequest() override;
};

// Creates a request for a target: a path ("/..." with an optional query), or an absolute
// "http://" / "https://" URL, which is sent unchanged as the request target (the connection still
// goes to the user agent's own endpoint). Throws InvalidArgumentException for any other target or
// one holding characters not allowed in a URL.
BASALT_API void CreateHttpRequest(HttpMethod method, std::string_view path,
                                  Ref<ClientRequest>& request);

// A received reply.
class BASALT_API ClientResponse : public virtual Object {
  public:
    virtual int GetStatusCode() const = 0;
    // The reason text of the status line ("Not Found"), possibly empty.
    virtual const std::string& GetReason() const = 0;
    // Every header in arrival order.
    virtual const std::vector<std::pair<std::string, std::string>>& GetHeaders() const = 0;
    // The first header of that name (case-insensitive), empty if absent.
    virtual std::string GetHeader(const std::string& name) const = 0;
    // A new reader over the whole body.
    virtual void GetBodyReader(Ref<Reader>& reader) const = 0;

  protected:
    ~ClientResponse() override;
};

// A request handed to the HTTP thread.
class BASALT_API PendingRequestItem : public virtual Object {
  public:
    // True once the completion has run.
    virtual bool IsDone() const = 0;
    // Stops the transfer if it is still running; its completion then reports a Basalt::Exception
    // saying that it was cancelled. Does nothing once done.
    virtual void Cancel() = 0;

  protected:
    ~PendingRequestItem() override;
};

// Called once per request on the HTTP thread: with the error, or with the response. Must not
// block on other requests; an exception escaping it is logged and dropped.
using CompletionCallback =
    std::function<void(const Exception* error, ClientResponse* response, PendingRequestItem* item)>;

// Sends requests over the connections of one ConnectionSpec, with one cookie store. Usable from
// any number of threads at once.
class BASALT_API HttpUserAgent : public virtual Object {
  public:
    // Copies the request and hands it to the HTTP thread; returns at once. Throws
    // InvalidStateException when the HTTP client has been shut down.
    virtual void SendAsync(ClientRequest* request, CompletionCallback completion,
                           Ref<PendingRequestItem>& pending) = 0;
    // Waits up to timeout microseconds (negative: without limit) for a request of this agent and
    // fills response. On failure rethrows the request's error; when the time runs out it cancels
    // the request and throws Basalt::Exception. Throws InvalidStateException when called from a
    // completion callback, where waiting would block every transfer.
    virtual void Wait(PendingRequestItem* pending, int64_t timeout,
                      Ref<ClientResponse>& response) = 0;
    // Sends and waits.
    void Send(ClientRequest* request, int64_t timeout, Ref<ClientResponse>& response);

  protected:
    ~HttpUserAgent() override;
};

// Creates a user agent. spec is required; a null cookie store gives the agent a private one; a
// null pool uses the process-wide pool for reusable plain connections.
BASALT_API void CreateHttpUserAgent(ConnectionSpec* spec, CookieStore* cookies,
                                    HttpConnectionPool* pool, Ref<HttpUserAgent>& agent);

// How a user agent reaches its endpoint beyond the ConnectionSpec. The defaults connect directly.
struct UserAgentOptions {
    UserAgentOptions() = default;
    UserAgentOptions(const UserAgentOptions&) = default;
    UserAgentOptions& operator=(const UserAgentOptions& other) {
        if (this != &other) {
            StringUtil::SecureWipe(proxyPassword);  // its buffer may be replaced
            proxyUrl = other.proxyUrl;
            proxyUser = other.proxyUser;
            proxyPassword = other.proxyPassword;
            noProxy = other.noProxy;
            environmentProxy = other.environmentProxy;
        }
        return *this;
    }
    ~UserAgentOptions() { StringUtil::SecureWipe(proxyPassword); }

    // An "http://host:port" proxy every request tunnels through (HTTP CONNECT, for plain HTTP
    // too); empty: none.
    std::string proxyUrl;
    // Basic credentials for the proxy; none when proxyUser is empty. The password is wiped from
    // every copy the foundation makes.
    std::string proxyUser;
    std::string proxyPassword;
    // Comma-separated hosts reached directly, a leading dot or none matching subdomains too, "*"
    // every host.
    std::string noProxy;
    // With no proxyUrl: take the proxy from the http_proxy / https_proxy / no_proxy environment
    // variables. Off by default: configuration comes from the caller only.
    bool environmentProxy = false;
};

// As above, with options. Throws InvalidArgumentException for a proxyUrl that is not an http URL
// of host and port.
BASALT_API void CreateHttpUserAgent(ConnectionSpec* spec, CookieStore* cookies,
                                    HttpConnectionPool* pool, const UserAgentOptions& options,
                                    Ref<HttpUserAgent>& agent);

// Why a request failed, for callers that decide whether another try is safe.
enum class FailureKind : long {
    Other = 0,             // anything else, including failures after the reply began
    Refused = 1,           // no connection: refused or unreachable; nothing was sent
    ConnectTimeout = 2,    // SetConnectTimeout ran out; nothing was sent
    TlsInterrupted = 3,    // the TLS handshake broke off without an alert or failed verification
    ResetBeforeReply = 4,  // the connection closed or reset before any byte of a reply
    TimedOut = 5,          // SetTimeout or the wait ran out
};

// How a request fails (Wait rethrows it; a completion receives it); its error code is the
// FailureKind.
BASALT_DECLARE_EXCEPTION(BASALT_API, TransferException, Exception);

// The kind of a TransferException; Other for any other exception.
BASALT_API FailureKind GetFailureKind(const Exception& error);

// Largest response body accepted; a longer reply fails the request.
constexpr size_t kMaxResponseBodySize = 64u * 1024 * 1024;

}  // namespace Http
}  // namespace Basalt
