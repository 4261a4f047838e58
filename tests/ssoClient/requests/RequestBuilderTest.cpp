// The request builder: its checks in their order, and the envelope of each operation.
#include <basalt/Exception.h>
#include <gtest/gtest.h>

#include "RequestTestSupport.h"
#include "internal/requests/RequestBuilder.h"
#include "support/ExpectThrow.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace RequestTest;
using Basalt::Ref;
using Basalt::Xml::ElementNode;

const std::string kTrust = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/";

TokenSpec Spec(int64_t lifetime = 600, ConfirmationType confirmation = CONFIRMATION_DEFAULT) {
    TokenSpec spec;
    spec.tokenLifetimeSec = lifetime;
    spec.confirmation = confirmation;
    return spec;
}

bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

RequestBuilderImpl Builder(bool holderOfKey) {
    return RequestBuilderImpl(holderOfKey ? boost::make_optional(TestSupport::LoadHolderOfKey())
                                          : boost::none);
}

TEST(RequestBuilderTest, ChecksRunFirstAndInOrder) {
    using TestSupport::Throws;
    const std::string lifetime = "Token lifetime must be positive";
    const std::string noConfig = "No HolderOfKeyConfig provided. Unable to ";
    const TextToken hok = DataToken(), bearer = DataToken(Saml_Bearer);
    const auto five = static_cast<ConfirmationType>(5);
    const RequestBuilderImpl with = Builder(true), without = Builder(false);
    // The call, whether it is refused for want of a key (else for its argument), the message.
    const std::tuple<std::function<void()>, bool, std::string> checks[] = {
        {[&] { with.BuildAcquireTokenRequest("u", "p", Spec(0)); }, false, lifetime},
        {[&] { with.BuildAcquireTokenByGSSRequest({1}, Spec(-1)); }, false, lifetime},
        {[&] { without.BuildAcquireTokenByCertificateRequest(Spec(0)); }, false, lifetime},
        {[&] { without.BuildAcquireTokenByCertificateRequest(Spec(600, five)); }, true,
         noConfig + "acquire token by certificate"},
        {[&] { with.BuildAcquireTokenByCertificateRequest(Spec(600, CONFIRMATION_BEARER)); }, false,
         "TokenSpec::confirmation must be CONFIRMATION_DEFAULT for acquire token by certificate"},
        {[&] { without.BuildAcquireTokenByTokenRequest(hok, Spec(0)); }, false, lifetime},
        {[&] { without.BuildAcquireTokenByTokenRequest(hok, Spec()); }, true,
         noConfig + "acquire token by token"},
        {[&] { with.BuildRenewTokenRequest(hok, 0); }, false, lifetime},
        {[&] { without.BuildRenewTokenRequest(bearer, 60); }, true, noConfig + "renew token"},
        {[&] { with.BuildRenewTokenRequest(bearer, 60); }, false,
         "Unable to renew token: the provided token must be Holder Of Key"},
    };
    for (const auto& [call, state, message] : checks) {
        EXPECT_TRUE(state ? Throws<Basalt::InvalidStateException>(call, message)
                          : Throws<Basalt::InvalidArgumentException>(call, message));
    }
}

TEST(RequestBuilderTest, PasswordRequestAsksForHolderOfKeyOnlyWhenItCanProveTheKey) {
    // Configured key, delegate, confirmation; then key type, UseKey, signed.
    const std::tuple<bool, bool, ConfirmationType, const char*, bool> cases[] = {
        {false, false, CONFIRMATION_DEFAULT, "Bearer", false},
        {true, false, CONFIRMATION_DEFAULT, "PublicKey", true},
        {true, true, CONFIRMATION_DEFAULT, "PublicKey", false},
        {true, false, CONFIRMATION_BEARER, "Bearer", false},
        {true, false, static_cast<ConfirmationType>(5), "Bearer", false},
    };
    for (const auto& [config, delegate, confirmation, keyType, proves] : cases) {
        TokenSpec spec = Spec(600, confirmation);
        if (delegate) {
            spec.delegateTo = std::string("delegate");
        }
        const SoapRequest request = Builder(config).BuildAcquireTokenRequest("al", "s3&<", spec);
        const Ref<ElementNode> envelope = Parse(request.envelope);
        const Ref<ElementNode> body = Children(*Path(*envelope, "Body"))[0];
        const Ref<ElementNode> security = Path(*envelope, "Header/Security");
        EXPECT_EQ(request.soapAction, kTrust + "RST/Issue");
        EXPECT_EQ(Value(*body, "KeyType"), kTrust + keyType);
        EXPECT_EQ(EndsWith(Names(*body), "wst:UseKey"), proves);
        EXPECT_EQ(EndsWith(Names(*security), "ds:Signature"), proves);
        EXPECT_EQ(
            Value(*security, "UsernameToken/Username") + Value(*security, "UsernameToken/Password"),
            "als3&<");
        EXPECT_EQ(Value(*security, "UsernameToken/Password/@Type"),
                  "http://docs.oasis-open.org/wss/2004/01/"
                  "oasis-200401-wss-username-token-profile-1.0#PasswordText");
    }
}

TEST(RequestBuilderTest, EachOperationHasItsActionAndShape) {
    const RequestBuilderImpl builder = Builder(true);
    const TextToken token = DataToken();
    const std::string rst = "wst:RequestSecurityToken", stamp = "wsu:Timestamp",
                      certified = "wsu:Timestamp wsse:BinarySecurityToken ds:Signature";
    const std::tuple<SoapRequest, std::string, std::string, std::string> cases[] = {
        {builder.BuildAcquireTokenByGSSRequest({1, 2}, Spec()), "RST/Issue", rst, certified},
        {builder.BuildContinueNegotiationRequest("ctx", {3}), "RSTR/Issue",
         "wst:RequestSecurityTokenResponse", stamp},
        {builder.BuildAcquireTokenByCertificateRequest(Spec()), "RST/Issue", rst, certified},
        {builder.BuildAcquireTokenByTokenRequest(token, Spec()), "RST/Issue", rst,
         "wsu:Timestamp saml2:Assertion ds:Signature"},
        {builder.BuildValidateTokenRequest(token), "RST/Validate", rst, stamp},
        {builder.BuildRenewTokenRequest(token, 60), "RST/Renew", rst, certified},
    };
    for (const auto& [request, action, bodyName, security] : cases) {
        const Ref<ElementNode> envelope = Parse(request.envelope);
        EXPECT_EQ(request.soapAction, kTrust + action);
        EXPECT_EQ(envelope->GetQualifiedName() + " " + Names(*envelope),
                  "soapenv:Envelope soapenv:Header soapenv:Body");
        EXPECT_EQ(Names(*Path(*envelope, "Body")), bodyName) << action;
        EXPECT_EQ(Names(*Path(*envelope, "Header/Security")), security) << action;
        EXPECT_EQ(Span(*envelope, "Header/Security/Timestamp"), 600) << action;
    }
    // By token: no UseKey, and the token named by its ID in the key info.
    const Ref<ElementNode> byToken = Parse(std::get<0>(cases[3]).envelope);
    EXPECT_FALSE(EndsWith(Names(*Path(*byToken, "Body/RequestSecurityToken")), "wst:UseKey"));
    const Ref<ElementNode> reference =
        Path(*byToken, "Header/Security/Signature/KeyInfo/SecurityTokenReference");
    EXPECT_EQ(Value(*reference, "KeyIdentifier"), token.GetId());
    std::string tokenType;
    EXPECT_TRUE(reference->GetAttributeNS(
        "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.1.xsd",
        "TokenType", tokenType));
    EXPECT_EQ(tokenType, "http://docs.oasis-open.org/wss/oasis-wss-saml-tokenprofile-1.1#SAMLV2.0");
}

// What the signature covers is proven by the interop test; the server finds the key by these names.
TEST(RequestBuilderTest, SignatureNamesItselfAndTheCertificate) {
    const auto envelope =
        Parse(Builder(true).BuildAcquireTokenByCertificateRequest(Spec()).envelope);
    const auto signature = Path(*envelope, "Header/Security/Signature");
    EXPECT_EQ(Value(*signature, "@Id") + " " +
                  Value(*signature, "KeyInfo/SecurityTokenReference/Reference/@URI"),
              "holderOfKeyProofSignature #holderOfKeyCertificate");
}

}  // namespace
