// Signed requests checked by implementations other than ours: Apache Santuario's xsec-checksig and
// the xmlsec1 command-line tool, each given the signer's certificate out of band.
#include <gtest/gtest.h>

#include "RequestTestSupport.h"
#include "TestData.h"
#include "internal/requests/RequestBuilder.h"
#include "support/SamlAssertionGenerator.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace RequestTest;

const std::string kWsu =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";
const std::string kCertificate = std::string(SSOCLIENT_TEST_DATA_DIR) + "/certs/sts-rsa.pem";

// Whether xsec-checksig and xmlsec1 both accept the envelope.
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
    return {
        run("xsec-checksig --idns " + kWsu + " Id " + santuario),
        run("xmlsec1 --verify --enabled-reference-uris same-doc --pubkey-cert-pem " + kCertificate +
            " --id-attr:Id http://schemas.xmlsoap.org/soap/envelope/:Body --id-attr:Id " + kWsu +
            ":Timestamp " + xmlsec)};
}

TEST(SignedRequestInteropTest, EverySignedOperationVerifiesElsewhereAndTamperingIsDetected) {
    const RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    TokenSpec spec = TestSupport::Spec(300);
    spec.advice = {{"urn:src", {{"a", {"1"}}}}};
    const TextToken token = DataToken();
    const std::pair<const char*, SoapRequest> requests[] = {
        {"certificate", builder.BuildAcquireTokenByCertificateRequest(spec)},
        {"password", builder.BuildAcquireTokenRequest("alice", "pw", spec)},
        {"token", builder.BuildAcquireTokenByTokenRequest(token, spec)},
        {"renew", builder.BuildRenewTokenRequest(token, 120)},
        {"gss", builder.BuildAcquireTokenByGSSRequest({9, 8, 7}, spec)},
    };
    for (const auto& [what, request] : requests) {
        EXPECT_EQ(Verify(request.envelope), std::make_pair(true, true)) << what;
    }
    // Tampering with the Body or the Timestamp.
    const std::string& envelope = requests[0].second.envelope;
    const size_t expires = envelope.find("<wsu:Expires>") + 13 + 15;  // a minute digit
    std::string later = envelope;
    later[expires] = later[expires] == '9' ? '0' : static_cast<char>(later[expires] + 1);
    for (const std::string& tampered :
         {TestSupport::ReplaceOnce(envelope, "200512/PublicKey", "200512/Bearer"), later}) {
        EXPECT_EQ(Verify(tampered), std::make_pair(false, false));
    }
}

}  // namespace
