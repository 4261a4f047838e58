#pragma once

// The initiator side of a Kerberos login over SPNEGO (GSS-API): produces the client's legs of a
// negotiation with a service and checks the service's answers, with mutual authentication.
//
//   Basalt::Gss::Credentials keytab{Basalt::Gss::CredentialSource::ClientKeytab,
//                                   "/etc/app/client.keytab", "app@EXAMPLE.ORG"};
//   Basalt::Gss::InitiatorContext context("HTTP@sts.example.org",
//                                         Basalt::Gss::TargetKind::HostBasedService, keytab);
//   std::vector<unsigned char> leg = context.Step({});  // send it, then Step(the reply) ...
//   bool done = context.IsEstablished();

#include <memory>
#include <string>
#include <vector>

#include <basalt/Exception.h>
#include <basalt/Export.h>

namespace Basalt {
namespace Gss {

// A negotiation failed: the KDC could not be reached, the service is unknown to it, a leg was
// refused or the service did not prove its identity. The message holds the GSS-API's own words.
BASALT_DECLARE_EXCEPTION(BASALT_API, GssException, Exception);
// No usable credentials: none in the cache, the cache or keytab missing, or the tickets expired.
BASALT_DECLARE_EXCEPTION(BASALT_API, CredentialsException, GssException);

// How the target name is written: "HTTP@sts.example.org" (service@host) or a Kerberos principal
// "HTTP/sts.example.org@EXAMPLE.ORG".
enum class TargetKind { HostBasedService, Principal };

enum class CredentialSource {
    DefaultCache,  // the process's default credential cache (KRB5CCNAME or the system default)
    Cache,         // a named cache, e.g. "FILE:/tmp/krb5cc_app" or a plain path
    ClientKeytab,  // tickets obtained from a client keytab, kept in a private memory cache
};

struct Credentials {
    CredentialSource source = CredentialSource::DefaultCache;
    // The cache name (Cache) or the keytab path (ClientKeytab); unused for DefaultCache.
    std::string location;
    // The client principal, e.g. "alice@EXAMPLE.ORG"; empty: the cache's default principal, or
    // the keytab's first.
    std::string principal;
};

// One SPNEGO negotiation, used by one thread at a time; independent contexts may run in parallel
// (no process-wide setting is changed).
class BASALT_API InitiatorContext {
  public:
    // Acquires the credentials. Throws CredentialsException when there are none or they have
    // expired, InvalidArgumentException for a name that does not parse.
    InitiatorContext(const std::string& target, TargetKind kind, const Credentials& credentials);
    ~InitiatorContext();
    InitiatorContext(const InitiatorContext&) = delete;
    InitiatorContext& operator=(const InitiatorContext&) = delete;

    // Takes the service's last leg (empty for the first call) and returns the next leg to send,
    // empty when the service's leg completed the negotiation. Throws CredentialsException for
    // missing or expired credentials, GssException for every other failure, including a
    // negotiation that completes without the service authenticating itself, and
    // InvalidStateException when called again after completion.
    std::vector<unsigned char> Step(const std::vector<unsigned char>& serverLeg);
    // Whether the service has been authenticated and the negotiation is complete.
    bool IsEstablished() const;

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace Gss
}  // namespace Basalt
