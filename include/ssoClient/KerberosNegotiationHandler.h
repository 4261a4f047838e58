#pragma once

// A NegotiationHandler that logs on with Kerberos: it produces real SPNEGO legs for
// AcquireTokenByGSS from the caller's Kerberos credentials (a credential cache or a client
// keytab), with mutual authentication.
//
//   SsoClient::KerberosOptions options;
//   options.credentials = {Basalt::Gss::CredentialSource::ClientKeytab, "/etc/app/app.keytab",
//                          "app@EXAMPLE.ORG"};
//   auto handler = SsoClient::CreateKerberosNegotiationHandler("HTTP@sts.example.org", options);
//   auto token = service->AcquireTokenByGSS(spec, *handler);

#include <memory>
#include <string>

#include <basalt/Gss.h>

#include <ssoClient/Export.h>
#include <ssoClient/SecurityTokenService.h>

namespace SsoClient {

struct KerberosOptions {
    // How the service principal is written: "HTTP@sts.example.org" (host-based service, the
    // default) or "HTTP/sts.example.org@EXAMPLE.ORG" (Kerberos principal).
    Basalt::Gss::TargetKind targetKind = Basalt::Gss::TargetKind::HostBasedService;
    // Where the user's tickets come from; the default cache unless set. Kerberos itself is
    // configured as usual (krb5.conf, or KRB5_CONFIG).
    Basalt::Gss::Credentials credentials;
};

// A handler for one negotiation at a time; a call with an empty server leg starts a new one, so
// the handler may serve several AcquireTokenByGSS calls in turn (use one handler per concurrent
// negotiation). Credentials are acquired on that first call.
//
// Mutual authentication: the service's final leg, which AcquireTokenByGSS hands over when it
// arrives with the token, must prove the service's identity; the handler then returns an empty
// leg. A caller driving the legs itself should pass that final leg to NextLeg as well.
//
// NextLeg throws InvalidCredentialsException when there are no credentials or they have expired,
// CommunicationException when the KDC cannot be reached, the service principal is unknown to it,
// a leg is refused or the service does not authenticate itself; the message holds Kerberos's own
// words, e.g. "Cannot acquire Kerberos credentials from the default cache: No credentials were
// supplied, or the credentials were unavailable or inaccessible: No Kerberos credentials available
// (default cache: FILE:/tmp/krb5cc_1000)". Basalt::InvalidArgumentException for a name that does
// not parse, Basalt::InvalidStateException for a server leg after the negotiation completed.
SSOCLIENT_API std::shared_ptr<NegotiationHandler> CreateKerberosNegotiationHandler(
    const std::string& servicePrincipal, const KerberosOptions& options = {});

}  // namespace SsoClient
