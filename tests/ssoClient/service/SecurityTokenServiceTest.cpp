// The token service end to end against the loopback test STS.
#include <basalt/Exception.h>
#include <basalt/Log.h>
#include <gtest/gtest.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

#include "ServiceTestSupport.h"
#include "TestData.h"

namespace {

using namespace SsoClient;
using namespace ServiceTest;

class SecurityTokenServiceTest : public StsFixture {
  protected:
    void SetUp() override { s_sts->Command("reset"); }

    static std::shared_ptr<SecurityTokenService> Service(bool withHolderOfKey = true) {
        return MakeService(*s_trust, s_sts->Url(), withHolderOfKey);
    }
    static std::shared_ptr<SecurityTokenService> FaultyService(const std::string& faults) {
        return MakeService(*s_trust, s_sts->Url("/fault/" + faults + "/sts/STSService"));
    }
};

int64_t LifetimeSeconds(const SamlToken& token) {
    return (token.GetExpirationTime().GetUtcTime() - token.GetStartTime().GetUtcTime()) / 1000000;
}

TEST_F(SecurityTokenServiceTest, PasswordTokenCarriesWhatWasAskedFor) {
    TokenSpec spec = Spec(1200);
    spec.renewable = true;
    spec.delegable = true;
    spec.audienceRestriction = {"urn:service:b", "urn:service:a"};
    spec.advice = {{"urn:advice:source", {{"colour", {"red", "green"}}}}};
    auto token = Service(false)->AcquireToken("alice", "alice-password", spec);
    ASSERT_TRUE(token);
    EXPECT_EQ(*token->GetSubject(), (PrincipalId{"alice", "example.test"}));
    EXPECT_EQ(token->GetTokenType(), Saml_Bearer);
    EXPECT_EQ(LifetimeSeconds(*token), 1200);
    EXPECT_TRUE(token->IsRenewable());
    EXPECT_TRUE(token->IsDelegable());
    std::set<std::string> audience;
    token->GetAudience(audience);
    EXPECT_EQ(audience, spec.audienceRestriction);
    std::vector<Advice> advice;
    token->GetAdvice(advice);
    ASSERT_EQ(advice.size(), 1u);
    EXPECT_EQ(advice[0].source, "urn:advice:source");
    ASSERT_EQ(advice[0].attributes.size(), 1u);
    EXPECT_EQ(advice[0].attributes[0].values, (std::vector<std::string>{"red", "green"}));
    std::vector<PrincipalId> groups;
    token->GetGroups(groups);
    EXPECT_EQ(groups,
              (std::vector<PrincipalId>{{"Users", "example.test"}, {"Readers", "example.test"}}));
    PersonName name;
    token->GetPersonName(name);
    EXPECT_EQ(name.givenName, "Alice");
    EXPECT_EQ(name.surname, "Liddell");
    EXPECT_EQ(s_sts->Stat("requests"), 1);
}

TEST_F(SecurityTokenServiceTest, HolderOfKeyOperationsChainTogether) {
    auto service = Service();
    auto byCertificate = service->AcquireTokenByCertificate([] {
        TokenSpec spec = Spec(900);
        spec.renewable = true;
        spec.delegable = true;
        return spec;
    }());
    ASSERT_TRUE(byCertificate);
    EXPECT_EQ(byCertificate->GetTokenType(), Saml_HOK);
    EXPECT_EQ(byCertificate->GetSubject()->name, "client-solution");
    EXPECT_TRUE(byCertificate->IsSolution());
    ASSERT_NE(byCertificate->GetHolderOfKeyCertificate(), nullptr);
    EXPECT_TRUE(byCertificate->GetHolderOfKeyCertificate()->Equals(*s_trust->client.certificate));

    auto byToken = service->AcquireTokenByToken(*byCertificate, Spec(300));
    ASSERT_TRUE(byToken);
    EXPECT_EQ(*byToken->GetSubject(), *byCertificate->GetSubject());
    EXPECT_NE(byToken->GetId(), byCertificate->GetId());

    auto renewed = service->RenewToken(*byCertificate, 1800);
    ASSERT_TRUE(renewed);
    EXPECT_NE(renewed->GetId(), byCertificate->GetId());
    EXPECT_EQ(LifetimeSeconds(*renewed), 1800);

    EXPECT_TRUE(service->ValidateToken(*renewed));
    s_sts->Command("revoke " + renewed->GetId());
    EXPECT_FALSE(service->ValidateToken(*renewed));
}

TEST_F(SecurityTokenServiceTest, DelegationAndActingForAnother) {
    auto service = Service();
    TokenSpec delegable = Spec();
    delegable.delegable = true;
    auto solution = service->AcquireTokenByCertificate(delegable);
    ASSERT_TRUE(solution);

    // A holder-of-key password request naming a delegate is sent unsigned and still asks for a
    // holder-of-key token, bound to the delegate.
    TokenSpec delegated = Spec();
    delegated.delegateTo = std::string("client-solution");
    auto token = service->AcquireToken("bob", "bob-password", delegated);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->GetSubject()->name, "bob");
    std::vector<Delegate> chain;
    token->GetDelegationChain(chain);
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].principal.name, "client-solution");

    TokenSpec actAs = Spec();
    actAs.actAsToken = solution;
    auto acting = service->AcquireToken("alice", "alice-password", actAs);
    ASSERT_TRUE(acting);
    EXPECT_EQ(acting->GetSubject()->name, "client-solution");
}

TEST_F(SecurityTokenServiceTest, GssNegotiationOverSeveralLegs) {
    auto service = Service(false);
    TestGssHandler handler("alice@example.test", "alice-password", 2);
    auto token = service->AcquireTokenByGSS(Spec(), handler);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->GetSubject()->name, "alice");
    // Empty first leg, two challenges, then the final WELCOME handed to the handler once more.
    ASSERT_EQ(handler.serverLegs.size(), 4u);
    EXPECT_EQ(handler.serverLegs[0], "");
    EXPECT_EQ(handler.serverLegs[3].rfind("WELCOME", 0), 0u);
    EXPECT_EQ(s_sts->Stat("requests"), 3);
}

TEST_F(SecurityTokenServiceTest, GssContractViolations) {
    auto service = Service(false);
    struct NullOnSecondLeg : NegotiationHandler {
        int calls = 0;
        std::shared_ptr<std::vector<unsigned char>> NextLeg(
            const std::vector<unsigned char>&) override {
            return ++calls == 1 ? std::make_shared<std::vector<unsigned char>>(
                                      std::vector<unsigned char>{'H', 'E', 'L', 'L', 'O', ' ', 'x'})
                                : nullptr;
        }
    };
    struct NullAtOnce : NegotiationHandler {
        std::shared_ptr<std::vector<unsigned char>> NextLeg(
            const std::vector<unsigned char>&) override {
            return nullptr;
        }
    } nullAtOnce;
    try {
        service->AcquireTokenByGSS(Spec(), nullAtOnce);
        FAIL() << "no exception";
    } catch (const Basalt::InvalidArgumentException& e) {
        EXPECT_STREQ(e.what(), "Invalid NegotiationHandler: the returned leg may not be NULL");
    }
    EXPECT_EQ(s_sts->Stat("requests"), 0);  // nothing was sent for that leg

    TestGssHandler handler("alice@example.test", "alice-password");
    try {
        FaultyService("nocontext")->AcquireTokenByGSS(Spec(), handler);
        FAIL() << "no exception";
    } catch (const CommunicationException& e) {
        EXPECT_STREQ(
            e.what(),
            "Error processing the response to SPNego token request: no Context ID was returned.");
    }
}

struct FaultCase {
    const char* faults;
    const std::type_info& exception;
    std::string messageStart;
};

TEST_F(SecurityTokenServiceTest, FaultsAndTransportFailuresMapToTheirExceptions) {
    const FaultCase cases[] = {
        {"soapfault:failed-auth", typeid(InvalidCredentialsException), "Authentication failed: "},
        {"soapfault:failed-auth-empty", typeid(InvalidCredentialsException),
         "Authentication failed"},
        {"soapfault:password-expired", typeid(PasswordExpiredException),
         "Authentication failed: Password of the user logging on is expired"},
        {"soapfault:wst-invalid-token", typeid(InvalidCredentialsException),
         "Authentication failed"},
        {"soapfault:wsse-invalid-token", typeid(InvalidCredentialsException),
         "Authentication failed"},
        {"soapfault:server", typeid(SsoException), "Unexpected SOAP fault: "},
        {"status:503", typeid(CommunicationException), "Server returned error: 503"},
        {"status:404", typeid(CommunicationException), "Server returned error: 404"},
        {"malformed", typeid(SsoException), "Response is not well-formed XML: "},
        {"notsoap", typeid(SsoException), "Unexpected response format: missing SAOP Body."},
        {"nobody", typeid(SsoException), "Unexpected response format: missing SAOP Body."},
        {"notoken", typeid(SsoException), "Unexpected XML format"},
        {"tamper", typeid(InvalidSignatureException), "Failed to verify signature"},
        {"truncate", typeid(CommunicationException), ""},
        {"reset", typeid(CommunicationException), ""},
        {"close", typeid(CommunicationException), ""},
    };
    for (const FaultCase& c : cases) {
        try {
            FaultyService(c.faults)->AcquireToken("alice", "alice-password", Spec());
            ADD_FAILURE() << c.faults << ": no exception";
        } catch (const Basalt::Exception& e) {
            EXPECT_EQ(typeid(e), c.exception) << c.faults << ": " << e.what();
            EXPECT_EQ(std::string(e.what()).rfind(c.messageStart, 0), 0u)
                << c.faults << ": " << e.what();
        }
    }
}

TEST_F(SecurityTokenServiceTest, RealCredentialFailures) {
    auto service = Service(false);
    EXPECT_THROW(service->AcquireToken("alice", "wrong", Spec()), InvalidCredentialsException);
    try {
        service->AcquireToken("expired", "expired-password", Spec());
        FAIL() << "no exception";
    } catch (const PasswordExpiredException& e) {
        EXPECT_EQ(std::string(e.what()).rfind(
                      "Authentication failed: Password of the user logging on is expired", 0),
                  0u);
    }
    try {
        service->AcquireTokenByCertificate(Spec());
        FAIL() << "no exception";
    } catch (const Basalt::InvalidStateException& e) {
        EXPECT_STREQ(e.what(),
                     "No HolderOfKeyConfig provided. Unable to acquire token by certificate");
    }
    EXPECT_EQ(s_sts->Stat("requests"), 2);
}

TEST_F(SecurityTokenServiceTest, AsynchronousOperationsDeliverExactlyOnce) {
    auto service = Service();
    auto hok = service->AcquireTokenByCertificate([] {
        TokenSpec spec = Spec(900);
        spec.renewable = true;
        return spec;
    }());
    ASSERT_TRUE(hok);

    std::mutex mutex;
    std::vector<std::string> outcomes;
    CallbackLatch latch(8);
    auto record = [&](const std::string& what) {
        return [&, what](const std::shared_ptr<const SamlToken>& token,
                         const Basalt::Exception* error) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                outcomes.push_back(what + (token ? " token" : " null") +
                                   (error ? " error" : " ok"));
            }
            latch.CountDown();
        };
    };
    service->AcquireTokenAsync("alice", "alice-password", Spec(), record("password"));
    service->AcquireTokenAsync("alice", "wrong", Spec(), record("badpassword"));
    service->AcquireTokenByCertificateAsync(Spec(), record("certificate"));
    service->AcquireTokenByTokenAsync(hok, Spec(), record("bytoken"));
    service->RenewTokenAsync(hok, 600, record("renew"));
    service->AcquireTokenByGSSAsync(
        Spec(), std::make_shared<TestGssHandler>("bob@example.test", "bob-password"),
        record("gss"));
    service->ValidateTokenAsync(
        hok, [&](const boost::optional<bool>& valid, const Basalt::Exception* error) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                outcomes.push_back(std::string("validate ") +
                                   (valid ? (*valid ? "true" : "false") : "none") +
                                   (error ? " error" : " ok"));
            }
            latch.CountDown();
        });
    FaultyService("status:500")
        ->ValidateTokenAsync(
            hok, [&](const boost::optional<bool>& valid, const Basalt::Exception* error) {
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    outcomes.push_back(std::string("badvalidate ") + (valid ? "set" : "none") +
                                       (error ? " error" : " ok"));
                }
                latch.CountDown();
            });
    // Dropping the caller's references must not disturb the queued work.
    service.reset();
    hok.reset();
    ASSERT_TRUE(latch.Wait());
    std::sort(outcomes.begin(), outcomes.end());
    EXPECT_EQ(outcomes, (std::vector<std::string>{
                            "badpassword null error", "badvalidate none error", "bytoken token ok",
                            "certificate token ok", "gss token ok", "password token ok",
                            "renew token ok", "validate true ok"}));
    EXPECT_EQ(latch.Calls(), 8);
}

TEST_F(SecurityTokenServiceTest, ManyThreadsShareOneService) {
    auto service = MakeService(*s_trust, s_sts->Url(), true, true);
    constexpr int kThreads = 4;
    constexpr int kCallsPerThread = 3;
    std::atomic<int> tokens{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kCallsPerThread; ++i) {
                if (service->AcquireToken("bob", "bob-password", Spec())) {
                    ++tokens;
                }
            }
        });
    }
    CallbackLatch latch(kThreads * kCallsPerThread);
    std::atomic<int> asyncTokens{0};
    for (int i = 0; i < kThreads * kCallsPerThread; ++i) {
        service->AcquireTokenByCertificateAsync(
            Spec(), [&](const std::shared_ptr<const SamlToken>& token, const Basalt::Exception*) {
                if (token) {
                    ++asyncTokens;
                }
                latch.CountDown();
            });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(latch.Wait());
    EXPECT_EQ(tokens, kThreads * kCallsPerThread);
    EXPECT_EQ(asyncTokens, kThreads * kCallsPerThread);
    EXPECT_EQ(latch.Calls(), kThreads * kCallsPerThread);
}

class CapturingSink {
  public:
    CapturingSink() {
        Basalt::Service::SetLogSink(
            [this](const Basalt::Service::Logger& logger, int level, std::string_view message) {
                // The connection specs trace each TLS handshake; only the service's lines count
                // here.
                if (logger.GetName() == "SsoClient" && message.rfind("TLS connection", 0) != 0) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_lines.push_back(std::to_string(level) + " " + std::string(message));
                }
            });
    }
    ~CapturingSink() { Basalt::Service::SetLogSink({}); }
    std::vector<std::string> Lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

  private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// Counts how often a description reads the token's groups.
class CountingToken : public SamlToken {
  public:
    explicit CountingToken(std::shared_ptr<const SamlToken> token) : m_token(std::move(token)) {}
    virtual ~CountingToken() = default;
    const std::string& GetId() const override { return m_token->GetId(); }
    const Basalt::System::DateTime& GetStartTime() const override {
        return m_token->GetStartTime();
    }
    const Basalt::System::DateTime& GetExpirationTime() const override {
        return m_token->GetExpirationTime();
    }
    Basalt::System::DateTime GetExpirationTimeWithTolerance() const override {
        return m_token->GetExpirationTimeWithTolerance();
    }
    const PrincipalId* GetSubject() const override { return m_token->GetSubject(); }
    bool IsRenewable() const override { return m_token->IsRenewable(); }
    int32_t GetRenewCount() const override { return m_token->GetRenewCount(); }
    bool IsDelegable() const override { return m_token->IsDelegable(); }
    int32_t GetDelegableCount() const override { return m_token->GetDelegableCount(); }
    bool IsSolution() const override { return m_token->IsSolution(); }
    TokenType GetTokenType() const override { return m_token->GetTokenType(); }
    void GetPersonName(PersonName& name) const override { m_token->GetPersonName(name); }
    void GetGroups(std::vector<PrincipalId>& groups) const override {
        ++groupReads;
        m_token->GetGroups(groups);
    }
    void GetDelegationChain(std::vector<Delegate>& chain) const override {
        m_token->GetDelegationChain(chain);
    }
    void GetAudience(std::set<std::string>& audience) const override {
        m_token->GetAudience(audience);
    }
    void GetAdvice(std::vector<Advice>& advice) const override { m_token->GetAdvice(advice); }
    Basalt::Crypto::Certificate* GetHolderOfKeyCertificate() const override {
        return m_token->GetHolderOfKeyCertificate();
    }
    const std::string& GetIssuer() const override { return m_token->GetIssuer(); }
    Basalt::Xml::Security::Signature* GetSignature() const override {
        return m_token->GetSignature();
    }
    const std::string& GetXml() const override { return m_token->GetXml(); }
    void GetUnsupportedInfo() const override { m_token->GetUnsupportedInfo(); }

    mutable int groupReads = 0;

  private:
    std::shared_ptr<const SamlToken> m_token;
};

TEST_F(SecurityTokenServiceTest, TraceLinesOnlyWhenTheLevelAdmitsThem) {
    auto service = Service(false);
    auto issued = service->AcquireToken("alice", "alice-password", Spec());
    ASSERT_TRUE(issued);
    CountingToken token(issued);
    Basalt::Service::Logger* logger = Basalt::Service::FindLogger("SsoClient");
    ASSERT_NE(logger, nullptr);
    const int previous = logger->GetLevel();

    {
        CapturingSink sink;
        logger->SetLevel(Basalt::Service::Logger::LL_Warning);
        EXPECT_TRUE(service->ValidateToken(token));
        EXPECT_EQ(token.groupReads, 0);  // no description was made
        EXPECT_TRUE(sink.Lines().empty());

        logger->SetLevel(Basalt::Service::Logger::LL_Trace);
        EXPECT_TRUE(service->ValidateToken(token));
        std::vector<std::string> lines = sink.Lines();
        ASSERT_EQ(lines.size(), 4u) << ::testing::PrintToString(lines);
        EXPECT_EQ(lines[0], "7 START operation SecurityTokenServiceImpl::ValidateSubject");
        EXPECT_EQ(lines[1], "7 Validating subject of token " + CreateSamlTokenDescription(*issued));
        EXPECT_EQ(lines[2], "7 Result: true");
        EXPECT_EQ(lines[3], "7 END operation SecurityTokenServiceImpl::ValidateSubject");

        auto again = service->AcquireToken("alice", "alice-password", Spec());
        lines = sink.Lines();
        ASSERT_EQ(lines.size(), 10u);
        EXPECT_EQ(lines[4], "7 START operation SecurityTokenServiceImpl::AcquireToken");
        EXPECT_EQ(
            lines[5].rfind(
                "7 Requested token for subject `alice', spec `TokenSpec [tokenLifetimeSec=600,", 0),
            0u);
        EXPECT_EQ(lines[6], "7 SecurityTokenServiceImpl::AcquireToken sending request");
        EXPECT_EQ(lines[7], "7 SecurityTokenServiceImpl::AcquireToken processing response");
        EXPECT_EQ(lines[8], "5 Successfully acquired token: " + CreateSamlTokenDescription(*again));
        EXPECT_EQ(lines[9], "7 END operation SecurityTokenServiceImpl::AcquireToken");

        // A failed operation writes no END line.
        EXPECT_THROW(FaultyService("status:503")->AcquireToken("alice", "alice-password", Spec()),
                     CommunicationException);
        lines = sink.Lines();
        ASSERT_EQ(lines.size(), 13u);
        EXPECT_EQ(lines[10], "7 START operation SecurityTokenServiceImpl::AcquireToken");
        EXPECT_EQ(lines[12], "7 SecurityTokenServiceImpl::AcquireToken sending request");
    }
    logger->SetLevel(previous);
}

}  // namespace
