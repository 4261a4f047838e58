// The request builder: its checks in their order, then every operation's envelope as it goes on
// the wire (tests/data/requests/envelopes.txt), and its signatures checked by the foundation's
// verifier and by implementations other than ours: Apache Santuario's xsec-checksig and the
// xmlsec1 command-line tool.

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>
#include <ssoClient/SamlTokenFactory.h>

#include <regex>

#include "TestData.h"
#include "internal/requests/RequestBuilder.h"
#include "internal/xml/Namespaces.h"
#include "internal/xml/XmlUtils.h"
#include "support/ExpectThrow.h"
#include "support/SamlAssertionGenerator.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
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

// The envelope as tests/data/requests/envelopes.txt shows it: one element per line, the token, its
// ID and the signer's certificate named, generated identifiers, instants, digests and signature
// values masked (that references name their targets, the interop test below proves).
std::string Masked(std::string text, const SamlToken& token) {
    const std::string certificate =
        Basalt::StringUtil::Base64Encode(TestSupport::LoadHolderOfKey().certificate->GetDer());
    for (const auto& [from, to] : {std::pair(token.GetXml(), "{token}"),
                                   {token.GetId(), "{id}"},
                                   {certificate, "{certificate}"}}) {
        for (size_t at; (at = text.find(from)) != std::string::npos;) {
            text.replace(at, from.size(), to);
        }
    }
    const std::pair<const char*, const char*> masks[] = {
        {"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", "{uuid}"},
        {R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)", "{instant}"},
        {"(<ds:(Digest|Signature)Value>)[^<]+", "$1{value}"},
        {"><", ">\n<"},
    };
    for (const auto& [pattern, mask] : masks) {
        text = std::regex_replace(text, std::regex(pattern), mask);
    }
    return text;
}

// The section of envelopes.txt that follows the line "=== name" (a missing one compares unequal).
std::string Golden(const std::string& name) {
    const std::string text = TestData::Read("requests/envelopes.txt");
    const size_t begin = text.find("=== " + name + "\n") + name.size() + 5;
    return text.substr(begin, std::min(text.find("\n===", begin), text.size() - 1) - begin);
}

// Seconds from each Created to the Expires that follows, in document order.
std::string Spans(const std::string& text) {
    std::string spans;
    const std::regex span("<wsu:Created>([^<]+)</wsu:Created>\\s*<wsu:Expires>([^<]+)<");
    for (std::sregex_iterator it(text.begin(), text.end(), span), end; it != end; ++it) {
        const auto micros = [&](int i) {
            return Basalt::System::DateTime((*it)[i].str()).GetUtcTime();
        };
        spans += (spans.empty() ? "" : " ") + std::to_string((micros(2) - micros(1)) / 1000000);
    }
    return spans;
}

TEST(RequestBuilderTest, ChecksRunFirstAndInOrder) {
    using TestSupport::Throws;
    const std::string lifetime = "Token lifetime must be positive";
    const std::string tooLong = "Token lifetime must not exceed 3155760000 seconds (100 years)";
    const std::string noConfig = "No HolderOfKeyConfig provided. Unable to ";
    const auto hok = Token(), bearer = Token(false);
    TokenSpec five = Spec(), bearerSpec = Spec();
    five.confirmation = static_cast<ConfirmationType>(5);
    bearerSpec.confirmation = CONFIRMATION_BEARER;
    const RequestBuilderImpl with = Builder(true), without = Builder(false);
    // The call, whether it is refused for want of a key (else for its argument), the message.
    const std::tuple<std::function<void()>, bool, std::string> checks[] = {
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
        {[&] { with.BuildAcquireTokenByCertificateRequest(Spec(kMaxTokenLifetimeSec + 1)); }, false,
         tooLong},
        {[&] { without.BuildAcquireTokenRequest("u", "p", Spec(INT64_MAX)); }, false, tooLong},
    };
    for (const auto& [call, state, message] : checks) {
        EXPECT_TRUE(state ? Throws<Basalt::InvalidStateException>(call, message)
                          : Throws<Basalt::InvalidArgumentException>(call, message));
    }
}

// Every operation's action and envelope, with the spans of its Timestamp and Lifetime.
TEST(RequestBuilderTest, EachOperationHasItsActionAndEnvelope) {
    const RequestBuilderImpl with = Builder(true), without = Builder(false);
    const auto token = Token();
    TokenSpec delegated = Spec(), bearer = Spec();
    delegated.delegateTo = std::string("bob@EXAMPLE.TEST");
    bearer.confirmation = CONFIRMATION_BEARER;
    // Every flag set and a lifetime in microseconds beyond 32 bits.
    TokenSpec full = Spec(int64_t{10} * 365 * 86400);
    full.renewable = full.delegable = true;
    full.delegateTo = delegated.delegateTo;
    full.actAsToken = token;
    full.audienceRestriction = {"urn:b", "urn:a"};
    full.advice = {{"urn:source", {{"colour", {"red", "green"}}, {"empty", {}}}}};
    full.appliesTo = std::string("https://api.example.test/orders");
    const std::vector<unsigned char> leg{0x60, 0x82, 0x00, 0xff};
    // The request and its section of envelopes.txt: the action, the spans of the Timestamp and
    // the Lifetime, the envelope.
    const std::pair<SoapRequest, std::string> cases[] = {
        {without.BuildAcquireTokenRequest("al", "s3&<", Spec()), "password"},
        {with.BuildAcquireTokenRequest("al", "pw", Spec()), "password, proving the key"},
        // A delegated request does not prove the key.
        {with.BuildAcquireTokenRequest("al", "pw", delegated), "password, delegated"},
        {without.BuildAcquireTokenRequest("al", "pw", delegated),
         "password, delegated, without a key"},
        {with.BuildAcquireTokenRequest("al", "pw", bearer), "password, bearer asked for"},
        {with.BuildAcquireTokenRequest("al", "pw", full), "password, every option"},
        // The shortest lifetime there is.
        {with.BuildAcquireTokenByCertificateRequest(Spec(1)), "certificate"},
        {with.BuildAcquireTokenByTokenRequest(*token, Spec()), "token"},
        {with.BuildAcquireTokenByTokenRequest(*token, bearer), "token, bearer asked for"},
        {with.BuildRenewTokenRequest(*token, 3600), "renew"},
        {with.BuildValidateTokenRequest(*token), "validate"},
        {with.BuildAcquireTokenByGSSRequest(leg, Spec()), "gss"},
        {with.BuildContinueNegotiationRequest("urn:uuid:server", {}), "gss, continued"},
    };
    for (const auto& [request, name] : cases) {
        EXPECT_EQ(request.soapAction + "\n" + Spans(request.envelope) + "\n" +
                      Masked(request.envelope, *token),
                  Golden(name));
    }
}

// Whether the foundation's verifier, trusting what resolver trusts, accepts the signature over the
// envelope's Body and Timestamp.
bool VerifiedHere(const std::string& envelope,
                  const Basalt::Xml::Security::KeyInfoResolver& resolver) {
    Basalt::Ref<Basalt::Xml::Document> document;
    ParseXmlText(envelope, document);
    const auto root = document->GetDocumentElement();
    const auto security = root->FindChildElement(Xmlns::kSoapEnv, "Header")
                              ->FindChildElement(Xmlns::kWsse, "Security");
    Basalt::Ref<Basalt::Xml::Security::Signature> signature;
    Basalt::Xml::Security::CreateSignatureFromDom(
        {root->FindChildElement(Xmlns::kSoapEnv, "Body").Get(),
         security->FindChildElement(Xmlns::kWsu, "Timestamp").Get()},
        security->FindChildElement(Xmlns::kXmlDsig, "Signature").Get(), signature);
    return signature->Verify(&resolver);
}

// Whether the foundation (trusting the signer), xsec-checksig and xmlsec1 accept the envelope, the
// last two given the signer's certificate out of band.
std::tuple<bool, bool, bool> Verify(std::string envelope) {
    const bool ours = VerifiedHere(envelope, *TestSupport::StsResolver());
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
    return {ours, run("xsec-checksig --idns " + kWsu + " Id " + santuario),
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
        EXPECT_EQ(Verify(envelope), std::make_tuple(true, true, true)) << what;
        EXPECT_FALSE(VerifiedHere(envelope, *TestSupport::OtherResolver())) << what;
    }
    // Tampering with the Body or the Timestamp.
    const std::string& envelope = requests[0].second;
    const size_t expires = envelope.find("<wsu:Expires>") + 13 + 15;  // a minute digit
    std::string later = envelope;
    later[expires] = later[expires] == '9' ? '0' : static_cast<char>(later[expires] + 1);
    for (const std::string& tampered :
         {TestSupport::ReplaceOnce(envelope, "200512/PublicKey", "200512/Bearer"), later}) {
        EXPECT_EQ(Verify(tampered), std::make_tuple(false, false, false));
    }
}

}  // namespace
