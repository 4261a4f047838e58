#pragma once

#include <basalt/Xml.h>

#include "internal/saml/ParsedAssertion.h"

namespace SsoClient {
namespace Saml {

// Walks assertion strictly into parsed: every element in its place and namespace, only the
// allowed attributes, nothing unexpected. Builds the signature object and checks that it covers
// the assertion, but neither verifies it nor looks at the clock. Throws ParseException; foundation
// failures of certificate creation and Base64 decoding pass through.
void WalkAssertion(const Basalt::Ref<Basalt::Xml::ElementNode>& assertion, ParsedAssertion& parsed);

// The signature object of an assertion the walk has accepted before (the ds:Signature after its
// Issuer), for a token that rebuilds it from its text. Throws ParseException as the walk does.
void ReadAssertionSignature(const Basalt::Ref<Basalt::Xml::ElementNode>& assertion,
                            Basalt::Ref<Basalt::Xml::Security::Signature>& signature);

}  // namespace Saml
}  // namespace SsoClient
