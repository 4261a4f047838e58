#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/DateTime.h>
#include <basalt/Object.h>
#include <basalt/XmlSecurity.h>
#include <ssoClient/Types.h>

#include "TestData.h"

namespace TestSupport {

// An attribute (name and values) and an advice (source and attributes), as requests carry them.
using SamlAttribute = SsoClient::AdviceAttribute;

// A delegation-chain link: the delegate's UPN and when, in seconds relative to now.
struct SamlDelegate {
    std::string upn;
    int64_t instantOffsetSec = -120;
};

// A clock that reads what the test sets it to: microseconds since the epoch, or an instant.
struct ManualClock final : Basalt::System::Clock {
    explicit ManualClock(long start = 0) : micros(start) {}
    explicit ManualClock(const std::string& instant)
        : micros(Basalt::System::DateTime(instant).GetUtcTime()) {}
    Basalt::System::DateTime Now() const override {
        return Basalt::System::DateTimeFromUtc(micros.load(), false);
    }
    std::atomic<long> micros;
};

// What a generated assertion says. Times are seconds relative to the clock's present, so tests
// never depend on the wall clock having moved.
struct AssertionSpec {
    std::string id;  // empty: a fresh "_" + UUID
    std::string version = "2.0";
    std::string subjectUpn = "alice@example.test";
    bool holderOfKey = false;  // bound to tests/data certs/user-ec.pem
    int64_t notBeforeOffsetSec = -60;
    int64_t notOnOrAfterOffsetSec = 3600;
    // A DelegationRestriction when not empty; the SubjectConfirmation names the last delegate.
    std::vector<SamlDelegate> delegates;
    std::vector<std::string> audiences;  // an AudienceRestriction when not empty
    // ProxyRestriction / RenewRestriction: absent when nullopt; "" writes one without Count.
    std::optional<std::string> proxyCount;
    std::optional<std::string> renewCount;
    std::vector<SsoClient::Advice> advice;  // an Advice element when not empty
    std::vector<SamlAttribute> attributes;  // an AttributeStatement when not empty
    // Fragments replaced (first occurrence, in order) in the text before it is signed.
    std::vector<std::pair<std::string, std::string>> edits;
    const Basalt::System::Clock* clock = nullptr;  // the present; null: the system clock
};

// Trusted-certificate resolvers over the STS certificate of tests/data/certs, and an unrelated one.
inline Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> StsResolver() {
    return TestData::TrustOnly({"certs/sts-rsa.pem"});
}
inline Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> OtherResolver() {
    return TestData::TrustOnly({"certs/other-rsa.pem"});
}

// The unsigned assertion text. With a signature template, an empty ds:Signature for an external
// signer (RSA-SHA256, exclusive c14n, reference "#ID") follows the Issuer.
std::string BuildAssertionXml(const AssertionSpec& spec, bool withSignatureTemplate = false);

// Signs assertion text with the STS key: an enveloped RSA-SHA256 signature over referenceUri
// (default "#" + ID) right after the Issuer, the certificate in its KeyInfo.
std::string SignAssertion(const std::string& unsignedXml,
                          const std::optional<std::string>& referenceUri = std::nullopt);

// BuildAssertionXml + SignAssertion.
std::string MakeSignedAssertion(const AssertionSpec& spec);

using TestData::ReplaceOnce;
using TestData::RunCommand;

}  // namespace TestSupport
