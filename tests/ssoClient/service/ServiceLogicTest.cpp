// The token service's own logic over a scripted transport: which request each operation sends,
// what it makes of the reply, the GSS loop, the asynchronous calls, the trace lines and the
// observer; misuse that must throw before anything is sent, and a process that exits with work
// still in flight.
#include <basalt/Log.h>
#include <gtest/gtest.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <set>
#include <thread>

#include "internal/saml/Descriptions.h"
#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/xml/XmlUtils.h"
#include "sts/TestServer.h"
#include "support/ExpectThrow.h"
#include "support/FakeTransport.h"
#include "support/LogCapture.h"
#include "support/SamlAssertionGenerator.h"
#include "support/TestCredentials.h"

namespace {

using namespace SsoClient;
using namespace TestSupport;
using Level = Basalt::Service::Logger;

const std::string kTrust = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/";
const std::string kDown = "Server returned error: 503 Service Unavailable";

std::string Signed(bool holderOfKey, const std::string& version = "2.0") {
    AssertionSpec spec;
    spec.holderOfKey = holderOfKey;
    spec.version = version;
    return MakeSignedAssertion(spec);
}

// What the service issues; signing is slow, so once.
const std::string& Issued() {
    static const std::string xml = Signed(false);
    return xml;
}

// A fresh holder-of-key token for the operations that present one.
std::shared_ptr<const SamlToken> Presented() {
    static const std::string xml = Signed(true);
    return CreateSamlToken(xml, StsResolver().Get());
}

// Answers every request as the token service would, GSS in a single leg.
std::string Answer(const SoapRequest& request) {
    if (request.soapAction == kTrust + "RST/Validate") {
        return ValidateReply(kTrust + "status/valid");
    }
    const bool negotiating = request.envelope.find("BinaryExchange") != std::string::npos;
    return negotiating ? NegotiationReply("ctx", "", Issued())
                       : IssueReply(Issued(), request.soapAction != kTrust + "RST/Renew");
}

std::string Unavailable(const SoapRequest&) {
    throw CommunicationException(kDown);
}

// Answers the service's legs from a script (a null entry, or its end, answers null) and keeps
// the legs it was given.
class ScriptedHandler : public NegotiationHandler {
  public:
    explicit ScriptedHandler(std::vector<const char*> answers) : m_answers(std::move(answers)) {}
    std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>& serverLeg) override {
        seen.emplace_back(serverLeg.begin(), serverLeg.end());
        const char* answer = seen.size() <= m_answers.size() ? m_answers[seen.size() - 1] : nullptr;
        return answer ? std::make_shared<std::vector<unsigned char>>(answer,
                                                                     answer + std::strlen(answer))
                      : nullptr;
    }
    std::vector<std::string> seen;

  private:
    std::vector<const char*> m_answers;
};

// "ok" for a token or a positive verdict, "none" for neither.
std::string Describe(const std::shared_ptr<const SamlToken>& token) {
    return token ? "ok" : "none";
}
std::string Describe(const boost::optional<bool>& valid) {
    return !valid ? "none" : *valid ? "ok" : "false";
}
std::string Xml(const std::shared_ptr<const SamlToken>& token) {
    return token ? token->GetXml() : "null";
}

// Collects asynchronous outcomes as "label result[ exception class: message]".
struct Outcomes {
    // A callback for either kind of result.
    auto For(const std::string& label) {
        return [this, label](const auto& result, const Basalt::Exception* error) {
            std::lock_guard<std::mutex> lock(mutex);
            all.insert(
                label + " " + Describe(result) +
                (error ? " " + Basalt::DemangledName(typeid(*error)) + ": " + error->what() : ""));
            changed.notify_all();
        };
    }
    // Waits for count outcomes (a generous bound, not a delay).
    std::multiset<std::string> Wait(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, std::chrono::minutes(1), [&] { return all.size() >= count; });
        return all;
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::multiset<std::string> all;
};

// A service with the holder-of-key identity over transport.
std::shared_ptr<SecurityTokenService> ScriptedService(
    std::shared_ptr<Transport> transport, std::shared_ptr<ServiceObserver> observer = nullptr) {
    return std::make_shared<SecurityTokenServiceImpl>(
        std::make_shared<RequestBuilderImpl>(LoadHolderOfKey()), std::move(transport),
        std::make_shared<ResponseHandlerImpl>(), CreateSamlTokenFactory(StsResolver().Get()),
        std::move(observer));
}

class ServiceLogicTest : public ::testing::Test {
  protected:
    std::shared_ptr<SecurityTokenService> Service(
        Responder responder = Answer, std::shared_ptr<ServiceObserver> observer = nullptr) {
        m_transport = std::make_shared<FakeTransport>(std::move(responder));
        return ScriptedService(m_transport, std::move(observer));
    }

    std::shared_ptr<FakeTransport> m_transport;
};

// Each operation, synchronous and asynchronous, under its traced name.
struct Operation {
    std::string name;
    // The token's text, or the validation's answer.
    std::function<std::string(const SecurityTokenService&, const SamlToken& presented)> call;
    // Reports to outcomes under label.
    std::function<void(const SecurityTokenService&, const std::shared_ptr<const SamlToken>&,
                       Outcomes& outcomes, const std::string& label)>
        start;
};

enum OperationIndex { kAcquire, kByCertificate, kByToken, kValidate, kRenew, kGss };
const Operation kOperations[] = {
    {"AcquireToken", [](auto& s, auto&) { return Xml(s.AcquireToken("alice", "secret", Spec())); },
     [](auto& s, auto&, auto& o, auto& l) {
         s.AcquireTokenAsync("alice", "secret", Spec(), o.For(l));
     }},
    {"AcquireTokenByCertificate",
     [](auto& s, auto&) { return Xml(s.AcquireTokenByCertificate(Spec())); },
     [](auto& s, auto&, auto& o, auto& l) { s.AcquireTokenByCertificateAsync(Spec(), o.For(l)); }},
    {"AcquireTokenByToken", [](auto& s, auto& t) { return Xml(s.AcquireTokenByToken(t, Spec())); },
     [](auto& s, auto& t, auto& o, auto& l) { s.AcquireTokenByTokenAsync(t, Spec(), o.For(l)); }},
    {"ValidateSubject", [](auto& s, auto& t) { return s.ValidateToken(t) ? "true" : "false"; },
     [](auto& s, auto& t, auto& o, auto& l) { s.ValidateTokenAsync(t, o.For(l)); }},
    {"RenewToken", [](auto& s, auto& t) { return Xml(s.RenewToken(t, 600)); },
     [](auto& s, auto& t, auto& o, auto& l) { s.RenewTokenAsync(t, 600, o.For(l)); }},
    {"AcquireTokenByGSS",
     [](auto& s, auto&) {
         ScriptedHandler handler({"HELLO"});
         return Xml(s.AcquireTokenByGSS(Spec(), handler));
     },
     [](auto& s, auto&, auto& o, auto& l) {
         s.AcquireTokenByGSSAsync(Spec(), std::make_shared<ScriptedHandler>(std::vector{"HELLO"}),
                                  o.For(l));
     }},
};

// Each fault kind and each malformed reply once, through an operation that reads it.
TEST_F(ServiceLogicTest, FaultsAndOddRepliesMapToTheLibraryExceptions) {
    const std::string expired = "Password of the user logging on is expired";
    const std::string valid = ValidateReply(kTrust + "status/valid");
    const std::string gss = NegotiationReply("ctx", "", Issued());
    const std::string format = "Unexpected XML format";
    const ThrowCheck credentials = kThrows<InvalidCredentialsException>;
    const ThrowCheck sso = kThrows<SsoException>;
    // A fault with this code and no faultstring.
    auto fault = [](const std::string& ns, const std::string& code) {
        return SoapEnvelope("<soapenv:Fault><faultcode xmlns:t=\"" + ns + "\">" + code +
                            "</faultcode></soapenv:Fault>");
    };
    struct Case {
        std::string reply;
        std::string message;
        ThrowCheck check = kThrows<SsoException>;
        OperationIndex op = kAcquire;
    };
    const Case cases[] = {
        {SoapFault("wst:FailedAuthentication", expired + ": a"),
         "Authentication failed: " + expired + ": a", kThrows<PasswordExpiredException>},
        {SoapFault("wst:FailedAuthentication", "Note: " + expired),
         "Authentication failed: Note: " + expired, credentials},
        {SoapFault("wst:FailedAuthentication", ""), "Authentication failed", credentials},
        {SoapFault("wst:InvalidSecurityToken", "bad"), "Authentication failed: bad", credentials},
        {SoapFault("wsse:InvalidSecurityToken", "bad"), "Authentication failed: bad", credentials},
        // The code's namespace decides, not its prefix.
        {fault(kTrust.substr(0, kTrust.size() - 1), "t:FailedAuthentication"),
         "Authentication failed", credentials},
        {fault("urn:other", "t:FailedAuthentication"),
         "Unexpected SOAP fault: t:FailedAuthentication; request failed."},
        {SoapEnvelope("<soapenv:Fault/>"), "Invalid SOAP response: missing faultcode."},
        {fault("urn:other", "<x/>"), "Invalid SOAP response: missing faultcode."},
        {SoapFault("nope:Server", "x"), "Element faultcodeat 1,262 uses undefined prefix: `nope'",
         kThrows<ParseException>},
        {ReplaceOnce(ReplaceOnce(valid, "<soapenv:Body>", "<soapenv:Header>"), "</soapenv:Body>",
                     "</soapenv:Header>"),
         "Unexpected response format: missing SAOP Body."},
        // A DOCTYPE never reaches the extractors: the hardened parser refuses it.
        {"<!DOCTYPE x [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>" + valid,
         "Response is not well-formed XML: XML parse error at line 1, column 13: A DOCTYPE "
         "declaration is not allowed"},
        {IssueReply(Issued(), false), format},
        {IssueReply(ReplaceOnce(Issued(), "alice@", "eve@")),
         "Failed to verify signature: token might have been tampered with.",
         kThrows<InvalidSignatureException>},
        // A token that does not parse is the service's failure, not the caller's.
        {IssueReply(Signed(false, "1.0")), "Invalid token version"},
        {ReplaceOnce(valid, "status/valid", "status/unknown"), format, sso, kValidate},
        {ValidateReply("<x/>"),
         "Type mismatch: expected Basalt::Xml::TextNode, got "
         "Basalt::Xml::(anonymous namespace)::ElementNodeImpl",
         kThrows<Basalt::TypeMismatchException>, kValidate},
        {ReplaceOnce(gss, "<wst:TokenType>",
                     "<wst:BinaryExchange>*</wst:BinaryExchange><wst:TokenType>"),
         "Base64 format exception", sso, kGss},
        {ReplaceOnce(gss, "SAML:2.0", "SAML:1.0"),
         "Invalid token type: urn:oasis:names:tc:SAML:1.0:assertion (expected: "
         "urn:oasis:names:tc:SAML:2.0:assertion",
         sso, kGss},
        {NegotiationReply("ctx", "", "<x/>"), format, sso, kGss},
    };
    auto presented = Presented();
    for (const Case& c : cases) {
        auto service = Service([&](const SoapRequest&) { return c.reply; });
        EXPECT_TRUE(
            c.check([&] { kOperations[c.op].call(*service, *presented); }, c.message, false))
            << c.reply;
    }
}

// Every asynchronous operation from several threads at once: each delivers its result or the
// transport's failure exactly once, in a session of its own, after the caller let go.
TEST_F(ServiceLogicTest, AsyncOperationsDeliverOnceAfterTheCallerLetGo) {
    constexpr int kThreads = 4;
    for (bool fails : {false, true}) {
        std::promise<void> open;
        std::shared_future<void> gate = open.get_future().share();
        auto service = Service([gate, fails](const SoapRequest& request) {
            gate.wait();
            return fails ? Unavailable(request) : Answer(request);
        });
        auto presented = Presented();
        Outcomes outcomes;
        std::multiset<std::string> expected;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&] {
                for (const Operation& op : kOperations) {
                    op.start(*service, presented, outcomes, op.name);
                }
            });
            for (const Operation& op : kOperations) {
                expected.insert(op.name + (fails
                                               ? " none SsoClient::CommunicationException: " + kDown
                                               : " ok"));
            }
        }
        for (auto& thread : threads) {
            thread.join();
        }
        // The caller drops the service, the token and the handler while the calls are queued.
        service.reset();
        presented.reset();
        open.set_value();
        EXPECT_EQ(outcomes.Wait(expected.size()), expected);
        EXPECT_EQ(m_transport->Sessions(), static_cast<int>(expected.size()));
    }
    // A handler failing with a foreign exception: the callback sees it once, as SsoException. A
    // null token or handler is refused at once. Nothing is sent.
    struct ThrowingHandler : NegotiationHandler {
        std::shared_ptr<std::vector<unsigned char>> NextLeg(
            const std::vector<unsigned char>&) override {
            throw std::runtime_error("handler broke");
        }
    };
    auto service = Service();
    Outcomes outcomes;
    service->AcquireTokenByGSSAsync(Spec(), std::make_shared<ThrowingHandler>(),
                                    outcomes.For("GSS"));
    const std::function<void()> calls[] = {
        [&] { service->AcquireTokenByTokenAsync(nullptr, Spec(), {}); },
        [&] { service->ValidateTokenAsync(nullptr, {}); },
        [&] { service->RenewTokenAsync(nullptr, 600, {}); },
        [&] { service->AcquireTokenByGSSAsync(Spec(), nullptr, {}); },
    };
    for (const auto& call : calls) {
        EXPECT_TRUE(Throws<Basalt::InvalidArgumentException>(
            call, "A null object cannot be passed by reference"));
    }
    EXPECT_EQ(outcomes.Wait(1),
              std::multiset<std::string>{"GSS none SsoClient::SsoException: Unexpected exception: "
                                         "handler broke"});
    EXPECT_TRUE(m_transport->Requests().empty());
}

TEST_F(ServiceLogicTest, GssNegotiationsAndTheirContractViolations) {
    const std::string noContext =
        "Error processing the response to SPNego token request: no Context ID was returned.";
    const std::string nullLeg = "Invalid NegotiationHandler: the returned leg may not be NULL";
    const std::string warning =
        "4 GSS contract error: non-empty user leg after negotiation is complete";
    const ThrowCheck invalid = kThrows<Basalt::InvalidArgumentException>;
    const ThrowCheck failed = kThrows<CommunicationException>;
    // The nth reply: context "ctx-n" (none for 0), the service's leg, perhaps the token.
    auto reply = [](int n, const std::string& leg, bool token = false) {
        return NegotiationReply(n ? "ctx-" + std::to_string(n) : "", leg, token ? Issued() : "");
    };
    const std::string welcome = reply(1, "WELCOME", true);
    struct Case {
        std::vector<const char*> answers;  // the handler's; null is a null leg
        std::vector<std::string> replies;
        std::vector<std::string> seen;  // the legs the handler is shown
        std::string message;            // the warning written, or the exception's
        ThrowCheck check = nullptr;     // null: a token is issued
    };
    const Case cases[] = {
        {{"HELLO", "R1", "R2"},
         {reply(1, "CH-1"), reply(2, "CH-2"), reply(3, "", true)},
         {"", "CH-1", "CH-2"},
         ""},
        // The handler is shown the last leg; the warning fires on a null or empty answer.
        {{"HELLO", ""}, {welcome}, {"", "WELCOME"}, warning},
        {{"HELLO", nullptr}, {welcome}, {"", "WELCOME"}, warning},
        {{"HELLO", "BYE"}, {welcome}, {"", "WELCOME"}, ""},
        {{nullptr}, {}, {""}, nullLeg, invalid},
        {{"HELLO", nullptr}, {reply(1, "CH")}, {"", "CH"}, nullLeg, invalid},
        {{"HELLO"}, {reply(0, "CH")}, {""}, noContext, failed},
        {{"HELLO", "R1"}, {reply(1, "CH"), reply(0, "", true)}, {"", "CH"}, noContext, failed},
    };
    LogCapture log(Level::LL_Warning);
    for (const Case& c : cases) {
        auto service = Service([&, n = size_t(0)](auto&) mutable { return c.replies.at(n++); });
        ScriptedHandler handler(c.answers);
        auto negotiate = [&] { EXPECT_TRUE(service->AcquireTokenByGSS(Spec(), handler)); };
        if (c.check) {
            EXPECT_TRUE(c.check(negotiate, c.message, false));
        } else {
            negotiate();
        }
        EXPECT_EQ(handler.seen, c.seen) << c.message;
        const std::vector<std::string> lines = log.Take();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), warning), c.message == warning ? 1 : 0);
        // One session; no request for a null leg (each leg's content and context: the end-to-end
        // negotiation with the loopback STS).
        EXPECT_EQ(m_transport->Sessions(), 1);
        EXPECT_EQ(m_transport->Requests().size(), c.replies.size());
    }
}

// Every token comes in its inclusive canonical form (namespaces in scope from the envelope come
// along); trace lines only when the level admits them, and never the password.
TEST_F(ServiceLogicTest, CanonicalTokensAndTraceLinesOnlyWhenTheLevelAdmitsThem) {
    auto token = Presented();
    auto service = Service();
    const std::string issued = kOperations[kAcquire].call(*service, *token);
    EXPECT_NE(issued.find(" xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\""),
              std::string::npos);
    {
        LogCapture log(Level::LL_Verbose);
        EXPECT_TRUE(service->ValidateToken(*token));
        auto renewed = service->RenewToken(*token, 600);
        EXPECT_EQ(log.Take(), std::vector<std::string>{"5 Successfully acquired token: " +
                                                       CreateSamlTokenDescription(*renewed)});
    }
    LogCapture log(Level::LL_Trace);
    service->AcquireToken("alice", "secret", Spec());
    const std::vector<std::string> lines = log.Take();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), "7 START operation SecurityTokenServiceImpl::AcquireToken");
    for (const std::string& line : lines) {
        EXPECT_EQ(line.find("secret"), std::string::npos) << line;
    }
}

// What an observer hears of a call, in order, before the caller hears of its end.
TEST_F(ServiceLogicTest, ObserverHearsEachCallInOrder) {
    struct Recorder : ServiceObserver {
        void OperationStarted(const char* op) override { Add("started " + std::string(op)); }
        void OperationFinished(const char* op, std::chrono::microseconds,
                               Outcome outcome) override {
            const char* names[] = {"Success",   "Rejected", "Communication",
                                   "Cancelled", "Failed",   "Misuse"};
            Add("finished " + std::string(op) + " " + names[static_cast<int>(outcome)]);
        }
        void TokenIssued(const char* op, std::chrono::seconds) override {
            Add("issued " + std::string(op));
        }
        void Add(const std::string& event) {
            std::lock_guard<std::mutex> lock(mutex);
            events.push_back(event);
        }
        std::mutex mutex;
        std::vector<std::string> events;
    };
    const std::pair<Responder, std::vector<std::string>> cases[] = {
        {Answer, {"issued AcquireToken", "finished AcquireToken Success"}},
        {Unavailable, {"finished AcquireToken Communication"}},
    };
    for (bool async : {false, true}) {
        for (auto [responder, expected] : cases) {
            auto recorder = std::make_shared<Recorder>();
            auto service = Service(responder, recorder);
            if (async) {
                std::promise<void> done;
                service->AcquireTokenAsync("alice", "secret", Spec(), [&](auto&, auto*) {
                    recorder->Add("done");
                    done.set_value();
                });
                done.get_future().wait();
            } else {
                try {
                    service->AcquireToken("alice", "secret", Spec());
                } catch (const SsoException&) {
                }
                recorder->Add("done");
            }
            expected.insert(expected.begin(), "started AcquireToken");
            expected.push_back("done");
            std::lock_guard<std::mutex> lock(recorder->mutex);
            EXPECT_EQ(recorder->events, expected) << async;
        }
    }
}

// Each mistake is refused by the factory or the call, and no connection reaches the listener.
TEST(ServiceHardeningTest, MisuseThrowsInvalidArgumentBeforeAnythingIsSent) {
    using namespace std::chrono_literals;
    TestSts::TestServer listener({"--silent"});
    SecurityTokenServiceConfig plain;
    plain.url = listener.Url("/sts");
    plain.tokenFactory = CreateSamlTokenFactory(StsResolver().Get());
    plain.holderOfKey = LoadHolderOfKey();
    plain.allowPlainHttp = true;
    auto with = [&](auto change) {
        SecurityTokenServiceConfig config = plain;
        change(config);
        return [config] { return CreateSecurityTokenService(config); };
    };
    SecurityTokenServiceConfigEx ex;
    ex.url = "/sts";
    const auto limits = [&](ServiceLimits bounds) {
        return with([bounds](auto& c) { c.limits = bounds; });
    };
    const std::string kNoFactory =
        "SecurityTokenServiceConfig.tokenFactory is not set, nor a keyInfoResolver to verify "
        "issued tokens with";
    const std::string limit = "SecurityTokenServiceConfig.limits.";
    const std::string retries =
        limit + "retry needs maxAttempts of at least 1 and baseDelay up to maxDelay";
    const struct {
        std::function<void()> misuse;
        std::string message;
    } cases[] = {
        {with([](auto& c) { c.tokenFactory = nullptr; }), kNoFactory},
        {[&] { CreateSecurityTokenService(ex); },
         "SecurityTokenServiceConfigEx" + kNoFactory.substr(26)},
        {[&] {
             ex.tokenFactory = plain.tokenFactory;
             CreateSecurityTokenService(ex);
         },
         "SecurityTokenServiceConfigEx.userAgent is not set"},
        {with([](auto& c) { c.holderOfKey->certificate = nullptr; }),
         "HolderOfKeyConfig.certificate is null"},
        {with([](auto& c) { c.holderOfKey->privateKey = nullptr; }),
         "HolderOfKeyConfig.privateKey is null"},
        {with([](auto& c) {
             c.holderOfKey = LoadHolderOfKey("certs/other-rsa.pem", "certs/sts-rsa.key");
         }),
         "HolderOfKeyConfig.privateKey does not match HolderOfKeyConfig.certificate"},
        {with([](auto& c) { c.url = "https://127.0.0.1/sts"; }),
         "HTTPS connection requested but no SSLContext provided."},
        {with([](auto& c) { c.allowPlainHttp = false; }),
         "SecurityTokenServiceConfig.holderOfKey needs an https:// url unless "
         "SecurityTokenServiceConfig.allowPlainHttp is set"},
        {[&] {
             SecurityTokenServiceConfig config = plain;
             config.allowPlainHttp = false;
             config.holderOfKey = boost::none;
             CreateSecurityTokenService(config)->AcquireToken("u", "p", Spec());
         },
         "Credentials and tokens are not sent over plain http:// unless "
         "SecurityTokenServiceConfig.allowPlainHttp is set"},
        {limits({0ms, {}, {}}), limit + "connectTimeout must be positive"},
        {limits({{}, -1ms, {}}), limit + "deadline must be positive"},
        {limits({{}, {}, RetryPolicy{3, 0ms, 2s}}), limit + "retry.baseDelay must be positive"},
        {limits({{}, {}, RetryPolicy{3, 1ms, 0ms}}), limit + "retry.maxDelay must be positive"},
        {limits({{}, {}, RetryPolicy{0, 1ms, 2ms}}), retries},
        {limits({{}, {}, RetryPolicy{3, 3ms, 2ms}}), retries},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(Throws<Basalt::InvalidArgumentException>(c.misuse, c.message)) << c.message;
    }
    // A resolver stands in for a missing factory.
    EXPECT_NO_THROW(with([](auto& c) {
        c.tokenFactory = nullptr;
        c.keyInfoResolver = StsResolver();
    })());
    EXPECT_EQ(listener.Stats()["connections"], 0);
}

// Returns from main, in effect, while queued calls verify tokens on the pool (reaching tables
// built lazily there) and others wait on a server that never answers: exit must neither read
// freed memory (the sanitizer fails the child) nor wait for the 240 s reply timeout.
void ExitWithWorkInFlight() {
    // Signed on first use, on the pool, like everything else the tables serve.
    struct Reply {
        std::once_flag once;
        std::string text;
    };
    auto verifying = ScriptedService(
        std::make_shared<FakeTransport>([reply = std::make_shared<Reply>()](const SoapRequest&) {
            std::call_once(reply->once,
                           [&] { reply->text = IssueReply(MakeSignedAssertion(AssertionSpec{})); });
            return reply->text;
        }));
    TestSts::TestServer silent({"--silent"});  // accepts and never answers
    auto hanging = CreateSecurityTokenService(LoopbackStsConfig(silent.Url("/sts")));
    // The first call starts the pool and builds the tables on it, after the pool.
    std::promise<void> first;
    verifying->AcquireTokenAsync("u", "p", Spec(), [&](auto&, auto*) { first.set_value(); });
    first.get_future().wait();
    const auto ignore = [](const std::shared_ptr<const SamlToken>&, const Basalt::Exception*) {};
    for (int i = 0; i < 4; ++i) {
        hanging->AcquireTokenAsync("u", "p", Spec(), ignore);
    }
    for (int i = 0; i < 64; ++i) {
        verifying->AcquireTokenAsync("u", "p", Spec(), ignore);
    }
    std::exit(0);
}

TEST(ServiceHardeningDeathTest, ExitWithQueuedAndHungCallsIsSafeAndPrompt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: no table built yet
    EXPECT_EXIT(ExitWithWorkInFlight(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
