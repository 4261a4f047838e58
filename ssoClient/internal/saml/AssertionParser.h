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

}  // namespace Saml
}  // namespace SsoClient
