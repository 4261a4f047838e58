// The WS-Trust bodies as the server sees them: built inside a SOAP Body, serialised, parsed again.
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>

#include <basalt/IO.h>

#include "RequestTestSupport.h"
#include "internal/requests/RequestBodies.h"
#include "internal/requests/SpnegoBodies.h"
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
    TokenSpec full = delegated;
    full.actAsToken = std::make_shared<const TextToken>(token);
    full.audienceRestriction = {"urn:b"};
    full.advice = {{"urn:source", {}}};
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
         issue + " wst:DelegateTo wst14:ActAs wst:Participants rsa-advice:AdviceSet"},
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

    // The values, with every flag set and a lifetime in microseconds beyond 32 bits.
    TokenSpec all = Spec(int64_t{10} * 365 * 86400);
    all.renewable = all.delegable = true;
    all.delegateTo = std::string("bob@EXAMPLE.TEST");
    all.audienceRestriction = {"urn:b", "urn:a"};
    all.advice = {{"urn:source", {{"colour", {"red", "green"}}, {"empty", {}}}}};
    const auto bearer = InBody(*BuildIssueRequest(false, Spec()));
    const auto hok = InBody(*BuildIssueRequestWithUseKey(true, all));
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
    TokenSpec actAs = Spec();
    actAs.actAsToken = std::make_shared<const TextToken>(token);
    for (const auto& builder : {BuildRenewRequest(token, 60), BuildIssueRequest(false, actAs),
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

}  // namespace
