#pragma once

// Confirmation methods, formats and attribute names the assertion walk and the token rely on
// (namespaces: internal/xml/Namespaces.h). The vendor attribute names share a configurable scheme
// and host (see README.md, "SAML extension URIs"): these are the configure-time defaults; the
// library reads the names in effect from internal/saml/ExtensionNames.h.

#include "internal/xml/Namespaces.h"

#ifndef SSOCLIENT_SAML_ATTRIBUTE_NAME_BASE
#error "SSOCLIENT_SAML_ATTRIBUTE_NAME_BASE must be defined by the build"
#endif

namespace SsoClient {
namespace Saml {

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
