// The WS-Trust bodies as the server sees them (built inside a SOAP Body, serialised, parsed again),
// then the request builder: its checks in their order, and the envelope of each operation.
#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>

#include <basalt/IO.h>

#include "RequestTestSupport.h"
#include "internal/requests/RequestBodies.h"
#include "internal/requests/RequestBuilder.h"
#include "internal/requests/SpnegoBodies.h"
#include "support/ExpectThrow.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace RequestTest;
using Basalt::Ref;
using Basalt::Xml::ElementNode;
using TestSupport::Spec;

const std::string kTrust = "http://docs.oasis-open.org/ws-sx/ws-trust/200512";

// The serialised Body around a body built inside it, as the envelope builds it.
std::string BodyText(const XMLBaseBuilder& builder) {
    Ref<ElementNode> body, element;
    Basalt::Xml::CreateElementNode("soapenv", "Body", body);
    body->SetAttribute("xmlns:soapenv", "http://schemas.xmlsoap.org/soap/envelope/");
    body->SetAttribute("xmlns:wst", kTrust);
    builder.Build(element);
    body->AppendChild(element);
    Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    body->Serialize(writer.Get());
    return writer->GetString();
}

Ref<ElementNode> InBody(const XMLBaseBuilder& builder) {
    return Children(*Parse(BodyText(builder)))[0];
}

TEST(RequestBodiesTest, EveryBodyKindHasItsElementsInOrderAndTheirValues) {
    const TextToken token = DataToken();
    TokenSpec delegated = Spec();
    delegated.delegateTo = std::string("bob@EXAMPLE.TEST");
    // Every flag set and a lifetime in microseconds beyond 32 bits.
    TokenSpec full = Spec(int64_t{10} * 365 * 86400);
    full.renewable = full.delegable = true;
    full.delegateTo = delegated.delegateTo;
    full.actAsToken = std::make_shared<const TextToken>(token);
    full.audienceRestriction = {"urn:b", "urn:a"};
    full.advice = {{"urn:source", {{"colour", {"red", "green"}}, {"empty", {}}}}};
    full.appliesTo = std::string("https://api.example.test/orders");
    const std::vector<unsigned char> leg{0x60, 0x82, 0x00, 0xff};
    const std::string rst = "wst:RequestSecurityToken ",
                      issue = rst +
                              "wst:TokenType wst:RequestType wst:KeyType wst:Lifetime "
                              "wst:Renewing wst:Delegatable";
    const std::pair<std::shared_ptr<const XMLBaseBuilder>, std::string> cases[] = {
        {BuildIssueRequest(true, Spec()), issue},
        {BuildIssueRequestWithUseKey(false, Spec()), issue},
        {BuildIssueRequestWithUseKey(true, Spec()), issue + " wst:UseKey"},
        // A delegated request does not prove the key.
        {BuildIssueRequestWithUseKey(true, delegated), issue + " wst:DelegateTo"},
        {BuildIssueRequestWithUseKey(false, delegated), issue + " wst:DelegateTo"},
        {BuildIssueRequest(false, full),
         rst + "wst:TokenType wst:RequestType wsp:AppliesTo wst:KeyType wst:Lifetime wst:Renewing "
               "wst:Delegatable wst:DelegateTo wst14:ActAs wst:Participants rsa-advice:AdviceSet"},
        {BuildRenewRequest(token, 3600),
         rst + "wst:TokenType wst:RequestType wst:Lifetime wst:RenewTarget"},
        {BuildValidateRequest(token), rst + "wst:TokenType wst:RequestType wst:ValidateTarget"},
        {std::make_shared<XMLBodyBuilderInitialSPNego>(true, Spec(), leg),
         issue + " wst:UseKey wst:BinaryExchange"},
        {std::make_shared<XMLBodyBuilderContinuedSPNego>("ctx", leg),
         "wst:RequestSecurityTokenResponse wst:BinaryExchange"},
    };
    for (const auto& [builder, names] : cases) {
        const Ref<ElementNode> body = InBody(*builder);
        EXPECT_EQ(body->GetNamespaceUri(), kTrust);
        EXPECT_EQ(body->GetQualifiedName() + " " + Names(*body), names);
    }

    // The values.
    const auto bearer = InBody(*BuildIssueRequest(false, Spec()));
    const auto hok = InBody(*BuildIssueRequestWithUseKey(true, full));
    const auto renew = InBody(*BuildRenewRequest(token, 3600));
    const auto validate = InBody(*BuildValidateRequest(token));
    const auto first = InBody(XMLBodyBuilderInitialSPNego(true, Spec(), leg));
    const auto next = InBody(XMLBodyBuilderContinuedSPNego("urn:uuid:server", {}));
    const std::string saml2 = "urn:oasis:names:tc:SAML:2.0:assertion";
    const std::tuple<Ref<ElementNode>, std::string, std::string> expected[] = {
        {bearer, "TokenType", saml2},
        {bearer, "RequestType", kTrust + "/Issue"},
        {bearer, "KeyType", kTrust + "/Bearer"},
        {bearer, "Renewing/@Allow", "false"},
        {bearer, "Renewing/@OK", "false"},
        {bearer, "Delegatable", "false"},
        {hok, "KeyType", kTrust + "/PublicKey"},
        {hok, "Renewing/@Allow", "true"},
        {hok, "Renewing/@OK", "false"},
        {hok, "Delegatable", "true"},
        {hok, "DelegateTo/UsernameToken/Username", "bob@EXAMPLE.TEST"},
        {hok, "AdviceSet/Advice/@AdviceSource", "urn:source"},
        {hok, "AppliesTo/EndpointReference/Address", "https://api.example.test/orders"},
        {renew, "TokenType", saml2},
        {renew, "RequestType", kTrust + "/Renew"},
        {validate, "TokenType", kTrust + "/RSTR/Status"},
        {validate, "RequestType", kTrust + "/Validate"},
        {first, "UseKey/@Sig", "holderOfKeyProofSignature"},
        {first, "BinaryExchange/@ValueType", "http://schemas.xmlsoap.org/ws/2005/02/trust/spnego"},
        {first, "BinaryExchange/@EncodingType",
         "http://docs.oasis-open.org/wss/2004/01/"
         "oasis-200401-wss-soap-message-security-1.0#Base64Binary"},
        {first, "BinaryExchange", Basalt::StringUtil::Base64Encode(leg)},
        {next, "@Context", "urn:uuid:server"},
        {next, "BinaryExchange", ""},
    };
    for (const auto& [element, path, value] : expected) {
        EXPECT_EQ(Value(*element, path), value) << path;
    }
    EXPECT_EQ(Span(*bearer, "Lifetime"), 600);
    EXPECT_EQ(Span(*hok, "Lifetime"), int64_t{10} * 365 * 86400);
    EXPECT_EQ(Span(*renew, "Lifetime"), 3600);
    // The wire form of an instant: milliseconds and the zone.
    const std::string created = Value(*bearer, "Lifetime/Created");
    EXPECT_EQ(created.substr(19, 1) + created.substr(23), ".Z") << created;
    EXPECT_EQ(Names(*Path(*hok, "DelegateTo/UsernameToken")), "wsse:Username");

    // The token travels verbatim, comment and all.
    std::string verbatim = token.GetXml();
    verbatim.erase(verbatim.find_last_not_of('\n') + 1);
    for (const auto& builder : {BuildRenewRequest(token, 60), BuildIssueRequest(false, full),
                                BuildValidateRequest(token)}) {
        EXPECT_NE(BodyText(*builder).find(verbatim), std::string::npos);
    }

    // Participants by address; each advice value a typed string.
    const auto participants = Children(*Path(*hok, "Participants"));
    ASSERT_EQ(participants.size(), 2u);
    EXPECT_EQ(Value(*participants[0], "EndpointReference/Address") +
                  Value(*participants[1], "EndpointReference/Address"),
              "urn:aurn:b");
    const auto attributes = Children(*Path(*hok, "AdviceSet/Advice"));
    ASSERT_EQ(attributes.size(), 2u);
    EXPECT_EQ(Value(*attributes[0], "@Name") + Value(*attributes[1], "@Name"), "colourempty");
    EXPECT_TRUE(Children(*attributes[1]).empty());
    std::string values, type, xs;
    for (const auto& value : Children(*attributes[0])) {
        values += value->GetTextContent() + ";";
        EXPECT_TRUE(
            value->GetAttributeNS("http://www.w3.org/2001/XMLSchema-instance", "type", type));
        EXPECT_TRUE(value->LookupNamespaceUri("xs", xs));
        EXPECT_EQ(type + " " + xs, "xs:string http://www.w3.org/2001/XMLSchema");
    }
    EXPECT_EQ(values, "red;green;");

    // Every first leg gets a fresh context.
    const std::string context = Value(*first, "@Context");
    EXPECT_EQ(context.rfind("urn:uuid:", 0), 0u);
    EXPECT_EQ(context.size(), 9u + 36u);
    EXPECT_NE(context, Value(*InBody(XMLBodyBuilderInitialSPNego(true, Spec(), leg)), "@Context"));
}

TokenSpec Confirming(ConfirmationType confirmation) {
    TokenSpec spec = Spec();
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
        {[&] { without.BuildAcquireTokenByCertificateRequest(Confirming(five)); }, true,
         noConfig + "acquire token by certificate"},
        {[&] { with.BuildAcquireTokenByCertificateRequest(Confirming(CONFIRMATION_BEARER)); },
         false,
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
        TokenSpec spec = Confirming(confirmation);
        if (delegate) {
            spec.delegateTo = std::string("delegate");
        }
        const SoapRequest request = Builder(config).BuildAcquireTokenRequest("al", "s3&<", spec);
        const Ref<ElementNode> envelope = Parse(request.envelope);
        const Ref<ElementNode> body = Children(*Path(*envelope, "Body"))[0];
        const Ref<ElementNode> security = Path(*envelope, "Header/Security");
        EXPECT_EQ(request.soapAction, kTrust + "/RST/Issue");
        EXPECT_EQ(Value(*body, "KeyType"), kTrust + "/" + keyType);
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
        // The shortest lifetime there is.
        {builder.BuildAcquireTokenByGSSRequest({1, 2}, Spec(1)), "RST/Issue", rst, certified},
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
        EXPECT_EQ(request.soapAction, kTrust + "/" + action);
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
    // The server finds the key by these names; what the signature covers, the interop test proves.
    const Ref<ElementNode> signature =
        Path(*Parse(std::get<0>(cases[2]).envelope), "Header/Security/Signature");
    EXPECT_EQ(Value(*signature, "@Id") + " " +
                  Value(*signature, "KeyInfo/SecurityTokenReference/Reference/@URI"),
              "holderOfKeyProofSignature #holderOfKeyCertificate");
}

}  // namespace
