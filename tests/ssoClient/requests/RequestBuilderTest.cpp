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
using List = std::vector<std::string>;

const std::string kTrust = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/";

TokenSpec Spec(int64_t lifetime = 600, ConfirmationType confirmation = CONFIRMATION_DEFAULT) {
    TokenSpec spec;
    spec.tokenLifetimeSec = lifetime;
    spec.confirmation = confirmation;
    return spec;
}

RequestBuilderImpl Builder(bool holderOfKey) {
    return RequestBuilderImpl(holderOfKey ? boost::make_optional(TestSupport::LoadHolderOfKey())
                                          : boost::none);
}

TEST(RequestBuilderTest, ChecksRunFirstAndInOrder) {
    using TestSupport::Throws;
    using Invalid = Basalt::InvalidArgumentException;
    const std::string lifetime = "Token lifetime must be positive";
    const std::string noConfig = "No HolderOfKeyConfig provided. Unable to ";
    const TextToken hok = DataToken(), bearer = DataToken(Saml_Bearer);
    const auto five = static_cast<ConfirmationType>(5);
    const RequestBuilderImpl with = Builder(true), without = Builder(false);
    const auto state = [&](auto call, const std::string& operation) {
        return Throws<Basalt::InvalidStateException>(call, noConfig + operation);
    };
    EXPECT_TRUE(
        Throws<Invalid>([&] { with.BuildAcquireTokenRequest("u", "p", Spec(0)); }, lifetime));
    EXPECT_TRUE(
        Throws<Invalid>([&] { with.BuildAcquireTokenByGSSRequest({1}, Spec(-1)); }, lifetime));
    EXPECT_TRUE(
        Throws<Invalid>([&] { without.BuildAcquireTokenByCertificateRequest(Spec(0)); }, lifetime));
    EXPECT_TRUE(state([&] { without.BuildAcquireTokenByCertificateRequest(Spec(600, five)); },
                      "acquire token by certificate"));
    EXPECT_TRUE(Throws<Invalid>(
        [&] { with.BuildAcquireTokenByCertificateRequest(Spec(600, CONFIRMATION_BEARER)); },
        "TokenSpec::confirmation must be CONFIRMATION_DEFAULT for acquire token by certificate"));
    EXPECT_TRUE(
        Throws<Invalid>([&] { without.BuildAcquireTokenByTokenRequest(hok, Spec(0)); }, lifetime));
    EXPECT_TRUE(state([&] { without.BuildAcquireTokenByTokenRequest(hok, Spec()); },
                      "acquire token by token"));
    EXPECT_TRUE(Throws<Invalid>([&] { with.BuildRenewTokenRequest(hok, 0); }, lifetime));
    EXPECT_TRUE(state([&] { without.BuildRenewTokenRequest(bearer, 60); }, "renew token"));
    EXPECT_TRUE(Throws<Invalid>([&] { with.BuildRenewTokenRequest(bearer, 60); },
                                "Unable to renew token: the provided token must be Holder Of Key"));
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
        const Ref<ElementNode> body = Children(*Path(*envelope, {"Body"}))[0];
        const Ref<ElementNode> security = Path(*envelope, {"Header", "Security"});
        EXPECT_EQ(request.soapAction, kTrust + "RST/Issue");
        EXPECT_EQ(Value(*body, {"KeyType"}), kTrust + keyType);
        EXPECT_EQ(Names(*body).back() == "wst:UseKey", proves);
        EXPECT_EQ(Names(*security).back() == "ds:Signature", proves);
        EXPECT_EQ(Value(*security, {"UsernameToken", "Username"}) +
                      Value(*security, {"UsernameToken", "Password"}),
                  "als3&<");
        EXPECT_EQ(Value(*security, {"UsernameToken", "Password", "@Type"}),
                  "http://docs.oasis-open.org/wss/2004/01/"
                  "oasis-200401-wss-username-token-profile-1.0#PasswordText");
    }
}

TEST(RequestBuilderTest, EachOperationHasItsActionAndShape) {
    const RequestBuilderImpl builder = Builder(true);
    const TextToken token = DataToken();
    const List timestamp{"wsu:Timestamp"};
    const List certificate{"wsu:Timestamp", "wsse:BinarySecurityToken", "ds:Signature"};
    const std::string rst = "wst:RequestSecurityToken";
    const std::tuple<SoapRequest, std::string, std::string, List> cases[] = {
        {builder.BuildAcquireTokenByGSSRequest({1, 2}, Spec()), "RST/Issue", rst, certificate},
        {builder.BuildContinueNegotiationRequest("ctx", {3}), "RSTR/Issue",
         "wst:RequestSecurityTokenResponse", timestamp},
        {builder.BuildAcquireTokenByCertificateRequest(Spec()), "RST/Issue", rst, certificate},
        {builder.BuildAcquireTokenByTokenRequest(token, Spec()),
         "RST/Issue",
         rst,
         {"wsu:Timestamp", "saml2:Assertion", "ds:Signature"}},
        {builder.BuildValidateTokenRequest(token), "RST/Validate", rst, timestamp},
        {builder.BuildRenewTokenRequest(token, 60), "RST/Renew", rst, certificate},
    };
    for (const auto& [request, action, bodyName, security] : cases) {
        const Ref<ElementNode> envelope = Parse(request.envelope);
        EXPECT_EQ(request.soapAction, kTrust + action);
        EXPECT_EQ(envelope->GetQualifiedName(), "soapenv:Envelope");
        EXPECT_EQ(Names(*envelope), (List{"soapenv:Header", "soapenv:Body"}));
        EXPECT_EQ(Names(*Path(*envelope, {"Body"})), List{bodyName}) << action;
        EXPECT_EQ(Names(*Path(*envelope, {"Header", "Security"})), security) << action;
        EXPECT_EQ(Span(*envelope, {"Header", "Security", "Timestamp"}), 600) << action;
    }
    // By token: no UseKey, and the token named by its ID in the key info.
    const Ref<ElementNode> byToken = Parse(std::get<0>(cases[3]).envelope);
    EXPECT_NE(Names(*Path(*byToken, {"Body", "RequestSecurityToken"})).back(), "wst:UseKey");
    const Ref<ElementNode> reference =
        Path(*byToken, {"Header", "Security", "Signature", "KeyInfo", "SecurityTokenReference"});
    EXPECT_EQ(Value(*reference, {"KeyIdentifier"}), token.GetId());
    std::string tokenType;
    EXPECT_TRUE(reference->GetAttributeNS(
        "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.1.xsd",
        "TokenType", tokenType));
    EXPECT_EQ(tokenType, "http://docs.oasis-open.org/wss/oasis-wss-saml-tokenprofile-1.1#SAMLV2.0");
}

TEST(RequestBuilderTest, SignatureReferencesTheBodyThenTheTimestamp) {
    const auto envelope =
        Parse(Builder(true).BuildAcquireTokenByCertificateRequest(Spec()).envelope);
    const auto signature = Path(*envelope, {"Header", "Security", "Signature"});
    EXPECT_EQ(Value(*signature, {"@Id"}), "holderOfKeyProofSignature");
    List uris;
    for (const auto& reference : Children(*Path(*signature, {"SignedInfo"}))) {
        if (reference->GetLocalName() == "Reference") {
            uris.push_back(Value(*reference, {"@URI"}));
        }
    }
    EXPECT_EQ(uris, (List{"#" + Value(*envelope, {"Body", "@wsu:Id"}),
                          "#" + Value(*envelope, {"Header", "Security", "Timestamp", "@wsu:Id"})}));
    EXPECT_EQ(Value(*signature, {"KeyInfo", "SecurityTokenReference", "Reference", "@URI"}),
              "#holderOfKeyCertificate");
}

}  // namespace
