// Logging on with Kerberos: SPNEGO legs from a credential cache or a client keytab.
#include <ssoClient/KerberosNegotiationHandler.h>

namespace Guide {

std::shared_ptr<const SsoClient::SamlToken> ByKerberos(const SsoClient::SecurityTokenService& sts,
                                                       const SsoClient::TokenSpec& spec) {
    // [snippet:kerberos]
    SsoClient::KerberosOptions options;  // default: the default credential cache (kinit)
    options.credentials = {Basalt::Gss::CredentialSource::ClientKeytab, "/etc/app/app.keytab",
                           "app@EXAMPLE.ORG"};
    auto handler = SsoClient::CreateKerberosNegotiationHandler("HTTP@sts.example.org", options);
    auto token = sts.AcquireTokenByGSS(spec, *handler);
    // [/snippet]
    return token;
}

}  // namespace Guide
