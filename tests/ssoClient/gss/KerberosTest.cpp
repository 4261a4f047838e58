// Kerberos logon end to end: a real MIT KDC (sts/kdc.py) issues the tickets, and the test STS
// accepts the SPNEGO legs with its service keytab (python-gssapi, an independent implementation).
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/KerberosNegotiationHandler.h>

#include <cstdlib>
#include <future>

#include "sts/TestServer.h"
#include "support/ExpectThrow.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using Basalt::Gss::CredentialSource;
using TestSupport::Spec;

const std::string kNoCredentials =
    "No credentials were supplied, or the credentials were unavailable or inaccessible: ";

class KerberosTest : public ::testing::Test {
  protected:
    // One KDC and one STS for the suite. Kerberos reads its configuration from the environment,
    // which is set before any negotiation thread exists; the default cache does not exist.
    static void SetUpTestSuite() {
        s_kdc = std::make_unique<TestSts::Kdc>();
        setenv("KRB5_CONFIG", (Dir() + "/krb5.conf").c_str(), 1);
        setenv("KRB5CCNAME", ("FILE:" + Dir() + "/default.ccache").c_str(), 1);
        setenv("KRB5RCACHEDIR", Dir().c_str(), 1);  // the STS's replay cache
        s_sts = std::make_unique<TestSts::WsTrustSts>(
            std::vector<std::string>{"--keytab", Dir() + "/http.keytab"});
    }
    static void TearDownTestSuite() {
        s_sts.reset();
        s_kdc.reset();
        for (const char* name : {"KRB5_CONFIG", "KRB5CCNAME", "KRB5RCACHEDIR"}) {
            unsetenv(name);
        }
    }
    static std::string Dir() { return s_kdc->Dir(); }

    static std::shared_ptr<SecurityTokenService> Service() {
        return CreateSecurityTokenService(TestSupport::LoopbackStsConfig(s_sts->Url()));
    }

    static std::shared_ptr<NegotiationHandler> Handler(CredentialSource source,
                                                       const std::string& file,
                                                       const std::string& target = "HTTP@localhost",
                                                       const std::string& principal = "") {
        KerberosOptions options;
        options.credentials = {source, file.empty() ? "" : Dir() + "/" + file, principal};
        if (target.find('/') != std::string::npos) {
            options.targetKind = Basalt::Gss::TargetKind::Principal;
        }
        return CreateKerberosNegotiationHandler(target, options);
    }

    static inline std::unique_ptr<TestSts::Kdc> s_kdc;
    static inline std::unique_ptr<TestSts::WsTrustSts> s_sts;
};

// Hands every leg to the Kerberos handler, the service's final one with a byte flipped.
struct TamperingHandler : NegotiationHandler {
    explicit TamperingHandler(std::shared_ptr<NegotiationHandler> wrapped) : inner(wrapped) {}
    std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>& serverLeg) override {
        std::vector<unsigned char> leg = serverLeg;
        if (!leg.empty()) {
            leg[leg.size() - 1] ^= 1;
        }
        return inner->NextLeg(leg);
    }
    std::shared_ptr<NegotiationHandler> inner;
};

// The logons run at once, each with its own handler, which serves one logon on a thread of ours
// and then one from the pool.
TEST_F(KerberosTest, EveryCredentialSourceLogsOnAsItsPrincipal) {
    const struct {
        CredentialSource source;
        const char *file, *target, *principal, *user;
    } cases[] = {
        {CredentialSource::ClientKeytab, "alice.keytab", "HTTP@localhost", "", "alice"},
        {CredentialSource::ClientKeytab, "bob.keytab", "HTTP/localhost@SSOCLIENT.TEST",
         "bob@SSOCLIENT.TEST", "bob"},
        {CredentialSource::Cache, "alice.ccache", "HTTP@localhost", "", "alice"},  // kinit
    };
    const auto service = Service();
    const auto upn = [](const std::shared_ptr<const SamlToken>& token) {
        return token ? token->GetSubject()->name + "@" + token->GetSubject()->domain : "none";
    };
    std::vector<std::future<std::string>> logons;
    for (const auto& c : cases) {
        auto handler = Handler(c.source, c.file, c.target, c.principal);
        logons.push_back(std::async(std::launch::async, [&, handler] {
            const auto pooled = std::make_shared<std::promise<std::string>>();
            const std::string own = upn(service->AcquireTokenByGSS(Spec(), *handler));
            service->AcquireTokenByGSSAsync(
                Spec(), handler, [=](const auto& token, auto*) { pooled->set_value(upn(token)); });
            return own + " " + pooled->get_future().get();
        }));
    }
    for (size_t i = 0; i < logons.size(); ++i) {
        const std::string expected = cases[i].user + std::string("@example.test");
        EXPECT_EQ(logons[i].get(), expected + " " + expected);
    }
}

TEST_F(KerberosTest, FailuresSayWhatWentWrong) {
    const std::string dir = Dir();
    auto tampered = [&] {
        return std::make_shared<TamperingHandler>(
            Handler(CredentialSource::ClientKeytab, "alice.keytab"));
    };
    const struct {
        const char* name;
        std::shared_ptr<NegotiationHandler> handler;
        bool kdcDown, invalidCredentials;  // otherwise CommunicationException
        std::string message;
    } cases[] = {
        {"no default cache", Handler(CredentialSource::DefaultCache, ""), false, true,
         "Cannot acquire Kerberos credentials from the default cache: " + kNoCredentials +
             "No Kerberos credentials available (default cache: FILE:" + dir + "/default.ccache)"},
        {"expired tickets", Handler(CredentialSource::Cache, "expired.ccache"), false, true,
         "Cannot acquire Kerberos credentials from cache " + dir +
             "/expired.ccache: The referenced credential has expired"},
        {"unknown service", Handler(CredentialSource::ClientKeytab, "alice.keytab", "HTTP@nowhere"),
         false, false,
         "Kerberos negotiation with HTTP@nowhere failed: Server HTTP/nowhere@SSOCLIENT.TEST not "
         "found in Kerberos database"},
        {"KDC down", Handler(CredentialSource::ClientKeytab, "alice.keytab"), true, false,
         "Cannot acquire Kerberos credentials from keytab " + dir + "/alice.keytab: " +
             kNoCredentials + "Cannot contact any KDC for realm 'SSOCLIENT.TEST'"},
        // The service's final leg must prove its identity.
        {"tampered final leg", tampered(), false, false,
         "Kerberos negotiation with HTTP@localhost failed: "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.kdcDown) {
            s_kdc->Command("stop");
        }
        auto acquire = [&] { Service()->AcquireTokenByGSS(Spec(), *c.handler); };
        const bool prefix = c.message.back() == ' ';
        EXPECT_TRUE(c.invalidCredentials
                        ? TestSupport::Throws<InvalidCredentialsException>(acquire, c.message)
                        : TestSupport::Throws<CommunicationException>(acquire, c.message, prefix));
        if (c.kdcDown) {
            s_kdc->Command("start");
        }
    }
}

}  // namespace
