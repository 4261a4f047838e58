#pragma once

#include <string>

#include <ssoClient/Export.h>
#include <ssoClient/SamlToken.h>

namespace SsoClient {

// One line describing a token for logs: "SamlToken [subject=..., groups=[...], ...]". Works for
// every token object (SAML and JWT). Throws only on allocation failure.
SSOCLIENT_API std::string CreateSamlTokenDescription(const SamlToken& token);

}  // namespace SsoClient
