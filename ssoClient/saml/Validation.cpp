#include "internal/saml/Validation.h"

#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <basalt/Exception.h>

#include <ssoClient/Exceptions.h>

namespace SsoClient {
namespace Saml {

int64_t SaturatingAdd(int64_t a, int64_t b) {
    int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    }
    return sum;
}

int64_t ToleranceMicros(long clockToleranceSec) {
    int64_t micros = 0;
    if (__builtin_mul_overflow(static_cast<int64_t>(clockToleranceSec), int64_t{1000000},
                               &micros)) {
        // Saturate symmetrically so that the tolerance can always be negated.
        return clockToleranceSec > 0 ? std::numeric_limits<int64_t>::max()
                                     : -std::numeric_limits<int64_t>::max();
    }
    return micros;
}

void CheckSignatureCoverage(const std::string& id,
                            const Basalt::Xml::Security::Signature& signature) {
    std::vector<Basalt::Xml::Security::SignatureReference> references;
    signature.GetReferences(references);
    for (const auto& reference : references) {
        const std::string_view uri = reference.uri;
        if (uri.empty() || (uri.size() == id.size() + 1 && uri[0] == '#' && uri.substr(1) == id)) {
            return;
        }
    }
    throw ParseException("Token's signature must cover the entire token");
}

namespace {

void ValidateDelegation(const ParsedAssertion& parsed) {
    const auto& delegateId = parsed.subject.delegateId;
    const auto& restriction = parsed.conditions.delegationRestriction;
    if (!delegateId && !restriction) {
        return;
    }
    if (!delegateId) {
        throw ParseException(
            "Token has delegation restriction, but no delegate id is present in the "
            "SubjectConfirmation");
    }
    if (!restriction) {
        throw ParseException(
            "Token SubjectConfirmation contains delegate id, but no delegation restriction is "
            "present");
    }
    // An empty restriction has no last delegate, so nothing can match the delegate id.
    if (restriction->empty() || restriction->back().nameId.format != delegateId->format ||
        restriction->back().nameId.value != delegateId->value) {
        throw ParseException(
            "The SubjectConfirmation delegate id does not match the id of the last delegate");
    }
}

}  // namespace

void ValidateAssertion(const ParsedAssertion& parsed, long clockToleranceSec,
                       const Basalt::System::Clock& clock) {
    if (parsed.version != "2.0") {
        throw ParseException("Invalid token version");
    }
    // Identifiers must start with an underscore; this also rules out IDs beginning with a
    // letter or digit.
    if (parsed.id.empty() || parsed.id[0] != '_') {
        throw ParseException("Invalid token ID");
    }
    const auto& conditions = parsed.conditions;
    const int64_t notBefore = conditions.notBefore.GetUtcTime();
    const int64_t notOnOrAfter = conditions.notOnOrAfter.GetUtcTime();
    if (notBefore >= notOnOrAfter) {
        throw ParseException(
            "Unsatisfiable token validity conditions: NotBefore must be less than "
            "NotOnOrAfter.");
    }
    const int64_t now = clock.Now().GetUtcTime();
    const int64_t tolerance = ToleranceMicros(clockToleranceSec);
    if (SaturatingAdd(notBefore, -tolerance) > now) {
        throw ParseException("Token start date is in the future: " +
                             conditions.notBefore.ToString());
    }
    if (SaturatingAdd(notOnOrAfter, tolerance) <= now) {
        throw ParseException("The token has expired at: " + conditions.notOnOrAfter.ToString());
    }
    // Bearer tokens may not be confirmed for longer than they are valid. No tolerance here.
    if (parsed.subject.confirmationType == Saml_Bearer &&
        parsed.subject.confirmationNotOnOrAfter < conditions.notOnOrAfter) {
        throw ParseException("Invalid token subject validity");
    }
    ValidateDelegation(parsed);
}

void VerifySignature(const Basalt::Xml::Security::Signature& signature,
                     const Basalt::Xml::Security::KeyInfoResolver* resolver) {
    bool verified = false;
    try {
        verified = signature.Verify(resolver);
    } catch (const Basalt::Xml::Security::XmlSecurityException& e) {
        throw InvalidSignatureException(std::string("Signature verification error. ") + e.what());
    }
    if (!verified) {
        throw InvalidSignatureException(
            "Failed to verify signature: token might have been tampered with.");
    }
}

}  // namespace Saml
}  // namespace SsoClient
