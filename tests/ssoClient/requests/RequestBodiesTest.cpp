#include <basalt/DateTime.h>
#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>

#include "RequestTestSupport.h"
#include "TestData.h"
#include "internal/requests/RequestBodies.h"
#include "internal/requests/SpnegoBodies.h"

namespace {

using namespace SsoClient;
using namespace RequestTest;
using Basalt::Ref;
using Basalt::Xml::ElementNode;

constexpr char kWst[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512";

// The serialised text of a body built inside an element declaring "wst", as the SOAP Body does.
std::string BodyText(const XMLBaseBuilder& builder) {
    Ref<ElementNode> body;
    Basalt::Xml::CreateElementNode("soapenv", "Body", body);
    body->SetAttribute("xmlns:soapenv", "http://schemas.xmlsoap.org/soap/envelope/");
    body->SetAttribute("xmlns:wst", kWst);
    Ref<ElementNode> element;
    builder.Build(element);
    body->AppendChild(element);
    return Serialize(*body);
}

// The body as the server sees it: built, serialised and parsed again.
Ref<ElementNode> BuildInBody(const XMLBaseBuilder& builder) {
    return ChildElements(*Parse(BodyText(builder)))[0];
}

// A token's text as it stands in its file, without the final line feed.
std::string Verbatim(const SamlToken& token) {
    std::string text = token.GetXml();
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

TokenSpec BasicSpec() {
    TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    return spec;
}

int64_t Seconds(const ElementNode& element) {
    return Basalt::System::DateTime(element.GetTextContent()).GetUtcTime() / 1000000;
}

TEST(RequestBodiesTest, MinimalBearerIssueRequestHasExactlySixChildren) {
    Ref<ElementNode> request = BuildInBody(*BuildIssueRequest(false, BasicSpec()));
    EXPECT_EQ(request->GetQualifiedName(), "wst:RequestSecurityToken");
    EXPECT_EQ(request->GetNamespaceUri(), kWst);
    EXPECT_EQ(ChildNames(*request),
              (std::vector<std::string>{"wst:TokenType", "wst:RequestType", "wst:KeyType",
                                        "wst:Lifetime", "wst:Renewing", "wst:Delegatable"}));
    EXPECT_EQ(Child(*request, "TokenType")->GetTextContent(),
              "urn:oasis:names:tc:SAML:2.0:assertion");
    EXPECT_EQ(Child(*request, "RequestType")->GetTextContent(),
              "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Issue");
    EXPECT_EQ(Child(*request, "KeyType")->GetTextContent(),
              "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Bearer");
    Ref<ElementNode> lifetime = Child(*request, "Lifetime");
    EXPECT_EQ(Seconds(*Child(*lifetime, "Expires")) - Seconds(*Child(*lifetime, "Created")), 600);
    EXPECT_EQ(Child(*request, "Delegatable")->GetTextContent(), "false");
    // Attributes come in name order: Allow before OK.
    EXPECT_NE(Serialize(*request).find("<wst:Renewing Allow=\"false\" OK=\"false\"/>"),
              std::string::npos)
        << Serialize(*request);
}

TEST(RequestBodiesTest, LifetimeUsesWireTimesAndSixtyFourBitSeconds) {
    Ref<ElementNode> lifetime = BuildInBody(*BuildLifetime(int64_t{10} * 365 * 86400));
    std::string created = Child(*lifetime, "Created")->GetTextContent();
    ASSERT_EQ(created.size(), 24u) << created;  // 2024-01-05T03:04:05.006Z
    EXPECT_EQ(created[23], 'Z');
    EXPECT_EQ(Seconds(*Child(*lifetime, "Expires")) - Seconds(*Child(*lifetime, "Created")),
              int64_t{10} * 365 * 86400);
}

TEST(RequestBodiesTest, OptionalPartsFollowTheSpecInOrder) {
    auto assertion =
        std::make_shared<const TextToken>(TestData::Read("requests/assertion.xml"),
                                          "_4c5a2d8e-0f1b-4a77-9c1e-5d7f00b1c0de", Saml_HOK);
    TokenSpec spec = BasicSpec();
    spec.renewable = true;
    spec.delegable = true;
    spec.delegateTo = std::string("bob@EXAMPLE.TEST");
    spec.actAsToken = std::shared_ptr<const SamlToken>(assertion);
    spec.audienceRestriction = {"urn:b", "urn:a"};
    spec.advice = {{"urn:source", {{"colour", {"red", "green"}}, {"empty", {}}}}};

    Ref<ElementNode> request = BuildInBody(*BuildIssueRequestWithUseKey(true, spec));
    EXPECT_EQ(ChildNames(*request),
              (std::vector<std::string>{"wst:TokenType", "wst:RequestType", "wst:KeyType",
                                        "wst:Lifetime", "wst:Renewing", "wst:Delegatable",
                                        "wst:DelegateTo", "wst14:ActAs", "wst:Participants",
                                        "rsa-advice:AdviceSet"}));  // no UseKey with a delegate
    EXPECT_EQ(Child(*request, "KeyType")->GetTextContent(),
              "http://docs.oasis-open.org/ws-sx/ws-trust/200512/PublicKey");
    EXPECT_EQ(Attribute(*Child(*request, "Renewing"), "Allow"), "true");
    EXPECT_EQ(Path(*request, {"DelegateTo", "UsernameToken", "Username"})->GetTextContent(),
              "bob@EXAMPLE.TEST");
    EXPECT_EQ(ChildNames(*Path(*request, {"DelegateTo", "UsernameToken"})).size(), 1u);

    // The act-as token travels verbatim: the original text, comment and all, is in the body.
    EXPECT_NE(BodyText(*BuildIssueRequestWithUseKey(true, spec)).find(Verbatim(*assertion)),
              std::string::npos);

    auto participants = ChildElements(*Child(*request, "Participants"));
    ASSERT_EQ(participants.size(), 2u);
    EXPECT_EQ(Path(*participants[0], {"EndpointReference", "Address"})->GetTextContent(), "urn:a");
    EXPECT_EQ(Path(*participants[1], {"EndpointReference", "Address"})->GetTextContent(), "urn:b");

    Ref<ElementNode> advice = Path(*request, {"AdviceSet", "Advice"});
    EXPECT_EQ(Attribute(*advice, "AdviceSource"), "urn:source");
    auto attributes = ChildElements(*advice);
    ASSERT_EQ(attributes.size(), 2u);
    EXPECT_EQ(Attribute(*attributes[0], "Name"), "colour");
    auto values = ChildElements(*attributes[0]);
    ASSERT_EQ(values.size(), 2u);
    for (size_t i = 0; i < values.size(); ++i) {
        std::string type;
        ASSERT_TRUE(
            values[i]->GetAttributeNS("http://www.w3.org/2001/XMLSchema-instance", "type", type));
        EXPECT_EQ(type, "xs:string");
        std::string xsUri;
        EXPECT_TRUE(values[i]->LookupNamespaceUri("xs", xsUri));
        EXPECT_EQ(xsUri, "http://www.w3.org/2001/XMLSchema");
    }
    EXPECT_EQ(values[0]->GetTextContent(), "red");
    EXPECT_EQ(values[1]->GetTextContent(), "green");
    EXPECT_TRUE(ChildElements(*attributes[1]).empty());
}

TEST(RequestBodiesTest, UseKeyOnlyForHolderOfKeyWithoutDelegate) {
    struct Case {
        bool holderOfKey;
        bool delegate;
        bool useKey;
    };
    for (const Case& c : {Case{true, false, true}, Case{true, true, false},
                          Case{false, false, false}, Case{false, true, false}}) {
        TokenSpec spec = BasicSpec();
        if (c.delegate) {
            spec.delegateTo = std::string("someone");
        }
        Ref<ElementNode> request = BuildInBody(*BuildIssueRequestWithUseKey(c.holderOfKey, spec));
        std::vector<std::string> names = ChildNames(*request);
        EXPECT_EQ(names.back() == "wst:UseKey", c.useKey) << c.holderOfKey << c.delegate;
        if (c.useKey) {
            EXPECT_EQ(Attribute(*Child(*request, "UseKey"), "Sig"), "holderOfKeyProofSignature");
        }
    }
}

TEST(RequestBodiesTest, RenewAndValidateCarryTheTokenLast) {
    TextToken token(TestData::Read("requests/assertion.xml"), "_id", Saml_HOK);
    Ref<ElementNode> renew = BuildInBody(*BuildRenewRequest(token, 3600));
    EXPECT_EQ(ChildNames(*renew), (std::vector<std::string>{"wst:TokenType", "wst:RequestType",
                                                            "wst:Lifetime", "wst:RenewTarget"}));
    EXPECT_EQ(Child(*renew, "RequestType")->GetTextContent(),
              "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Renew");
    Ref<ElementNode> lifetime = Child(*renew, "Lifetime");
    EXPECT_EQ(Seconds(*Child(*lifetime, "Expires")) - Seconds(*Child(*lifetime, "Created")), 3600);
    EXPECT_NE(BodyText(*BuildRenewRequest(token, 3600)).find(Verbatim(token)), std::string::npos);

    Ref<ElementNode> validate = BuildInBody(*BuildValidateRequest(token));
    EXPECT_EQ(ChildNames(*validate),
              (std::vector<std::string>{"wst:TokenType", "wst:RequestType", "wst:ValidateTarget"}));
    EXPECT_EQ(Child(*validate, "TokenType")->GetTextContent(),
              "http://docs.oasis-open.org/ws-sx/ws-trust/200512/RSTR/Status");
}

TEST(RequestBodiesTest, BrokenTokenTextFailsTheBuild) {
    TextToken token("<saml2:Assertion", "_id", Saml_HOK);
    EXPECT_THROW(BuildValidateRequest(token), Basalt::Xml::XMLParseException);
}

TEST(SpnegoBodiesTest, FirstLegGetsAFreshContextAndEndsInTheLeg) {
    const std::vector<unsigned char> leg{0x60, 0x82, 0x00, 0xff};
    XMLBodyBuilderInitialSPNego first(true, BasicSpec(), leg);
    Ref<ElementNode> a = BuildInBody(first);
    Ref<ElementNode> b = BuildInBody(first);
    std::vector<std::string> names = ChildNames(*a);
    ASSERT_GE(names.size(), 2u);
    EXPECT_EQ(names[names.size() - 2], "wst:UseKey");
    EXPECT_EQ(names.back(), "wst:BinaryExchange");
    std::string context = Attribute(*a, "Context");
    EXPECT_EQ(context.rfind("urn:uuid:", 0), 0u);
    EXPECT_EQ(context.size(), 9u + 36u);
    EXPECT_NE(context, Attribute(*b, "Context"));

    Ref<ElementNode> exchange = Child(*a, "BinaryExchange");
    EXPECT_EQ(Attribute(*exchange, "ValueType"),
              "http://schemas.xmlsoap.org/ws/2005/02/trust/spnego");
    EXPECT_EQ(Attribute(*exchange, "EncodingType"),
              "http://docs.oasis-open.org/wss/2004/01/"
              "oasis-200401-wss-soap-message-security-1.0#Base64Binary");
    std::vector<unsigned char> decoded;
    Basalt::StringUtil::Base64Decode(exchange->GetTextContent(), decoded);
    EXPECT_EQ(decoded, leg);
}

TEST(SpnegoBodiesTest, ContinuedLegPassesTheContextThrough) {
    for (const std::string context : {"urn:uuid:server-context", ""}) {
        Ref<ElementNode> body = BuildInBody(XMLBodyBuilderContinuedSPNego(context, {}));
        EXPECT_EQ(body->GetQualifiedName(), "wst:RequestSecurityTokenResponse");
        EXPECT_EQ(body->GetNamespaceUri(), kWst);
        EXPECT_EQ(Attribute(*body, "Context"), context);
        EXPECT_EQ(ChildNames(*body), std::vector<std::string>{"wst:BinaryExchange"});
        EXPECT_EQ(Child(*body, "BinaryExchange")->GetTextContent(), "");
    }
}

}  // namespace
