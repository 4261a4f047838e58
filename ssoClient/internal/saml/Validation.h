#pragma once

#include <basalt/DateTime.h>
#include <basalt/Xml.h>
#include <basalt/XmlSecurity.h>

#include "internal/saml/ParsedAssertion.h"

namespace SsoClient {
namespace Saml {

// Throws ParseException unless one of the signature's references is "" (the whole document) or
// "#" + id, the assertion's ID attribute.
void CheckSignatureCoverage(const std::string& id,
                            const Basalt::Xml::Security::Signature& signature);

// Version, ID, validity window (widened by clockToleranceSec on both sides), bearer subject
// validity and delegation consistency, with "now" read once from clock. Throws ParseException.
void ValidateAssertion(const ParsedAssertion& parsed, long clockToleranceSec,
                       const Basalt::System::Clock& clock);

// Verifies the signature with the caller's resolver. Throws InvalidSignatureException when it does
// not verify or verification cannot be carried out.
void VerifySignature(const Basalt::Xml::Security::Signature& signature,
                     const Basalt::Xml::Security::KeyInfoResolver* resolver);

// Microseconds of a tolerance in seconds, saturated instead of overflowing.
int64_t ToleranceMicros(long clockToleranceSec);
// a + b, saturated at the int64 range.
int64_t SaturatingAdd(int64_t a, int64_t b);

}  // namespace Saml
}  // namespace SsoClient
