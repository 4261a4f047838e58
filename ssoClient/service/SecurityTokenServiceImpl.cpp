#include "internal/service/SecurityTokenServiceImpl.h"

#include <basalt/Exception.h>
#include <basalt/Log.h>
#include <basalt/StringUtil.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>

#include "internal/FailureNotes.h"
#include "internal/Logger.h"
#include "internal/saml/Descriptions.h"
#include "internal/service/AsyncCall.h"

namespace SsoClient {

namespace {

using Basalt::PrintFormatter;
using Level = Basalt::Service::Logger;

bool Tracing() {
    return GetLogger()->IsEnabled(Level::LL_Trace);
}

void Trace(const char* format) {
    Basalt::Service::LogInternal(GetLogger(), Level::LL_Trace, format);
}

void Trace(const char* format, const PrintFormatter& arg) {
    Basalt::Service::LogInternal(GetLogger(), Level::LL_Trace, format, arg);
}

void Trace(const char* format, const PrintFormatter& arg1, const PrintFormatter& arg2) {
    Basalt::Service::LogInternal(GetLogger(), Level::LL_Trace, format, arg1, arg2);
}

void TraceEnd(const char* label) {
    if (Tracing()) {
        Trace("END operation SecurityTokenServiceImpl::%1", PrintFormatter(label));
    }
}

// START on entry, END only when the operation returns normally.
class OperationTrace {
  public:
    explicit OperationTrace(const char* label) : m_label(label) {
        if (Tracing()) {
            Trace("START operation SecurityTokenServiceImpl::%1", PrintFormatter(m_label));
        }
    }
    void End() const { TraceEnd(m_label); }

  private:
    const char* m_label;
};

// Runs an operation on this thread's failure notes, logging its failure, and tells the observer.
template <class Operation>
auto Reported(const char* label, const std::shared_ptr<ServiceObserver>& observer,
              const Operation& operation) -> decltype(operation(std::declval<Observation&>())) {
    ThreadFailureNotes() = FailureNotes();
    Observation observed(observer, label);
    try {
        auto result = operation(observed);
        observed.Finished(nullptr);
        return result;
    } catch (const Basalt::Exception& error) {
        LogFailure(label, error);
        observed.Finished(&error);
        throw;
    } catch (...) {
        ReportFailure(std::current_exception(),
                      [&](const Basalt::Exception* error) { observed.Finished(error); });
        throw;
    }
}

}  // namespace

SecurityTokenServiceImpl::SecurityTokenServiceImpl(std::shared_ptr<RequestBuilder> requestBuilder,
                                                   std::shared_ptr<Transport> transport,
                                                   std::shared_ptr<ResponseHandler> responseHandler,
                                                   std::shared_ptr<SamlTokenFactory> tokenFactory,
                                                   std::shared_ptr<ServiceObserver> observer,
                                                   const Basalt::System::Clock& clock)
    : m_requestBuilder(std::move(requestBuilder)),
      m_transport(std::move(transport)),
      m_responseHandler(std::move(responseHandler)),
      m_tokenFactory(std::move(tokenFactory)),
      m_observer(std::move(observer)),
      m_clock(clock) {}

Basalt::Ref<Basalt::Reader> SecurityTokenServiceImpl::Exchange(const SoapRequest& request) const {
    std::shared_ptr<TransportSession> session = m_transport->CreateSession();
    return session->SendAndWait(request);
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::MakeToken(
    const std::string& text, const Observation& observed) const {
    if (text.empty()) {
        return nullptr;
    }
    std::shared_ptr<const SamlToken> token;
    try {
        token = m_tokenFactory->CreateSamlToken(text);
    } catch (const ParseException& e) {
        // A token the service has just issued that does not parse is the service's failure.
        throw SsoException(e.what());
    }
    if (GetLogger()->IsEnabled(Level::LL_Info)) {
        Basalt::Service::LogInternal(GetLogger(), Level::LL_Info, "Successfully acquired token: %1",
                                     PrintFormatter(CreateSamlTokenDescription(*token)));
    }
    observed.Issued(token.get(), m_clock);
    return token;
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::IssuedToken(
    Basalt::Reader& reply, const Observation& observed) const {
    // Every issue operation reports its reply under AcquireToken's name.
    if (Tracing()) {
        Trace("SecurityTokenServiceImpl::AcquireToken processing response");
    }
    std::string text;
    m_responseHandler->ExtractIssuedToken(&reply, text);
    return MakeToken(text, observed);
}

bool SecurityTokenServiceImpl::ValidationResult(Basalt::Reader& reply) const {
    bool valid = m_responseHandler->ExtractValidationResult(&reply);
    if (Tracing()) {
        Trace("Result: %1", PrintFormatter(valid));
    }
    return valid;
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::IssueToken(
    const SoapRequest& request, bool traceSending, const Observation& observed) const {
    if (traceSending && Tracing()) {
        Trace("SecurityTokenServiceImpl::AcquireToken sending request");
    }
    Basalt::Ref<Basalt::Reader> reply = Exchange(request);
    return IssuedToken(*reply, observed);
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::AcquireToken(
    const std::string& user, const std::string& password, const TokenSpec& spec) const {
    return Reported("AcquireToken", m_observer, [&](const Observation& observed) {
        OperationTrace trace("AcquireToken");
        if (Tracing()) {
            Trace("Requested token for subject `%1', spec `%2'", PrintFormatter(user),
                  PrintFormatter(DescribeTokenSpec(spec)));
        }
        auto token = IssueToken(m_requestBuilder->BuildAcquireTokenRequest(user, password, spec),
                                true, observed);
        trace.End();
        return token;
    });
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::AcquireTokenByCertificate(
    const TokenSpec& spec) const {
    return Reported("AcquireTokenByCertificate", m_observer, [&](const Observation& observed) {
        OperationTrace trace("AcquireTokenByCertificate");
        if (Tracing()) {
            Trace("Requested token with spec `%1'", PrintFormatter(DescribeTokenSpec(spec)));
        }
        auto token = IssueToken(m_requestBuilder->BuildAcquireTokenByCertificateRequest(spec),
                                false, observed);
        trace.End();
        return token;
    });
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::AcquireTokenByToken(
    const SamlToken& presented, const TokenSpec& spec) const {
    return Reported("AcquireTokenByToken", m_observer, [&](const Observation& observed) {
        OperationTrace trace("AcquireTokenByToken");
        if (Tracing()) {
            Trace("Requested token for %1 with spec `%2'",
                  PrintFormatter(CreateSamlTokenDescription(presented)),
                  PrintFormatter(DescribeTokenSpec(spec)));
        }
        auto token = IssueToken(m_requestBuilder->BuildAcquireTokenByTokenRequest(presented, spec),
                                false, observed);
        trace.End();
        return token;
    });
}

namespace {

void TraceValidating(const SamlToken& token) {
    if (Tracing()) {
        Trace("Validating subject of token %1", PrintFormatter(CreateSamlTokenDescription(token)));
    }
}

void TraceRenewing(const SamlToken& token, long seconds) {
    if (Tracing()) {
        Trace("Renewing token %1 for %2 more seconds",
              PrintFormatter(CreateSamlTokenDescription(token)), PrintFormatter(int64_t{seconds}));
    }
}

void TraceSpec(const TokenSpec& spec) {
    if (Tracing()) {
        Trace("Requested token with spec `%1'", PrintFormatter(DescribeTokenSpec(spec)));
    }
}

const std::string kNoContext =
    "Error processing the response to SPNego token request: no Context ID was returned.";

}  // namespace

bool SecurityTokenServiceImpl::ValidateToken(const SamlToken& token) const {
    return Reported("ValidateSubject", m_observer, [&](const Observation&) {
        OperationTrace trace("ValidateSubject");
        TraceValidating(token);
        Basalt::Ref<Basalt::Reader> reply =
            Exchange(m_requestBuilder->BuildValidateTokenRequest(token));
        bool valid = ValidationResult(*reply);
        trace.End();
        return valid;
    });
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::RenewToken(const SamlToken& token,
                                                                      long seconds) const {
    return Reported("RenewToken", m_observer, [&](const Observation& observed) {
        OperationTrace trace("RenewToken");
        TraceRenewing(token, seconds);
        Basalt::Ref<Basalt::Reader> reply =
            Exchange(m_requestBuilder->BuildRenewTokenRequest(token, seconds));
        std::string text;
        m_responseHandler->ExtractRenewedToken(reply.Get(), text);
        std::shared_ptr<const SamlToken> renewed = MakeToken(text, observed);
        trace.End();
        return renewed;
    });
}

SoapRequest SecurityTokenServiceImpl::NextLeg(NegotiationHandler& handler,
                                              const NegotiationState& state,
                                              const TokenSpec& spec) const {
    std::shared_ptr<std::vector<unsigned char>> leg = handler.NextLeg(state.serverLeg);
    if (!leg) {
        throw Basalt::InvalidArgumentException(
            "Invalid NegotiationHandler: the returned leg may not be NULL");
    }
    return state.contextId.empty()
               ? m_requestBuilder->BuildAcquireTokenByGSSRequest(*leg, spec)
               : m_requestBuilder->BuildContinueNegotiationRequest(state.contextId, *leg);
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::NegotiatedToken(
    NegotiationHandler& handler, const NegotiationState& state, const Observation& observed) const {
    if (!state.serverLeg.empty()) {
        // The handler sees the service's last leg too. The warning fires on a null or empty
        // answer, the opposite of what it says; hosts that parse logs rely on that.
        std::shared_ptr<std::vector<unsigned char>> last = handler.NextLeg(state.serverLeg);
        if ((!last || last->empty()) && GetLogger()->IsEnabled(Level::LL_Warning)) {
            Basalt::Service::LogInternal(
                GetLogger(), Level::LL_Warning,
                "GSS contract error: non-empty user leg after negotiation is complete");
        }
    }
    return MakeToken(state.token, observed);
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::AcquireTokenByGSS(
    const TokenSpec& spec, NegotiationHandler& handler) const {
    return Reported("AcquireTokenByGSS", m_observer, [&](const Observation& observed) {
        OperationTrace trace("AcquireTokenByGSS");
        TraceSpec(spec);
        std::shared_ptr<TransportSession> session = m_transport->CreateSession();
        NegotiationState state;  // its server leg starts empty
        do {
            Basalt::Ref<Basalt::Reader> reply = session->SendAndWait(NextLeg(handler, state, spec));
            m_responseHandler->ExtractNegotiationState(reply.Get(), state);
            if (state.contextId.empty()) {
                throw CommunicationException(kNoContext);
            }
        } while (state.token.empty());
        std::shared_ptr<const SamlToken> token = NegotiatedToken(handler, state, observed);
        trace.End();
        return token;
    });
}

std::shared_ptr<const SecurityTokenServiceImpl> SecurityTokenServiceImpl::Copy() const {
    return std::make_shared<SecurityTokenServiceImpl>(
        m_requestBuilder, m_transport, m_responseHandler, m_tokenFactory, m_observer, m_clock);
}

namespace {

// A by-reference argument must be there when the operation runs.
template <class T>
const std::shared_ptr<T>& Required(const std::shared_ptr<T>& object) {
    if (!object) {
        throw Basalt::InvalidArgumentException("A null object cannot be passed by reference");
    }
    return object;
}

}  // namespace

template <class Result, class Start>
std::shared_ptr<AsyncOperation> SecurityTokenServiceImpl::Launch(
    const char* label, const typename AsyncCall<Result>::Callback& callback, Start start) const {
    auto call = std::make_shared<AsyncCall<Result>>(label, m_observer, callback);
    call->Run([service = Copy(), call, start] {
        if (Tracing()) {
            Trace("START operation SecurityTokenServiceImpl::%1", PrintFormatter(call->Label()));
        }
        start(*service, call);
    });
    return call;
}

void SecurityTokenServiceImpl::IssueAsync(const std::shared_ptr<TokenCall>& call,
                                          const SoapRequest& request) const {
    call->Send(m_transport->CreateSession(), request,
               [service = shared_from_this(), call](Basalt::Reader& reply) {
                   call->Succeed(service->IssuedToken(reply, call->Observed()));
                   TraceEnd(call->Label());
               });
}

std::shared_ptr<AsyncOperation> SecurityTokenServiceImpl::AcquireTokenAsync(
    const std::string& user, const std::string& password, const TokenSpec& spec,
    const TokenCallback& callback) const {
    return Launch<std::shared_ptr<const SamlToken>>(
        "AcquireToken", callback,
        [user, password = Basalt::StringUtil::SecretText(password), spec](
            const SecurityTokenServiceImpl& service, const std::shared_ptr<TokenCall>& call) {
            if (Tracing()) {
                Trace("Requested token for subject `%1', spec `%2'", PrintFormatter(user),
                      PrintFormatter(DescribeTokenSpec(spec)));
            }
            SoapRequest request =
                service.m_requestBuilder->BuildAcquireTokenRequest(user, password.Get(), spec);
            if (Tracing()) {
                Trace("SecurityTokenServiceImpl::AcquireToken sending request");
            }
            service.IssueAsync(call, request);
        });
}

std::shared_ptr<AsyncOperation> SecurityTokenServiceImpl::AcquireTokenByCertificateAsync(
    const TokenSpec& spec, const TokenCallback& callback) const {
    return Launch<std::shared_ptr<const SamlToken>>(
        "AcquireTokenByCertificate", callback,
        [spec](const SecurityTokenServiceImpl& service, const std::shared_ptr<TokenCall>& call) {
            TraceSpec(spec);
            service.IssueAsync(
                call, service.m_requestBuilder->BuildAcquireTokenByCertificateRequest(spec));
        });
}

std::shared_ptr<AsyncOperation> SecurityTokenServiceImpl::AcquireTokenByTokenAsync(
    const std::shared_ptr<const SamlToken>& token, const TokenSpec& spec,
    const TokenCallback& callback) const {
    return Launch<std::shared_ptr<const SamlToken>>(
        "AcquireTokenByToken", callback,
        [token = Required(token), spec](const SecurityTokenServiceImpl& service,
                                        const std::shared_ptr<TokenCall>& call) {
            if (Tracing()) {
                Trace("Requested token for %1 with spec `%2'",
                      PrintFormatter(CreateSamlTokenDescription(*token)),
                      PrintFormatter(DescribeTokenSpec(spec)));
            }
            service.IssueAsync(
                call, service.m_requestBuilder->BuildAcquireTokenByTokenRequest(*token, spec));
        });
}

std::shared_ptr<AsyncOperation> SecurityTokenServiceImpl::ValidateTokenAsync(
    const std::shared_ptr<const SamlToken>& token, const ValidationCallback& callback) const {
    using ValidationCall = AsyncCall<boost::optional<bool>>;
    return Launch<boost::optional<bool>>(
        "ValidateSubject", callback,
        [token = Required(token)](const SecurityTokenServiceImpl& service,
                                  const std::shared_ptr<ValidationCall>& call) {
            TraceValidating(*token);
            call->Send(service.m_transport->CreateSession(),
                       service.m_requestBuilder->BuildValidateTokenRequest(*token),
                       [service = service.shared_from_this(), call](Basalt::Reader& reply) {
                           call->Succeed(service->ValidationResult(reply));
                           TraceEnd(call->Label());
                       });
        });
}

std::shared_ptr<AsyncOperation> SecurityTokenServiceImpl::RenewTokenAsync(
    const std::shared_ptr<const SamlToken>& token, long seconds,
    const TokenCallback& callback) const {
    return Launch<std::shared_ptr<const SamlToken>>(
        "RenewToken", callback,
        [token = Required(token), seconds](const SecurityTokenServiceImpl& service,
                                           const std::shared_ptr<TokenCall>& call) {
            TraceRenewing(*token, seconds);
            call->Send(service.m_transport->CreateSession(),
                       service.m_requestBuilder->BuildRenewTokenRequest(*token, seconds),
                       [service = service.shared_from_this(), call](Basalt::Reader& reply) {
                           std::string text;
                           service->m_responseHandler->ExtractRenewedToken(&reply, text);
                           call->Succeed(service->MakeToken(text, call->Observed()));
                           TraceEnd(call->Label());
                       });
        });
}

void SecurityTokenServiceImpl::NegotiateAsync(
    const std::shared_ptr<TokenCall>& call, const std::shared_ptr<TransportSession>& session,
    const TokenSpec& spec, const std::shared_ptr<NegotiationHandler>& handler,
    const std::shared_ptr<NegotiationState>& state) const {
    // The handler may block, so it is called here on the pool, never on the HTTP thread.
    call->Send(
        session, NextLeg(*handler, *state, spec),
        [service = shared_from_this(), call, session, spec, handler, state](Basalt::Reader& reply) {
            service->m_responseHandler->ExtractNegotiationState(&reply, *state);
            if (state->contextId.empty()) {
                throw CommunicationException(kNoContext);
            }
            if (state->token.empty()) {
                return service->NegotiateAsync(call, session, spec, handler, state);
            }
            call->Succeed(service->NegotiatedToken(*handler, *state, call->Observed()));
            TraceEnd(call->Label());
        });
}

std::shared_ptr<AsyncOperation> SecurityTokenServiceImpl::AcquireTokenByGSSAsync(
    const TokenSpec& spec, const std::shared_ptr<NegotiationHandler>& handler,
    const TokenCallback& callback) const {
    return Launch<std::shared_ptr<const SamlToken>>(
        "AcquireTokenByGSS", callback,
        [spec, handler = Required(handler)](const SecurityTokenServiceImpl& service,
                                            const std::shared_ptr<TokenCall>& call) {
            TraceSpec(spec);
            service.NegotiateAsync(call, service.m_transport->CreateSession(), spec, handler,
                                   std::make_shared<NegotiationState>());
        });
}

}  // namespace SsoClient
