#pragma once

// The typical SAML token the benchmarks measure.

#include <cstdint>
#include <string>
#include <vector>

#include "TestData.h"
#include "internal/saml/SamlNames.h"
#include "support/SamlAssertionGenerator.h"

// A typical token: delegated twice, with audiences, restrictions, advice, a person name and ten
// groups; 5 to 7 KB of text signed with RSA-2048 (with the STS test key), bearer or
// holder-of-key.
inline std::string MakeTypicalToken(bool holderOfKey) {
    using namespace TestSupport;
    {
        AssertionSpec spec;
        spec.holderOfKey = holderOfKey;
        // The confirmation key of a typical holder-of-key token is an RSA certificate.
        spec.holderOfKeyCertificatePem = TestData::Read("certs/other-rsa.pem");
        spec.delegates = {{"svc-frontend@example.test", -600}, {"svc-backend@example.test", -300}};
        spec.audiences = {"https://api.example.test/", "urn:example:inventory"};
        spec.proxyCount = "3";
        spec.renewCount = "5";
        spec.advice = {{"urn:example:advice", {{"urn:example:tenant", {"acme"}}}}};
        std::vector<std::string> groups;
        for (int i = 0; i < 10; ++i) {
            groups.push_back("example.test\\Group-" + std::to_string(i));
        }
        spec.attributes = {{SsoClient::Saml::kGivenNameAttribute, {"Alice"}},
                           {SsoClient::Saml::kSurnameAttribute, {"Liddell"}},
                           {SsoClient::Saml::kGroupIdentityAttribute, groups},
                           {SsoClient::Saml::kIsSolutionAttribute, {"false"}},
                           {"http://schemas.xmlsoap.org/claims/UPN", {"alice@example.test"}}};
        spec.notOnOrAfterOffsetSec = 24 * 3600;  // outlives any benchmark run
        return MakeSignedAssertion(spec);
    }
}

inline const std::string& TypicalToken(int64_t holderOfKey = 0) {
    static const std::string tokens[] = {MakeTypicalToken(false), MakeTypicalToken(true)};
    return tokens[holderOfKey];
}
