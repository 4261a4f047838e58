#include <basalt/Crypto.h>
#include <basalt/Exception.h>
#include <basalt/XmlSecurity.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>

#include "RequestTestSupport.h"
#include "TestData.h"
#include "internal/requests/RequestBuilder.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace RequestTest;
using Basalt::Ref;
using Basalt::Xml::ElementNode;

constexpr char kWsuNs[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";
constexpr char kIssue[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Issue";

TokenSpec Spec(int64_t lifetime = 600) {
    TokenSpec spec;
    spec.tokenLifetimeSec = lifetime;
    return spec;
}

TextToken HolderOfKeyToken() {
    return TextToken(TestData::Read("requests/assertion.xml"),
                     "_4c5a2d8e-0f1b-4a77-9c1e-5d7f00b1c0de", Saml_HOK);
}

// The element names under wsse:Security, and whether a signature is among them.
std::vector<std::string> SecurityHeader(const SoapRequest& request) {
    return ChildNames(*Path(*Parse(request.envelope), {"Header", "Security"}));
}

bool IsSigned(const SoapRequest& request) {
    std::vector<std::string> names = SecurityHeader(request);
    return std::find(names.begin(), names.end(), "ds:Signature") != names.end();
}

Ref<ElementNode> BodyContent(const SoapRequest& request) {
    return ChildElements(*Child(*Parse(request.envelope), "Body"))[0];
}

std::string KeyType(const SoapRequest& request) {
    return Child(*BodyContent(request), "KeyType")->GetTextContent();
}

struct CheckCase {
    const char* what;
    std::function<SoapRequest(const RequestBuilder&)> call;
    bool withHolderOfKey;
    const std::type_info& exception;
    std::string message;
};

TEST(RequestBuilderTest, ChecksRunFirstAndInOrder) {
    const std::string noConfig = "No HolderOfKeyConfig provided. Unable to ";
    TokenSpec bearer = Spec();
    bearer.confirmation = CONFIRMATION_BEARER;
    TokenSpec five = Spec();
    five.confirmation = static_cast<ConfirmationType>(5);
    TextToken hok = HolderOfKeyToken();
    TextToken bearerToken(hok.GetXml(), hok.GetId(), Saml_Bearer);
    const CheckCase cases[] = {
        {"password, zero lifetime",
         [&](auto& b) { return b.BuildAcquireTokenRequest("u", "p", Spec(0)); }, true,
         typeid(Basalt::InvalidArgumentException), "Token lifetime must be positive"},
        {"gss, negative lifetime",
         [&](auto& b) { return b.BuildAcquireTokenByGSSRequest({1}, Spec(-1)); }, true,
         typeid(Basalt::InvalidArgumentException), "Token lifetime must be positive"},
        {"certificate, lifetime before config",
         [&](auto& b) { return b.BuildAcquireTokenByCertificateRequest(Spec(0)); }, false,
         typeid(Basalt::InvalidArgumentException), "Token lifetime must be positive"},
        {"certificate, no config",
         [&](auto& b) { return b.BuildAcquireTokenByCertificateRequest(Spec()); }, false,
         typeid(Basalt::InvalidStateException), noConfig + "acquire token by certificate"},
        {"certificate, config before confirmation",
         [&](auto& b) { return b.BuildAcquireTokenByCertificateRequest(bearer); }, false,
         typeid(Basalt::InvalidStateException), noConfig + "acquire token by certificate"},
        {"certificate, bearer confirmation",
         [&](auto& b) { return b.BuildAcquireTokenByCertificateRequest(five); }, true,
         typeid(Basalt::InvalidArgumentException),
         "TokenSpec::confirmation must be CONFIRMATION_DEFAULT for acquire token by certificate"},
        {"token, zero lifetime",
         [&](auto& b) { return b.BuildAcquireTokenByTokenRequest(hok, Spec(0)); }, false,
         typeid(Basalt::InvalidArgumentException), "Token lifetime must be positive"},
        {"token, no config",
         [&](auto& b) { return b.BuildAcquireTokenByTokenRequest(hok, Spec()); }, false,
         typeid(Basalt::InvalidStateException), noConfig + "acquire token by token"},
        {"renew, zero lifetime", [&](auto& b) { return b.BuildRenewTokenRequest(hok, 0); }, true,
         typeid(Basalt::InvalidArgumentException), "Token lifetime must be positive"},
        {"renew, no config", [&](auto& b) { return b.BuildRenewTokenRequest(bearerToken, 60); },
         false, typeid(Basalt::InvalidStateException), noConfig + "renew token"},
        {"renew, bearer token", [&](auto& b) { return b.BuildRenewTokenRequest(bearerToken, 60); },
         true, typeid(Basalt::InvalidArgumentException),
         "Unable to renew token: the provided token must be Holder Of Key"},
    };
    for (const CheckCase& c : cases) {
        RequestBuilderImpl builder(
            c.withHolderOfKey ? boost::make_optional(TestSupport::LoadHolderOfKey()) : boost::none);
        try {
            c.call(builder);
            ADD_FAILURE() << c.what << ": no exception";
        } catch (const Basalt::Exception& e) {
            EXPECT_EQ(typeid(e), c.exception) << c.what;
            EXPECT_EQ(e.what(), c.message) << c.what;
        }
    }
}

TEST(RequestBuilderTest, PasswordRequestFollowsTheHolderOfKeyAndSigningRules) {
    struct Case {
        const char* what;
        bool config;
        bool delegate;
        ConfirmationType confirmation;
        const char* keyType;
        bool useKey;
        bool signedRequest;
    };
    const char* bearer = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Bearer";
    const char* publicKey = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/PublicKey";
    const Case cases[] = {
        {"no config", false, false, CONFIRMATION_DEFAULT, bearer, false, false},
        {"config", true, false, CONFIRMATION_DEFAULT, publicKey, true, true},
        {"config, delegate", true, true, CONFIRMATION_DEFAULT, publicKey, false, false},
        {"config, bearer asked", true, false, CONFIRMATION_BEARER, bearer, false, false},
        {"config, any non-zero", true, false, static_cast<ConfirmationType>(5), bearer, false,
         false},
    };
    for (const Case& c : cases) {
        RequestBuilderImpl builder(c.config ? boost::make_optional(TestSupport::LoadHolderOfKey())
                                            : boost::none);
        TokenSpec spec = Spec();
        spec.confirmation = c.confirmation;
        if (c.delegate) {
            spec.delegateTo = std::string("delegate");
        }
        SoapRequest request = builder.BuildAcquireTokenRequest("alice", "s3cret&<", spec);
        EXPECT_EQ(request.soapAction, kIssue) << c.what;
        EXPECT_EQ(KeyType(request), c.keyType) << c.what;
        EXPECT_EQ(ChildNames(*BodyContent(request)).back() == "wst:UseKey", c.useKey) << c.what;
        EXPECT_EQ(IsSigned(request), c.signedRequest) << c.what;
        Ref<ElementNode> token =
            Path(*Parse(request.envelope), {"Header", "Security", "UsernameToken"});
        EXPECT_EQ(Child(*token, "Username")->GetTextContent(), "alice");
        EXPECT_EQ(Child(*token, "Password")->GetTextContent(), "s3cret&<");
        EXPECT_EQ(Attribute(*Child(*token, "Password"), "Type"),
                  "http://docs.oasis-open.org/wss/2004/01/"
                  "oasis-200401-wss-username-token-profile-1.0#PasswordText");
    }
}

TEST(RequestBuilderTest, EachOperationHasItsActionAndShape) {
    RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    TextToken token = HolderOfKeyToken();
    struct Case {
        const char* what;
        SoapRequest request;
        const char* action;
        const char* bodyName;
        std::vector<std::string> security;
    };
    const std::vector<std::string> timestampOnly{"wsu:Timestamp"};
    const std::vector<std::string> withCertificate{"wsu:Timestamp", "wsse:BinarySecurityToken",
                                                   "ds:Signature"};
    const Case cases[] = {
        {"gss first", builder.BuildAcquireTokenByGSSRequest({1, 2}, Spec()), kIssue,
         "wst:RequestSecurityToken", withCertificate},
        {"gss next", builder.BuildContinueNegotiationRequest("ctx", {3}),
         "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RSTR/Issue",
         "wst:RequestSecurityTokenResponse", timestampOnly},
        {"certificate", builder.BuildAcquireTokenByCertificateRequest(Spec()), kIssue,
         "wst:RequestSecurityToken", withCertificate},
        {"token",
         builder.BuildAcquireTokenByTokenRequest(token, Spec()),
         kIssue,
         "wst:RequestSecurityToken",
         {"wsu:Timestamp", "saml2:Assertion", "ds:Signature"}},
        {"validate", builder.BuildValidateTokenRequest(token),
         "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Validate",
         "wst:RequestSecurityToken", timestampOnly},
        {"renew", builder.BuildRenewTokenRequest(token, 60),
         "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RST/Renew", "wst:RequestSecurityToken",
         withCertificate},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.request.soapAction, c.action) << c.what;
        Ref<ElementNode> envelope = Parse(c.request.envelope);
        EXPECT_EQ(envelope->GetQualifiedName(), "soapenv:Envelope");
        EXPECT_EQ(ChildNames(*envelope),
                  (std::vector<std::string>{"soapenv:Header", "soapenv:Body"}));
        EXPECT_EQ(BodyContent(c.request)->GetQualifiedName(), c.bodyName) << c.what;
        EXPECT_EQ(SecurityHeader(c.request), c.security) << c.what;
        Ref<ElementNode> timestamp = Path(*envelope, {"Header", "Security", "Timestamp"});
        int64_t created =
            Basalt::System::DateTime(Child(*timestamp, "Created")->GetTextContent()).GetUtcTime();
        int64_t expires =
            Basalt::System::DateTime(Child(*timestamp, "Expires")->GetTextContent()).GetUtcTime();
        EXPECT_EQ(expires - created, int64_t{600} * 1000000) << c.what;
    }
    // By token: holder-of-key body without UseKey, the token named by its ID in the key info.
    const Case& byToken = cases[3];
    EXPECT_NE(ChildNames(*BodyContent(byToken.request)).back(), "wst:UseKey");
    Ref<ElementNode> reference =
        Path(*Parse(byToken.request.envelope),
             {"Header", "Security", "Signature", "KeyInfo", "SecurityTokenReference"});
    EXPECT_EQ(Child(*reference, "KeyIdentifier")->GetTextContent(), token.GetId());
    std::string tokenType;
    EXPECT_TRUE(reference->GetAttributeNS(
        "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.1.xsd",
        "TokenType", tokenType));
    EXPECT_EQ(tokenType, "http://docs.oasis-open.org/wss/oasis-wss-saml-tokenprofile-1.1#SAMLV2.0");
}

TEST(RequestBuilderTest, SignatureReferencesTheBodyThenTheTimestamp) {
    RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    SoapRequest request = builder.BuildAcquireTokenByCertificateRequest(Spec());
    Ref<ElementNode> envelope = Parse(request.envelope);
    Ref<ElementNode> signature = Path(*envelope, {"Header", "Security", "Signature"});
    EXPECT_EQ(Attribute(*signature, "Id"), "holderOfKeyProofSignature");
    std::vector<std::string> uris;
    for (const auto& reference : ChildElements(*Child(*signature, "SignedInfo"))) {
        if (reference->GetLocalName() == "Reference") {
            uris.push_back(Attribute(*reference, "URI"));
        }
    }
    std::string bodyId, timestampId;
    ASSERT_TRUE(Child(*envelope, "Body")->GetAttributeNS(kWsuNs, "Id", bodyId));
    ASSERT_TRUE(Path(*envelope, {"Header", "Security", "Timestamp"})
                    ->GetAttributeNS(kWsuNs, "Id", timestampId));
    EXPECT_EQ(uris, (std::vector<std::string>{"#" + bodyId, "#" + timestampId}));
    Ref<ElementNode> certificateReference =
        Path(*signature, {"KeyInfo", "SecurityTokenReference", "Reference"});
    EXPECT_EQ(Attribute(*certificateReference, "URI"), "#holderOfKeyCertificate");
}

}  // namespace

namespace {

using namespace SsoClient;
using namespace RequestTest;
using Basalt::Ref;
using Basalt::Xml::ElementNode;

// Verifies a signed envelope with the foundation's verifier: the signature must cover exactly
// the Body and the Timestamp, with a key from the trusted certificates only.
bool VerifyEnvelope(const std::string& envelopeText, const std::string& trustedPem) {
    Ref<ElementNode> envelope = Parse(envelopeText);
    Ref<ElementNode> body = Child(*envelope, "Body");
    Ref<ElementNode> timestamp = Path(*envelope, {"Header", "Security", "Timestamp"});
    Ref<ElementNode> signatureElement = Path(*envelope, {"Header", "Security", "Signature"});
    Ref<Basalt::Xml::Security::Signature> signature;
    Basalt::Xml::Security::CreateSignatureFromDom({body.Get(), timestamp.Get()},
                                                  signatureElement.Get(), signature);
    std::vector<Ref<Basalt::Crypto::Certificate>> trusted(1);
    Basalt::Crypto::CreateCertificateFromPem(TestData::Read(trustedPem), trusted[0]);
    Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver(trusted, resolver);
    return signature->Verify(resolver.Get());
}

TEST(SignedRequestVerificationTest, TheFoundationVerifiesWhatTheBuilderSigns) {
    RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    TokenSpec spec;
    spec.tokenLifetimeSec = 300;
    TextToken token(TestData::Read("requests/assertion.xml"),
                    "_4c5a2d8e-0f1b-4a77-9c1e-5d7f00b1c0de", Saml_HOK);
    const std::pair<const char*, SoapRequest> requests[] = {
        {"certificate", builder.BuildAcquireTokenByCertificateRequest(spec)},
        {"password", builder.BuildAcquireTokenRequest("alice", "pw", spec)},
        {"token", builder.BuildAcquireTokenByTokenRequest(token, spec)},
        {"renew", builder.BuildRenewTokenRequest(token, 120)},
    };
    for (const auto& [what, request] : requests) {
        EXPECT_TRUE(VerifyEnvelope(request.envelope, "certs/sts-rsa.pem")) << what;
        EXPECT_FALSE(VerifyEnvelope(request.envelope, "certs/other-rsa.pem")) << what;
    }
    const std::string envelope = requests[0].second.envelope;
    const std::pair<std::string, std::string> edits[] = {
        {"http://docs.oasis-open.org/ws-sx/ws-trust/200512/PublicKey",
         "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Bearer"},  // in the Body
        {"<wsu:Expires>2", "<wsu:Expires>3"},                         // in the Timestamp
    };
    for (const auto& [from, to] : edits) {
        std::string tampered = envelope;
        tampered.replace(tampered.find(from), from.size(), to);
        EXPECT_FALSE(VerifyEnvelope(tampered, "certs/sts-rsa.pem")) << from;
    }
}

TEST(SignedRequestVerificationTest, ASignatureMustCoverEveryPartAndNothingElse) {
    RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    TokenSpec spec;
    spec.tokenLifetimeSec = 300;
    Ref<ElementNode> envelope = Parse(builder.BuildAcquireTokenByCertificateRequest(spec).envelope);
    Ref<ElementNode> body = Child(*envelope, "Body");
    Ref<ElementNode> header = Child(*envelope, "Header");
    Ref<ElementNode> token = Path(*envelope, {"Header", "Security", "BinarySecurityToken"});
    Ref<ElementNode> signatureElement = Path(*envelope, {"Header", "Security", "Signature"});
    std::vector<Ref<Basalt::Crypto::Certificate>> trusted(1);
    Basalt::Crypto::CreateCertificateFromPem(TestData::Read("certs/sts-rsa.pem"), trusted[0]);
    Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver(trusted, resolver);
    // The Timestamp is signed but not what the caller relies on here: a reference to an element
    // outside the expected set is refused, and so is an expected element left uncovered.
    for (const std::vector<ElementNode*>& expected :
         {std::vector<ElementNode*>{body.Get()}, std::vector<ElementNode*>{body.Get(), token.Get()},
          std::vector<ElementNode*>{body.Get(), header.Get()}}) {
        Ref<Basalt::Xml::Security::Signature> signature;
        Basalt::Xml::Security::CreateSignatureFromDom(expected, signatureElement.Get(), signature);
        EXPECT_THROW(signature->Verify(resolver.Get()),
                     Basalt::Xml::Security::XmlSecurityException);
    }
}

}  // namespace
