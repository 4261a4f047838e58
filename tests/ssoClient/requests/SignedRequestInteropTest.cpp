// Signed requests checked by implementations other than ours: Apache Santuario's xsec-checksig
// and the xmlsec1 command-line tool, each given the signer's certificate out of band.
#include <basalt/Crypto.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <array>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "RequestTestSupport.h"
#include "TestData.h"
#include "internal/requests/RequestBuilder.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace RequestTest;

constexpr char kWsuNs[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";

struct CommandResult {
    int status;
    std::string output;
};

CommandResult RunCommand(const std::string& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((command + " 2>&1").c_str(), "r"), pclose);
    if (!pipe) {
        return {-1, "popen failed"};
    }
    std::string output;
    std::array<char, 512> buffer;
    for (size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0;) {
        output.append(buffer.data(), n);
    }
    int status = pclose(pipe.release());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

class SignedRequestInteropTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (RunCommand("command -v xsec-checksig && command -v xmlsec1").status != 0) {
            GTEST_SKIP()
                << "xml-security-c-utils and xmlsec1 are needed (run-tests.sh installs them)";
        }
        m_dir = ::testing::TempDir() + "signed-request-" + std::to_string(::getpid()) + "/";
        std::system(("mkdir -p " + m_dir).c_str());
    }

    std::string Write(const std::string& name, const std::string& text) {
        std::ofstream(m_dir + name, std::ios::binary) << text;
        return m_dir + name;
    }

    // Santuario takes the key from KeyInfo only, so the reference to the header token is
    // swapped for the certificate itself; KeyInfo lies outside what the signature covers.
    std::string WithInlineCertificate(std::string envelope) {
        const std::string pem = TestData::Read("certs/sts-rsa.pem");
        size_t begin = pem.find('\n') + 1;
        std::string base64 = pem.substr(begin, pem.find("-----END") - begin);
        size_t start = envelope.find("<ds:KeyInfo>");
        size_t stop = envelope.find("</ds:KeyInfo>");
        EXPECT_NE(start, std::string::npos);
        EXPECT_NE(stop, std::string::npos);
        return envelope.replace(start, stop - start,
                                "<ds:KeyInfo><ds:X509Data><ds:X509Certificate>" + base64 +
                                    "</ds:X509Certificate></ds:X509Data>");
    }

    CommandResult Santuario(const std::string& envelope) {
        std::string file = Write("santuario.xml", WithInlineCertificate(envelope));
        return RunCommand(std::string("xsec-checksig --idns ") + kWsuNs + " Id " + file);
    }

    CommandResult Xmlsec(const std::string& envelope) {
        std::string file = Write("xmlsec.xml", envelope);
        std::string cert = m_dir + "cert.pem";
        std::ofstream(cert) << TestData::Read("certs/sts-rsa.pem");
        return RunCommand("xmlsec1 --verify --enabled-reference-uris same-doc --pubkey-cert-pem " +
                          cert +
                          " --id-attr:Id http://schemas.xmlsoap.org/soap/envelope/:Body"
                          " --id-attr:Id " +
                          kWsuNs + ":Timestamp " + file);
    }

    std::string m_dir;
};

TEST_F(SignedRequestInteropTest, EverySignedOperationVerifiesElsewhere) {
    RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    TokenSpec spec;
    spec.tokenLifetimeSec = 300;
    spec.advice = {{"urn:src", {{"a", {"1"}}}}};
    TextToken token(TestData::Read("requests/assertion.xml"),
                    "_4c5a2d8e-0f1b-4a77-9c1e-5d7f00b1c0de", Saml_HOK);
    const std::pair<const char*, SoapRequest> requests[] = {
        {"certificate", builder.BuildAcquireTokenByCertificateRequest(spec)},
        {"password", builder.BuildAcquireTokenRequest("alice", "pw", spec)},
        {"renew", builder.BuildRenewTokenRequest(token, 120)},
        {"gss", builder.BuildAcquireTokenByGSSRequest({9, 8, 7}, spec)},
    };
    for (const auto& [what, request] : requests) {
        CommandResult santuario = Santuario(request.envelope);
        EXPECT_EQ(santuario.status, 0) << what << "\n"
                                       << santuario.output << "\n"
                                       << request.envelope;
        CommandResult xmlsec = Xmlsec(request.envelope);
        EXPECT_EQ(xmlsec.status, 0) << what << "\n" << xmlsec.output;
    }
}

TEST_F(SignedRequestInteropTest, TamperingWithEitherSignedPartIsDetected) {
    RequestBuilderImpl builder(TestSupport::LoadHolderOfKey());
    TokenSpec spec;
    spec.tokenLifetimeSec = 300;
    const std::string envelope = builder.BuildAcquireTokenByCertificateRequest(spec).envelope;
    struct Edit {
        const char* what;
        std::string from;
        std::string to;
    };
    const std::string bearer = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/Bearer";
    const std::string publicKey = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/PublicKey";
    size_t expiresAt = envelope.find("<wsu:Expires>") + 13;
    std::string expires = envelope.substr(expiresAt, 24);
    std::string later = expires;
    later[15] = later[15] == '9' ? '0' : static_cast<char>(later[15] + 1);
    for (const Edit& edit : {Edit{"body", publicKey, bearer}, Edit{"timestamp", expires, later}}) {
        std::string tampered = envelope;
        size_t at = tampered.find(edit.from);
        ASSERT_NE(at, std::string::npos) << edit.what;
        tampered.replace(at, edit.from.size(), edit.to);
        EXPECT_NE(Santuario(tampered).status, 0) << edit.what;
        EXPECT_NE(Xmlsec(tampered).status, 0) << edit.what;
    }
    EXPECT_EQ(Santuario(envelope).status, 0);
}

}  // namespace
