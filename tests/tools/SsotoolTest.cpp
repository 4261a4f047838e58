// ssotool as a user runs it: a child process against the loopback test STS, judged by its exit
// status and standard output.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "TestData.h"
#include "sts/TestServer.h"
#include "support/SamlAssertionGenerator.h"

namespace {

const std::string kData = SSOCLIENT_TEST_DATA_DIR "/";

// Runs ssotool with input on its standard input; standard error stays the test's. Returns the
// exit status and standard output.
std::pair<int, std::string> Tool(const std::vector<std::string>& args,
                                 const std::string& input = "") {
    const TestData::TempDir dir("ssotool-input");
    std::string command = SSOTOOL;
    for (const std::string& arg : args) {
        command += " '" + arg + "'";  // no argument here holds a quote
    }
    return TestSupport::RunCommand(command + " < " + dir.Write("input", input));
}

class SsotoolTest : public ::testing::Test {
  protected:
    // The command with the options that reach the loopback STS and trust its tokens.
    std::vector<std::string> Sts(const std::string& command, std::vector<std::string> args) const {
        args.insert(args.begin(), {command, "--sts", m_sts.Url(), "--ca", kData + "sts/ca.pem",
                                   "--trust", kData + "sts/signing.pem"});
        return args;
    }

    TestSts::WsTrustSts m_sts;
    TestData::TempDir m_dir{"ssotool"};
};

TEST_F(SsotoolTest, AcquiresInspectsValidatesAndRenews) {
    const std::string hok = m_dir.File("hok.xml"), renewed = m_dir.File("renewed.xml");
    const std::string cert = kData + "sts/client.pem", key = kData + "sts/client.key";
    const struct {
        std::vector<std::string> args;
        std::string out;  // empty: standard output
        std::string subject, confirmation;
        int lifetime;
        std::string input = "";
    } cases[] = {
        {Sts("acquire", {"--user", "alice", "--password-file", "-"}), "", "alice@example.test",
         "bearer", 3600, "alice-password\n"},
        {Sts("acquire", {"--cert", cert, "--key", key, "--renewable", "--out", hok}), hok,
         "client-solution@example.test", "holder-of-key", 3600},
        {Sts("renew", {hok, "--cert", cert, "--key", key, "--lifetime", "1200", "--out", renewed}),
         renewed, "client-solution@example.test", "holder-of-key", 1200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.subject);
        const auto [status, out] = Tool(c.args, c.input);
        ASSERT_EQ(status, 0);
        const std::string file = c.out.empty() ? m_dir.Write("token.xml", out) : c.out;
        const auto json = nlohmann::json::parse(Tool({"inspect", "--json", file}).second);
        EXPECT_EQ(json["subject"], c.subject);
        EXPECT_EQ(json["confirmation"], c.confirmation);
        EXPECT_NEAR(json["secondsLeft"].get<int>(), c.lifetime, 60);
        const auto valid = Tool({"validate", file, "--trust", kData + "sts/signing.pem"});
        EXPECT_EQ(valid.first, 0);
        const std::string name = c.subject.substr(0, c.subject.find('@'));
        EXPECT_EQ(valid.second.rfind("valid: SamlToken [subject={Name: " + name + ";", 0), 0u);
    }
}

TEST_F(SsotoolTest, VerdictsAndExitCodes) {
    TestSupport::AssertionSpec expired;
    expired.notBeforeOffsetSec = -7200;
    expired.notOnOrAfterOffsetSec = -3600;
    const std::string assertion = TestSupport::MakeSignedAssertion({});
    const std::string saml = m_dir.Write("saml.xml", assertion);
    const std::string old = m_dir.Write("old.xml", TestSupport::MakeSignedAssertion(expired));
    const std::string forged = m_dir.Write(
        "forged.xml", TestSupport::ReplaceOnce(assertion, "alice@example", "admin@example"));
    std::string jwt = TestSupport::RunCommand("/usr/bin/python3 " + kData +
                                              "../sts/issue_jwt.py alice@example.test "
                                              "'Alice Liddell' Users@example.test")
                          .second;
    const std::string bearer = m_dir.Write("bearer.jwt", jwt);
    const std::string sts = kData + "sts/signing.pem", other = kData + "certs/sts-rsa.pem";
    auto jwtCheck = [&](const std::string& audience) {
        return std::vector<std::string>{"validate", bearer,       "--jwt", "--key",
                                        sts,        "--audience", audience};
    };
    TestSts::TestServer refused;
    refused.Command("stop");
    const std::string nowhere = "https://localhost:" + std::to_string(refused.Port()) + "/sts";
    const struct {
        int status;
        std::string out;  // the start of standard output
        std::vector<std::string> args;
        std::string input = "";
    } cases[] = {
        {0, "valid: SamlToken [subject={Name: alice;", {"validate", saml, "--trust", other}},
        {1,
         "invalid: Failed to verify signature: token might have been tampered with.\n",
         {"validate", forged, "--trust", other}},
        {1, "invalid: The token has expired at: ", {"validate", old, "--trust", other}},
        {0, "valid: ", {"validate", old, "--trust", other, "--tolerance", "4000"}},
        {0, "Format:        SAML 2.0 assertion", {"inspect", old}},
        {0, "valid: SamlToken [subject={Name: alice;", jwtCheck("urn:sso-demo")},
        {1, "invalid: Missing or incorrect audience\n", jwtCheck("urn:other")},
        {0, "Format:        JWT (signature not checked)\n", {"inspect", "-"}, jwt},
        {1, "", {"inspect", "-"}, "not a token"},
        {1, "", Sts("acquire", {"--user", "alice", "--password-file", "-"}), "wrong\n"},
        {2, "", Sts("acquire", {"--user", "alice"})},  // no terminal to prompt on
        {2, "", Sts("acquire", {})},
        {2, "", {"validate", saml}},
        {3,
         "",
         {"acquire", "--sts", nowhere, "--trust", sts, "--user", "alice", "--password-file", "-"},
         "x\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1] + " " + c.input);
        const auto [status, out] = Tool(c.args, c.input);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(out.substr(0, c.out.size()), c.out) << out;
    }
}

}  // namespace
