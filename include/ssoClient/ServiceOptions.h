#pragma once

// Optional limits, retries and a proxy for the token service (see SecurityTokenServiceConfig).
// Left unset, every request waits up to 240 s for its reply, is sent once and connects directly.
//
//   SsoClient::ServiceLimits limits;
//   limits.connectTimeout = std::chrono::seconds(2);
//   limits.deadline = std::chrono::seconds(5);   // each operation, all GSS legs together
//   limits.retry = SsoClient::RetryPolicy();     // 3 tries, 200 ms doubling up to 2 s
//   config.limits = limits;
//   config.proxy = SsoClient::ProxyConfig{"http://proxy.example:3128", "user", "secret",
//   ".internal"};

#include <basalt/StringUtil.h>

#include <chrono>
#include <string>

#include <boost/optional.hpp>

namespace SsoClient {

// Tries again a request that failed where trying again is safe: the connection was refused, timed
// out while connecting or reset before any reply, the TLS handshake broke off without the server
// refusing it, or a gateway answered 502, 503 or 504. SOAP faults, other statuses and failures
// after a reply began are never retried, and of a GSS negotiation only the first leg is (later
// legs continue a context the service may already have consumed). Pauses and tries stay within
// the deadline.
struct RetryPolicy {
    // Tries of one request in all, the first included; at least 1.
    int maxAttempts = 3;
    // The pause before the second try, doubled before each further one up to maxDelay; each pause
    // is jittered to between half and all of that. Both positive, baseDelay at most maxDelay.
    std::chrono::milliseconds baseDelay{200};
    std::chrono::milliseconds maxDelay{2000};
};

// Time limits of each operation. An exceeded limit fails the operation with
// CommunicationException: "deadline of 5 s exceeded" ("... after 2 legs" when a GSS negotiation
// had completed legs), "connect timeout of 2 s exceeded connecting to host:port".
struct ServiceLimits {
    // Limit on making one connection, TLS handshake included (positive). Unset: 300 s.
    boost::optional<std::chrono::milliseconds> connectTimeout;
    // Limit on a whole operation from its first request on, every leg, retry and pause included
    // (positive). Unset: each request waits up to 240 s, with no limit on the whole.
    boost::optional<std::chrono::milliseconds> deadline;
    // Unset: each request is sent once.
    boost::optional<RetryPolicy> retry;
};

// An HTTP proxy every connection to the service tunnels through (HTTP CONNECT).
struct ProxyConfig {
    ProxyConfig() = default;
    ProxyConfig(std::string url_, std::string user_, std::string password_, std::string noProxy_)
        : url(std::move(url_)),
          user(std::move(user_)),
          password(std::move(password_)),
          noProxy(std::move(noProxy_)) {}
    ProxyConfig(const ProxyConfig&) = default;
    ProxyConfig& operator=(const ProxyConfig& other) {
        if (this != &other) {
            Basalt::StringUtil::SecureWipe(password);  // its buffer may be replaced
            url = other.url;
            user = other.user;
            password = other.password;
            noProxy = other.noProxy;
        }
        return *this;
    }
    ~ProxyConfig() { Basalt::StringUtil::SecureWipe(password); }

    // "http://host:port"; required.
    std::string url;
    // Basic credentials; none when user is empty. The password is wiped from every copy the
    // library makes (and from this record when it goes).
    std::string user;
    std::string password;
    // Comma-separated hosts reached directly; a leading dot or none also matches subdomains, "*"
    // every host. Empty: none.
    std::string noProxy;
};

}  // namespace SsoClient
