#pragma once

// Reading a token without trusting it: what `ssotool inspect` prints.
//
//   std::cout << Ssotool::Inspect(tokenText, /*json=*/false);

#include <string>

namespace Ssotool {

// Describes token text, a SAML assertion when it starts with '<' and a compact JWT otherwise,
// without checking its signature or its validity window: description, issuer, subject,
// audience, validity and time left, confirmation, delegation chain and signature algorithm, as
// aligned lines or (json) as an indented JSON object. Returns the text, ending with a newline.
// Throws Basalt::Xml::XMLParseException or SsoClient::InvalidTokenException (and its
// subclasses) for a SAML text that is no acceptable assertion, SsoClient::ParseException for
// a text that is no JWT either.
std::string Inspect(const std::string& token, bool json);

}  // namespace Ssotool
