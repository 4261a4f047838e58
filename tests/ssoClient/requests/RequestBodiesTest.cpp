// The WS-Trust bodies as the server sees them: built inside a SOAP Body, serialised, parsed again.
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>

#include <basalt/IO.h>

#include "RequestTestSupport.h"
#include "internal/requests/RequestBodies.h"
#include "internal/requests/SpnegoBodies.h"

namespace {

using namespace SsoClient;
using namespace RequestTest;
using Basalt::Ref;
using Basalt::Xml::ElementNode;
using List = std::vector<std::string>;

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

TokenSpec Spec(int64_t lifetime = 600) {
    TokenSpec spec;
    spec.tokenLifetimeSec = lifetime;
    return spec;
}

TEST(RequestBodiesTest, EveryBodyKindHasItsElementsInOrder) {
    const TextToken token = DataToken();
    TokenSpec delegated = Spec();
    delegated.delegateTo = std::string("bob@EXAMPLE.TEST");
    TokenSpec full = delegated;
    full.actAsToken = std::make_shared<const TextToken>(token);
    full.audienceRestriction = {"urn:b"};
    full.advice = {{"urn:source", {}}};
    const std::vector<unsigned char> leg{0x60, 0x82, 0x00, 0xff};
    const List issue{"wst:TokenType", "wst:RequestType", "wst:KeyType",
                     "wst:Lifetime",  "wst:Renewing",    "wst:Delegatable"};
    const auto plus = [&](const List& tail) {
        List names = issue;
        names.insert(names.end(), tail.begin(), tail.end());
        return names;
    };
    const std::tuple<std::shared_ptr<const XMLBaseBuilder>, std::string, List> cases[] = {
        {BuildIssueRequest(true, Spec()), "wst:RequestSecurityToken", issue},
        {BuildIssueRequestWithUseKey(false, Spec()), "wst:RequestSecurityToken", issue},
        {BuildIssueRequestWithUseKey(true, Spec()), "wst:RequestSecurityToken",
         plus({"wst:UseKey"})},
        {BuildIssueRequestWithUseKey(true, delegated), "wst:RequestSecurityToken",
         plus({"wst:DelegateTo"})},  // a delegated request does not prove the key
        {BuildIssueRequestWithUseKey(false, delegated), "wst:RequestSecurityToken",
         plus({"wst:DelegateTo"})},
        {BuildIssueRequest(false, full), "wst:RequestSecurityToken",
         plus({"wst:DelegateTo", "wst14:ActAs", "wst:Participants", "rsa-advice:AdviceSet"})},
        {BuildRenewRequest(token, 3600),
         "wst:RequestSecurityToken",
         {"wst:TokenType", "wst:RequestType", "wst:Lifetime", "wst:RenewTarget"}},
        {BuildValidateRequest(token),
         "wst:RequestSecurityToken",
         {"wst:TokenType", "wst:RequestType", "wst:ValidateTarget"}},
        {std::make_shared<XMLBodyBuilderInitialSPNego>(true, Spec(), leg),
         "wst:RequestSecurityToken", plus({"wst:UseKey", "wst:BinaryExchange"})},
        {std::make_shared<XMLBodyBuilderContinuedSPNego>("ctx", leg),
         "wst:RequestSecurityTokenResponse",
         {"wst:BinaryExchange"}},
    };
    for (const auto& [builder, root, children] : cases) {
        const Ref<ElementNode> body = InBody(*builder);
        EXPECT_EQ(body->GetQualifiedName() + body->GetNamespaceUri(), root + kTrust);
        EXPECT_EQ(Names(*body), children) << root;
    }
}

TEST(RequestBodiesTest, ElementsCarryTheirValues) {
    const TextToken token = DataToken();
    TokenSpec full = Spec(int64_t{10} * 365 * 86400);  // in microseconds beyond 32 bits
    full.renewable = full.delegable = true;
    full.delegateTo = std::string("bob@EXAMPLE.TEST");
    full.audienceRestriction = {"urn:b", "urn:a"};
    full.advice = {{"urn:source", {{"colour", {"red", "green"}}, {"empty", {}}}}};
    const std::vector<unsigned char> leg{0x60, 0x82, 0x00, 0xff};
    const auto bearer = InBody(*BuildIssueRequest(false, Spec()));
    const auto hok = InBody(*BuildIssueRequestWithUseKey(true, full));
    const auto renew = InBody(*BuildRenewRequest(token, 3600));
    const auto validate = InBody(*BuildValidateRequest(token));
    const auto first = InBody(XMLBodyBuilderInitialSPNego(true, Spec(), leg));
    const auto next = InBody(XMLBodyBuilderContinuedSPNego("urn:uuid:server", {}));
    const std::tuple<Ref<ElementNode>, List, std::string> expected[] = {
        {bearer, {"TokenType"}, "urn:oasis:names:tc:SAML:2.0:assertion"},
        {bearer, {"RequestType"}, kTrust + "/Issue"},
        {bearer, {"KeyType"}, kTrust + "/Bearer"},
        {bearer, {"Renewing", "@Allow"}, "false"},
        {bearer, {"Renewing", "@OK"}, "false"},
        {bearer, {"Delegatable"}, "false"},
        {hok, {"KeyType"}, kTrust + "/PublicKey"},
        {hok, {"Renewing", "@Allow"}, "true"},
        {hok, {"Renewing", "@OK"}, "false"},
        {hok, {"Delegatable"}, "true"},
        {hok, {"DelegateTo", "UsernameToken", "Username"}, "bob@EXAMPLE.TEST"},
        {hok, {"AdviceSet", "Advice", "@AdviceSource"}, "urn:source"},
        {renew, {"TokenType"}, "urn:oasis:names:tc:SAML:2.0:assertion"},
        {renew, {"RequestType"}, kTrust + "/Renew"},
        {validate, {"TokenType"}, kTrust + "/RSTR/Status"},
        {validate, {"RequestType"}, kTrust + "/Validate"},
        {first, {"UseKey", "@Sig"}, "holderOfKeyProofSignature"},
        {first,
         {"BinaryExchange", "@ValueType"},
         "http://schemas.xmlsoap.org/ws/2005/02/trust/spnego"},
        {first,
         {"BinaryExchange", "@EncodingType"},
         "http://docs.oasis-open.org/wss/2004/01/"
         "oasis-200401-wss-soap-message-security-1.0#Base64Binary"},
        {first, {"BinaryExchange"}, Basalt::StringUtil::Base64Encode(leg)},
        {next, {"@Context"}, "urn:uuid:server"},
        {next, {"BinaryExchange"}, ""},
    };
    for (const auto& [element, path, value] : expected) {
        EXPECT_EQ(Value(*element, path), value) << path.back();
    }
    EXPECT_EQ(Span(*bearer, {"Lifetime"}), 600);
    EXPECT_EQ(Span(*hok, {"Lifetime"}), int64_t{10} * 365 * 86400);
    EXPECT_EQ(Span(*renew, {"Lifetime"}), 3600);
    // The wire form of an instant: milliseconds and a zone.
    EXPECT_EQ(Value(*bearer, {"Lifetime", "Created"}).size(), 24u);
    EXPECT_EQ(Names(*Path(*hok, {"DelegateTo", "UsernameToken"})).size(), 1u);

    // The token travels verbatim, comment and all.
    std::string verbatim = token.GetXml();
    verbatim.erase(verbatim.find_last_not_of('\n') + 1);
    EXPECT_NE(BodyText(*BuildRenewRequest(token, 60)).find(verbatim), std::string::npos);
    TokenSpec actAs = Spec();
    actAs.actAsToken = std::make_shared<const TextToken>(token);
    EXPECT_NE(BodyText(*BuildIssueRequest(false, actAs)).find(verbatim), std::string::npos);
    EXPECT_NE(BodyText(*BuildValidateRequest(token)).find(verbatim), std::string::npos);

    // Participants by address; each advice value a typed string.
    const auto participants = Children(*Path(*hok, {"Participants"}));
    ASSERT_EQ(participants.size(), 2u);
    EXPECT_EQ(Value(*participants[0], {"EndpointReference", "Address"}), "urn:a");
    EXPECT_EQ(Value(*participants[1], {"EndpointReference", "Address"}), "urn:b");
    const auto attributes = Children(*Path(*hok, {"AdviceSet", "Advice"}));
    ASSERT_EQ(attributes.size(), 2u);
    EXPECT_EQ(Value(*attributes[0], {"@Name"}) + Value(*attributes[1], {"@Name"}), "colourempty");
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
    const std::string context = Value(*first, {"@Context"});
    EXPECT_EQ(context.rfind("urn:uuid:", 0), 0u);
    EXPECT_EQ(context.size(), 9u + 36u);
    EXPECT_NE(context,
              Value(*InBody(XMLBodyBuilderInitialSPNego(true, Spec(), leg)), {"@Context"}));
}

}  // namespace
