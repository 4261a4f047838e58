#pragma once

// The vendor-extension URIs in effect: the build-time hosts (internal/xml/Namespaces.h,
// internal/saml/SamlNames.h) unless SetSamlExtensionHosts chose others before first use.

#include <string>

namespace SsoClient {
namespace Saml {

struct ExtensionNames {
    std::string wsTrustAdvice;        // <ns base>/names/2009/12/std-ext/WS-Trust1.4/advice
    std::string samlAdviceExtension;  // <ns base>/names/2009/12/std-ext/SAML2.0
    std::string groupIdentity;        // <attribute base>/schemas/attr-names/2009/01/GroupIdentity
    std::string isSolution;           // <attribute base>/schemas/attr-names/2011/07/isSolution
};

// The names in effect. The first call fixes them for the life of the process, so the result may
// be read from any thread without a lock.
const ExtensionNames& CurrentExtensionNames();

// Logs one warning per process when name is a group-identity or isSolution attribute name under
// another host than the one in effect: a token from an STS the library was not configured for.
void WarnOnNearMissAttribute(const std::string& name);

}  // namespace Saml
}  // namespace SsoClient
