#pragma once

// The XML namespace URIs of everything the library reads and writes: SOAP, WS-Addressing,
// WS-Security, WS-Trust, SAML 2.0 and XML-DSig. The vendor-extension URIs share a configurable
// scheme and host (see README.md, "SAML extension URIs"): these are the configure-time defaults;
// the library reads the names in effect from internal/saml/ExtensionNames.h.

#ifndef SSOCLIENT_SAML_EXTENSION_NS_BASE
#error "SSOCLIENT_SAML_EXTENSION_NS_BASE must be defined by the build"
#endif

namespace SsoClient {
namespace Xmlns {

inline constexpr char kSoapEnv[] = "http://schemas.xmlsoap.org/soap/envelope/";
inline constexpr char kWsa[] = "http://www.w3.org/2005/08/addressing";
inline constexpr char kWsu[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";
inline constexpr char kWsse[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd";
inline constexpr char kWsse11[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.1.xsd";
inline constexpr char kWsTrust[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512";
inline constexpr char kWsTrust14[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200802";
inline constexpr char kWsTrustAdvice[] =
    SSOCLIENT_SAML_EXTENSION_NS_BASE "/names/2009/12/std-ext/WS-Trust1.4/advice";
inline constexpr char kSamlAssertion[] = "urn:oasis:names:tc:SAML:2.0:assertion";
inline constexpr char kSamlDelegation[] = "urn:oasis:names:tc:SAML:2.0:conditions:delegation";
inline constexpr char kSamlAdviceExtension[] =
    SSOCLIENT_SAML_EXTENSION_NS_BASE "/names/2009/12/std-ext/SAML2.0";
inline constexpr char kWsPolicy[] = "http://schemas.xmlsoap.org/ws/2004/09/policy";
inline constexpr char kXmlDsig[] = "http://www.w3.org/2000/09/xmldsig#";
inline constexpr char kXs[] = "http://www.w3.org/2001/XMLSchema";
inline constexpr char kXsi[] = "http://www.w3.org/2001/XMLSchema-instance";

}  // namespace Xmlns
}  // namespace SsoClient
