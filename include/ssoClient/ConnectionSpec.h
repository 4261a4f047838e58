#pragma once

#include <basalt/Http.h>
#include <basalt/Ssl.h>

#include <string>

#include <ssoClient/Export.h>

namespace SsoClient {

// Connection specs for the foundation's HTTP client, as the token service uses them.
//
// host and port: where to connect (host is a DNS name or an IPv4/IPv6 literal without
// brackets; port 1 to 65535).
// reuseConnections: true lets kept-alive connections (and TLS sessions) be shared with later
// sessions of any user agent of the process that uses an equal ConnectionSpec and, for TLS, the
// same SSL context; false keeps each user agent's connections to itself, so every session of
// the token service opens its own. Cookies are never shared between user agents either way.
//
// Both throw Basalt::InvalidArgumentException for an empty host, a bad port, a null SSL context
// (SSL variant) or a server name with characters a host name cannot have.

// A plain HTTP ConnectionSpec; describes itself as "host:port".
SSOCLIENT_API void CreateSsoConnectionSpec(const std::string& host, int port, bool reuseConnections,
                                           Basalt::Ref<Basalt::Http::ConnectionSpec>& result);

// A TLS ConnectionSpec using context. serverName is the name sent as SNI and checked against the
// server's certificate; empty means host. For an IP-address host with an empty server name no
// SNI is sent and the certificate must carry that IP address. Describes itself as
// "<cs p:host:port, SsoCustomConnectionSpec:name>", name being the verified name.
SSOCLIENT_API void CreateSsoSSLConnectionSpec(const std::string& host, int port,
                                              Basalt::Ssl::SSLContext* context,
                                              const std::string& serverName, bool reuseConnections,
                                              Basalt::Ref<Basalt::Http::ConnectionSpec>& result);

}  // namespace SsoClient
