#pragma once

// Namespaces and attribute names the assertion walk and the token rely on. The vendor-extension
// URIs share a configurable scheme and host (see README.md, "SAML extension URIs"), set at
// configure time through CMake cache variables.

#ifndef SSOCLIENT_SAML_EXTENSION_NS_BASE
#error "SSOCLIENT_SAML_EXTENSION_NS_BASE must be defined by the build"
#endif
#ifndef SSOCLIENT_SAML_ATTRIBUTE_NAME_BASE
#error "SSOCLIENT_SAML_ATTRIBUTE_NAME_BASE must be defined by the build"
#endif

namespace SsoClient {
namespace Saml {

inline constexpr const char* kAssertionNs = "urn:oasis:names:tc:SAML:2.0:assertion";
inline constexpr const char* kXmlDsigNs = "http://www.w3.org/2000/09/xmldsig#";
inline constexpr const char* kDelegationNs = "urn:oasis:names:tc:SAML:2.0:conditions:delegation";
inline constexpr const char* kSchemaInstanceNs = "http://www.w3.org/2001/XMLSchema-instance";
inline constexpr const char* kAdviceExtensionNs =
    SSOCLIENT_SAML_EXTENSION_NS_BASE "/names/2009/12/std-ext/SAML2.0";

inline constexpr const char* kBearerMethod = "urn:oasis:names:tc:SAML:2.0:cm:bearer";
inline constexpr const char* kHolderOfKeyMethod = "urn:oasis:names:tc:SAML:2.0:cm:holder-of-key";
inline constexpr const char* kUpnFormat = "http://schemas.xmlsoap.org/claims/UPN";

inline constexpr const char* kGroupIdentityAttribute =
    SSOCLIENT_SAML_ATTRIBUTE_NAME_BASE "/schemas/attr-names/2009/01/GroupIdentity";
inline constexpr const char* kIsSolutionAttribute =
    SSOCLIENT_SAML_ATTRIBUTE_NAME_BASE "/schemas/attr-names/2011/07/isSolution";
inline constexpr const char* kGivenNameAttribute =
    "http://schemas.xmlsoap.org/ws/2005/05/identity/claims/givenname";
inline constexpr const char* kSurnameAttribute =
    "http://schemas.xmlsoap.org/ws/2005/05/identity/claims/surname";

}  // namespace Saml
}  // namespace SsoClient
