// The request builder: its checks in their order, then every operation's envelope as the server
// parses it (action, body, security header, values), and its signatures checked by implementations
// other than ours: Apache Santuario's xsec-checksig and the xmlsec1 command-line tool.
#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>
#include <ssoClient/SamlTokenFactory.h>

#include <sstream>

#include "TestData.h"
#include "internal/requests/RequestBuilder.h"
#include "internal/xml/XmlUtils.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using Basalt::Ref;
using Basalt::Xml::ElementNode;
using TestSupport::Spec;

const std::string kTrust = "http://docs.oasis-open.org/ws-sx/ws-trust/200512";
const std::string kWsu =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";

// A signed token, holder-of-key by default, with a comment and an entity that must travel verbatim.
std::shared_ptr<const SamlToken> Token(bool holderOfKey = true) {
    TestSupport::AssertionSpec spec;
    spec.holderOfKey = holderOfKey;
    spec.audiences = {"urn:a &amp; b"};
    spec.edits = {{"<saml2:Conditions", "\n  <!-- kept verbatim -->\n  <saml2:Conditions"}};
    return CreateSamlToken(TestSupport::MakeSignedAssertion(spec));
}

RequestBuilderImpl Builder(bool holderOfKey) {
    return RequestBuilderImpl(holderOfKey ? boost::make_optional(TestSupport::LoadHolderOfKey())
                                          : boost::none);
}

// The root element of text parsed by the foundation's parser; it keeps the document alive.
Ref<ElementNode> Parse(const std::string& text) {
    Ref<Basalt::Xml::Document> document;
    ParseXmlText(text, document);
    return document->GetDocumentElement();
}

std::vector<Ref<ElementNode>> Children(const Ref<ElementNode>& element) {
    std::vector<Ref<Basalt::Xml::Node>> nodes;
    element->GetChildren(nodes);
    std::vector<Ref<ElementNode>> elements;
    for (const auto& node : nodes) {
        if (auto* child = dynamic_cast<ElementNode*>(node.Get())) {
            elements.emplace_back(child);
        }
    }
    return elements;
}

// The qualified names of the element and its element children, in order.
std::string Names(const Ref<ElementNode>& element) {
    std::string names = element->GetQualifiedName();
    for (const auto& child : Children(element)) {
        names += " " + child->GetQualifiedName();
    }
    return names;
}

// Follows "A/B/C", local names each naming exactly one child (the test fails otherwise).
Ref<ElementNode> Path(Ref<ElementNode> element, const std::string& path) {
    std::istringstream steps(path);
    for (std::string name; std::getline(steps, name, '/');) {
        std::vector<Ref<ElementNode>> found;
        for (const auto& child : Children(element)) {
            if (child->GetLocalName() == name) {
                found.push_back(child);
            }
        }
        if (found.size() != 1) {
            ADD_FAILURE() << found.size() << " " << name << " under " << element->GetLocalName();
            throw std::logic_error("no single " + name);
        }
        element = found[0];
    }
    return element;
}

// The text at a path, or the attribute its last step names as "@name".
std::string Value(const Ref<ElementNode>& element, const std::string& path) {
    const size_t at = path.find('@');
    if (at == std::string::npos) {
        return Path(element, path)->GetTextContent();
    }
    std::string value;
    const auto target = Path(element, path.substr(0, at == 0 ? 0 : at - 1));
    return target->GetAttribute(path.substr(at + 1), value) ? value : "(none)";
}

// Seconds from the path's Created to its Expires.
int64_t Span(const Ref<ElementNode>& element, const std::string& path) {
    const auto seconds = [&](const char* name) {
        return Basalt::System::DateTime(Value(element, path + "/" + name)).GetUtcTime() / 1000000;
    };
    return seconds("Expires") - seconds("Created");
}

TEST(RequestBuilderTest, ChecksRunFirstAndInOrder) {
    using TestSupport::Throws;
    const std::string lifetime = "Token lifetime must be positive";
    const std::string noConfig = "No HolderOfKeyConfig provided. Unable to ";
    const auto hok = Token(), bearer = Token(false);
    TokenSpec five = Spec(), bearerSpec = Spec();
    five.confirmation = static_cast<ConfirmationType>(5);
    bearerSpec.confirmation = CONFIRMATION_BEARER;
    const RequestBuilderImpl with = Builder(true), without = Builder(false);
    // The call, whether it is refused for want of a key (else for its argument), the message.
    const std::tuple<std::function<void()>, bool, std::string> checks[] = {
        {[&] { with.BuildAcquireTokenRequest("u", "p", Spec(0)); }, false, lifetime},
        {[&] { with.BuildAcquireTokenByGSSRequest({1}, Spec(-1)); }, false, lifetime},
        {[&] { without.BuildAcquireTokenByCertificateRequest(Spec(0)); }, false, lifetime},
        {[&] { without.BuildAcquireTokenByCertificateRequest(five); }, true,
         noConfig + "acquire token by certificate"},
        {[&] { with.BuildAcquireTokenByCertificateRequest(bearerSpec); }, false,
         "TokenSpec::confirmation must be CONFIRMATION_DEFAULT for acquire token by certificate"},
        {[&] { without.BuildAcquireTokenByTokenRequest(*hok, Spec(0)); }, false, lifetime},
        {[&] { without.BuildAcquireTokenByTokenRequest(*hok, Spec()); }, true,
         noConfig + "acquire token by token"},
        {[&] { with.BuildRenewTokenRequest(*hok, 0); }, false, lifetime},
        {[&] { without.BuildRenewTokenRequest(*bearer, 60); }, true, noConfig + "renew token"},
        {[&] { with.BuildRenewTokenRequest(*bearer, 60); }, false,
         "Unable to renew token: the provided token must be Holder Of Key"},
    };
    for (const auto& [call, state, message] : checks) {
        EXPECT_TRUE(state ? Throws<Basalt::InvalidStateException>(call, message)
                          : Throws<Basalt::InvalidArgumentException>(call, message));
    }
}

TEST(RequestBuilderTest, EachOperationHasItsActionBodyAndSecurityHeader) {
    const RequestBuilderImpl with = Builder(true), without = Builder(false);
    const auto token = Token();
    TokenSpec delegated = Spec(), bearer = Spec(), five = Spec();
    delegated.delegateTo = std::string("bob@EXAMPLE.TEST");
    bearer.confirmation = CONFIRMATION_BEARER;
    five.confirmation = static_cast<ConfirmationType>(5);
    // Every flag set and a lifetime in microseconds beyond 32 bits.
    TokenSpec full = Spec(int64_t{10} * 365 * 86400);
    full.renewable = full.delegable = true;
    full.delegateTo = delegated.delegateTo;
    full.actAsToken = token;
    full.audienceRestriction = {"urn:b", "urn:a"};
    full.advice = {{"urn:source", {{"colour", {"red", "green"}}, {"empty", {}}}}};
    full.appliesTo = std::string("https://api.example.test/orders");
    const std::vector<unsigned char> leg{0x60, 0x82, 0x00, 0xff};
    const std::string rst = "wst:RequestSecurityToken wst:TokenType wst:RequestType",
                      issue = rst + " wst:KeyType wst:Lifetime wst:Renewing wst:Delegatable",
                      stamp = "wsse:Security wsu:Timestamp",
                      proof = " wsse:BinarySecurityToken ds:Signature",
                      password = stamp + " wsse:UsernameToken";
    // The request; its action, body, security header and key type ("": none).
    const std::tuple<SoapRequest, std::string, std::string, std::string, std::string> cases[] = {
        {without.BuildAcquireTokenRequest("al", "s3&<", Spec()), "RST/Issue", issue, password,
         "Bearer"},
        {with.BuildAcquireTokenRequest("al", "pw", Spec()), "RST/Issue", issue + " wst:UseKey",
         password + proof, "PublicKey"},
        // A delegated request does not prove the key.
        {with.BuildAcquireTokenRequest("al", "pw", delegated), "RST/Issue",
         issue + " wst:DelegateTo", password, "PublicKey"},
        {without.BuildAcquireTokenRequest("al", "pw", delegated), "RST/Issue",
         issue + " wst:DelegateTo", password, "Bearer"},
        {with.BuildAcquireTokenRequest("al", "pw", bearer), "RST/Issue", issue, password, "Bearer"},
        {with.BuildAcquireTokenRequest("al", "pw", five), "RST/Issue", issue, password, "Bearer"},
        {with.BuildAcquireTokenRequest("al", "pw", full), "RST/Issue",
         rst + " wsp:AppliesTo wst:KeyType wst:Lifetime wst:Renewing wst:Delegatable "
               "wst:DelegateTo wst14:ActAs wst:Participants rsa-advice:AdviceSet",
         password, "PublicKey"},
        // The shortest lifetime there is.
        {with.BuildAcquireTokenByCertificateRequest(Spec(1)), "RST/Issue", issue + " wst:UseKey",
         stamp + proof, "PublicKey"},
        {with.BuildAcquireTokenByTokenRequest(*token, Spec()), "RST/Issue", issue,
         stamp + " saml2:Assertion ds:Signature", "PublicKey"},
        {with.BuildAcquireTokenByTokenRequest(*token, bearer), "RST/Issue", issue,
         stamp + " saml2:Assertion ds:Signature", "Bearer"},
        {with.BuildRenewTokenRequest(*token, 3600), "RST/Renew",
         rst + " wst:Lifetime wst:RenewTarget", stamp + proof, ""},
        {with.BuildValidateTokenRequest(*token), "RST/Validate", rst + " wst:ValidateTarget", stamp,
         ""},
        {with.BuildAcquireTokenByGSSRequest(leg, Spec()), "RST/Issue",
         issue + " wst:UseKey wst:BinaryExchange", stamp + proof, "PublicKey"},
        {with.BuildContinueNegotiationRequest("urn:uuid:server", {}), "RSTR/Issue",
         "wst:RequestSecurityTokenResponse wst:BinaryExchange", stamp, ""},
    };
    std::vector<Ref<ElementNode>> bodies;
    for (const auto& [request, action, body, security, keyType] : cases) {
        SCOPED_TRACE(body);
        const Ref<ElementNode> envelope = Parse(request.envelope);
        EXPECT_EQ(request.soapAction, kTrust + "/" + action);
        EXPECT_EQ(Names(envelope), "soapenv:Envelope soapenv:Header soapenv:Body");
        EXPECT_EQ(Names(Path(envelope, "Header/Security")), security);
        EXPECT_EQ(Span(envelope, "Header/Security/Timestamp"), 600);
        bodies.push_back(Children(Path(envelope, "Body"))[0]);
        EXPECT_EQ(bodies.back()->GetNamespaceUri(), kTrust);
        EXPECT_EQ(Names(bodies.back()), body);
        if (!keyType.empty()) {
            EXPECT_EQ(Value(bodies.back(), "KeyType"), kTrust + "/" + keyType);
        }
    }

    // The values.
    const auto& [bearerBody, hok, renew, validate, first, next] =
        std::tie(bodies[0], bodies[6], bodies[10], bodies[11], bodies[12], bodies[13]);
    const Ref<ElementNode> user = Path(Parse(std::get<0>(cases[0]).envelope), "Header/Security");
    const std::string saml2 = "urn:oasis:names:tc:SAML:2.0:assertion";
    const std::tuple<Ref<ElementNode>, std::string, std::string> expected[] = {
        {user, "UsernameToken/Username", "al"},
        {user, "UsernameToken/Password", "s3&<"},
        {user, "UsernameToken/Password/@Type",
         "http://docs.oasis-open.org/wss/2004/01/"
         "oasis-200401-wss-username-token-profile-1.0#PasswordText"},
        {bearerBody, "TokenType", saml2},
        {bearerBody, "RequestType", kTrust + "/Issue"},
        {bearerBody, "Renewing/@Allow", "false"},
        {bearerBody, "Renewing/@OK", "false"},
        {bearerBody, "Delegatable", "false"},
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
        EXPECT_EQ(Value(element, path), value) << path;
    }
    EXPECT_EQ(Span(bearerBody, "Lifetime"), 600);
    EXPECT_EQ(Span(hok, "Lifetime"), int64_t{10} * 365 * 86400);
    EXPECT_EQ(Span(renew, "Lifetime"), 3600);
    // The wire form of an instant: milliseconds and the zone.
    const std::string created = Value(bearerBody, "Lifetime/Created");
    EXPECT_EQ(created.substr(19, 1) + created.substr(23), ".Z") << created;
    EXPECT_EQ(Names(Path(hok, "DelegateTo/UsernameToken")), "wsse:UsernameToken wsse:Username");

    // The token travels verbatim, comment and all.
    for (const size_t i : {6, 8, 10, 11}) {
        EXPECT_NE(std::get<0>(cases[i]).envelope.find(token->GetXml()), std::string::npos) << i;
    }

    // Participants by address; each advice value a typed string.
    const auto participants = Children(Path(hok, "Participants"));
    ASSERT_EQ(participants.size(), 2u);
    EXPECT_EQ(Value(participants[0], "EndpointReference/Address") +
                  Value(participants[1], "EndpointReference/Address"),
              "urn:aurn:b");
    const auto attributes = Children(Path(hok, "AdviceSet/Advice"));
    ASSERT_EQ(attributes.size(), 2u);
    EXPECT_EQ(Value(attributes[0], "@Name") + Value(attributes[1], "@Name"), "colourempty");
    EXPECT_TRUE(Children(attributes[1]).empty());
    std::string values, type, xs;
    for (const auto& value : Children(attributes[0])) {
        values += value->GetTextContent() + ";";
        EXPECT_TRUE(
            value->GetAttributeNS("http://www.w3.org/2001/XMLSchema-instance", "type", type));
        EXPECT_TRUE(value->LookupNamespaceUri("xs", xs));
        EXPECT_EQ(type + " " + xs, "xs:string http://www.w3.org/2001/XMLSchema");
    }
    EXPECT_EQ(values, "red;green;");

    // Every first leg gets a fresh context.
    const std::string context = Value(first, "@Context");
    EXPECT_EQ(context.rfind("urn:uuid:", 0), 0u);
    EXPECT_EQ(context.size(), 9u + 36u);
    const auto again = Parse(with.BuildAcquireTokenByGSSRequest(leg, Spec()).envelope);
    EXPECT_NE(context, Value(again, "Body/RequestSecurityToken/@Context"));

    // By token: the token named by its ID in the key info. The server finds the certificate by
    // these names; what the signature covers, the interop test proves.
    const Ref<ElementNode> reference =
        Path(Parse(std::get<0>(cases[8]).envelope),
             "Header/Security/Signature/KeyInfo/SecurityTokenReference");
    EXPECT_EQ(Value(reference, "KeyIdentifier"), token->GetId());
    std::string tokenType;
    EXPECT_TRUE(reference->GetAttributeNS(
        "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.1.xsd",
        "TokenType", tokenType));
    EXPECT_EQ(tokenType, "http://docs.oasis-open.org/wss/oasis-wss-saml-tokenprofile-1.1#SAMLV2.0");
    const Ref<ElementNode> signature =
        Path(Parse(std::get<0>(cases[7]).envelope), "Header/Security/Signature");
    EXPECT_EQ(Value(signature, "@Id") + " " +
                  Value(signature, "KeyInfo/SecurityTokenReference/Reference/@URI"),
              "holderOfKeyProofSignature #holderOfKeyCertificate");
}

// Whether xsec-checksig and xmlsec1 both accept the envelope, given the signer's certificate out
// of band.
std::pair<bool, bool> Verify(std::string envelope) {
    const TestData::TempDir dir("signed-request");
    const std::string xmlsec = dir.Write("xmlsec.xml", envelope);
    // Santuario takes the key from KeyInfo only: the certificate replaces the reference there,
    // outside what the signature covers.
    const std::string pem = TestData::Read("certs/sts-rsa.pem");
    const size_t begin = pem.find('\n') + 1, start = envelope.find("<ds:KeyInfo>");
    envelope.replace(start, envelope.find("</ds:KeyInfo>") - start,
                     "<ds:KeyInfo><ds:X509Data><ds:X509Certificate>" +
                         pem.substr(begin, pem.find("-----END") - begin) +
                         "</ds:X509Certificate></ds:X509Data>");
    const std::string santuario = dir.Write("santuario.xml", envelope);
    const auto run = [](const std::string& command) {
        return TestSupport::RunCommand(command + " >/dev/null 2>&1").first == 0;
    };
    return {run("xsec-checksig --idns " + kWsu + " Id " + santuario),
            run("xmlsec1 --verify --enabled-reference-uris same-doc --pubkey-cert-pem " +
                std::string(SSOCLIENT_TEST_DATA_DIR) + "/certs/sts-rsa.pem --id-attr:Id " +
                "http://schemas.xmlsoap.org/soap/envelope/:Body --id-attr:Id " + kWsu +
                ":Timestamp " + xmlsec)};
}

TEST(SignedRequestInteropTest, EverySignedOperationVerifiesElsewhereAndTamperingIsDetected) {
    const RequestBuilderImpl builder = Builder(true);
    TokenSpec spec = Spec(300);
    spec.advice = {{"urn:src", {{"a", {"1"}}}}};
    const auto token = Token();
    // The assertion in the header is outside what the signature covers: it goes, so that
    // verifiers taking the first signature they find meet the request's.
    const std::pair<const char*, std::string> requests[] = {
        {"certificate", builder.BuildAcquireTokenByCertificateRequest(spec).envelope},
        {"password", builder.BuildAcquireTokenRequest("alice", "pw", spec).envelope},
        {"token",
         TestSupport::ReplaceOnce(builder.BuildAcquireTokenByTokenRequest(*token, spec).envelope,
                                  token->GetXml(), "")},
        {"renew", builder.BuildRenewTokenRequest(*token, 120).envelope},
        {"gss", builder.BuildAcquireTokenByGSSRequest({9, 8, 7}, spec).envelope},
    };
    for (const auto& [what, envelope] : requests) {
        EXPECT_EQ(Verify(envelope), std::make_pair(true, true)) << what;
    }
    // Tampering with the Body or the Timestamp.
    const std::string& envelope = requests[0].second;
    const size_t expires = envelope.find("<wsu:Expires>") + 13 + 15;  // a minute digit
    std::string later = envelope;
    later[expires] = later[expires] == '9' ? '0' : static_cast<char>(later[expires] + 1);
    for (const std::string& tampered :
         {TestSupport::ReplaceOnce(envelope, "200512/PublicKey", "200512/Bearer"), later}) {
        EXPECT_EQ(Verify(tampered), std::make_pair(false, false));
    }
}

}  // namespace
