#pragma once

// Fixed texts of the WS-Trust requests the library sends (token types, actions, algorithm URIs);
// their namespaces are in internal/xml/Namespaces.h.

#include "internal/xml/Namespaces.h"

namespace SsoClient {
namespace WsTrust {

inline constexpr char kSamlTokenType[] = "urn:oasis:names:tc:SAML:2.0:assertion";
inline constexpr char kStatusTokenType[] =
    "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RSTR/Status";
inline constexpr char kIssueRequest[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Issue";
inline constexpr char kRenewRequest[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Renew";
inline constexpr char kValidateRequest[] =
    "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Validate";
inline constexpr char kBearerKeyType[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Bearer";
inline constexpr char kPublicKeyKeyType[] =
    "http://docs.oasis-open.org/ws-sx/ws-trust/200512/PublicKey";
inline constexpr char kPasswordText[] =
    "http://docs.oasis-open.org/wss/2004/01/"
    "oasis-200401-wss-username-token-profile-1.0#PasswordText";
inline constexpr char kBase64Binary[] =
    "http://docs.oasis-open.org/wss/2004/01/"
    "oasis-200401-wss-soap-message-security-1.0#Base64Binary";
inline constexpr char kSpnegoValueType[] = "http://schemas.xmlsoap.org/ws/2005/02/trust/spnego";
inline constexpr char kX509v3[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-x509-token-profile-1.0#X509v3";
inline constexpr char kSamlV2TokenType[] =
    "http://docs.oasis-open.org/wss/oasis-wss-saml-tokenprofile-1.1#SAMLV2.0";
inline constexpr char kSamlIdValueType[] =
    "http://docs.oasis-open.org/wss/oasis-wss-saml-token-profile-1.1#SAMLID";
inline constexpr char kExcC14n[] = "http://www.w3.org/2001/10/xml-exc-c14n#";
inline constexpr char kRsaSha256[] = "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256";
inline constexpr char kSha256[] = "http://www.w3.org/2001/04/xmlenc#sha256";

inline constexpr char kProofSignatureId[] = "holderOfKeyProofSignature";
inline constexpr char kCertificateTokenId[] = "holderOfKeyCertificate";

inline constexpr char kIssueAction[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Issue";
inline constexpr char kContinueAction[] =
    "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RSTR/Issue";
inline constexpr char kRenewAction[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Renew";
inline constexpr char kValidateAction[] =
    "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Validate";

}  // namespace WsTrust
}  // namespace SsoClient
