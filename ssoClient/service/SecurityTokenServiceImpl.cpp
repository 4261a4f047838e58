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

// START on entry, END only when the operation returns normally.
class OperationTrace {
  public:
    explicit OperationTrace(const char* label) : m_label(label) {
        if (Tracing()) {
            Trace("START operation SecurityTokenServiceImpl::%1", PrintFormatter(m_label));
        }
    }
    void End() const {
        if (Tracing()) {
            Trace("END operation SecurityTokenServiceImpl::%1", PrintFormatter(m_label));
        }
    }

  private:
    const char* m_label;
};

// One warning line per failed operation with what its exception does not carry: where the
// request went, the reply's status and fault, the tries. Never the request, so never a secret.
void LogFailure(const char* label, const Basalt::Exception& error) {
    if (GetLogger()->IsEnabled(Level::LL_Warning)) {
        const std::string notes = ThreadFailureNotes().Describe();
        Basalt::Service::LogInternal(GetLogger(), Level::LL_Warning,
                                     "SecurityTokenServiceImpl::%1 failed %2",
                                     PrintFormatter(label),
                                     PrintFormatter("(" + Basalt::DemangledName(typeid(error)) +
                                                    ")" + (notes.empty() ? "" : ": " + notes)));
    }
}

// Runs an operation on this thread's failure notes, logging its failure.
template <class Operation>
auto Reported(const char* label, const Operation& operation) -> decltype(operation()) {
    ThreadFailureNotes() = FailureNotes();
    try {
        return operation();
    } catch (const Basalt::Exception& error) {
        LogFailure(label, error);
        throw;
    }
}

}  // namespace

SecurityTokenServiceImpl::SecurityTokenServiceImpl(std::shared_ptr<RequestBuilder> requestBuilder,
                                                   std::shared_ptr<Transport> transport,
                                                   std::shared_ptr<ResponseHandler> responseHandler,
                                                   std::shared_ptr<SamlTokenFactory> tokenFactory)
    : m_requestBuilder(std::move(requestBuilder)),
      m_transport(std::move(transport)),
      m_responseHandler(std::move(responseHandler)),
      m_tokenFactory(std::move(tokenFactory)) {}

Basalt::Ref<Basalt::Reader> SecurityTokenServiceImpl::Exchange(const SoapRequest& request) const {
    std::shared_ptr<TransportSession> session = m_transport->CreateSession();
    return session->SendAndWait(request);
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::MakeToken(
    const std::string& text) const {
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
    return token;
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::IssueToken(const SoapRequest& request,
                                                                      bool traceSending) const {
    if (traceSending && Tracing()) {
        Trace("SecurityTokenServiceImpl::AcquireToken sending request");
    }
    Basalt::Ref<Basalt::Reader> reply = Exchange(request);
    // Every issue operation reports its reply under AcquireToken's name.
    if (Tracing()) {
        Trace("SecurityTokenServiceImpl::AcquireToken processing response");
    }
    std::string text;
    m_responseHandler->ExtractIssuedToken(reply.Get(), text);
    return MakeToken(text);
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::AcquireToken(
    const std::string& user, const std::string& password, const TokenSpec& spec) const {
    return Reported("AcquireToken", [&] {
        OperationTrace trace("AcquireToken");
        if (Tracing()) {
            Trace("Requested token for subject `%1', spec `%2'", PrintFormatter(user),
                  PrintFormatter(DescribeTokenSpec(spec)));
        }
        auto token =
            IssueToken(m_requestBuilder->BuildAcquireTokenRequest(user, password, spec), true);
        trace.End();
        return token;
    });
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::AcquireTokenByCertificate(
    const TokenSpec& spec) const {
    return Reported("AcquireTokenByCertificate", [&] {
        OperationTrace trace("AcquireTokenByCertificate");
        if (Tracing()) {
            Trace("Requested token with spec `%1'", PrintFormatter(DescribeTokenSpec(spec)));
        }
        auto token =
            IssueToken(m_requestBuilder->BuildAcquireTokenByCertificateRequest(spec), false);
        trace.End();
        return token;
    });
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::AcquireTokenByToken(
    const SamlToken& presented, const TokenSpec& spec) const {
    return Reported("AcquireTokenByToken", [&] {
        OperationTrace trace("AcquireTokenByToken");
        if (Tracing()) {
            Trace("Requested token for %1 with spec `%2'",
                  PrintFormatter(CreateSamlTokenDescription(presented)),
                  PrintFormatter(DescribeTokenSpec(spec)));
        }
        auto token =
            IssueToken(m_requestBuilder->BuildAcquireTokenByTokenRequest(presented, spec), false);
        trace.End();
        return token;
    });
}

bool SecurityTokenServiceImpl::ValidateToken(const SamlToken& token) const {
    return Reported("ValidateSubject", [&] {
        OperationTrace trace("ValidateSubject");
        if (Tracing()) {
            Trace("Validating subject of token %1",
                  PrintFormatter(CreateSamlTokenDescription(token)));
        }
        Basalt::Ref<Basalt::Reader> reply =
            Exchange(m_requestBuilder->BuildValidateTokenRequest(token));
        bool valid = m_responseHandler->ExtractValidationResult(reply.Get());
        if (Tracing()) {
            Trace("Result: %1", PrintFormatter(valid));
        }
        trace.End();
        return valid;
    });
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::RenewToken(const SamlToken& token,
                                                                      long seconds) const {
    return Reported("RenewToken", [&] {
        OperationTrace trace("RenewToken");
        if (Tracing()) {
            Trace("Renewing token %1 for %2 more seconds",
                  PrintFormatter(CreateSamlTokenDescription(token)),
                  PrintFormatter(int64_t{seconds}));
        }
        Basalt::Ref<Basalt::Reader> reply =
            Exchange(m_requestBuilder->BuildRenewTokenRequest(token, seconds));
        std::string text;
        m_responseHandler->ExtractRenewedToken(reply.Get(), text);
        std::shared_ptr<const SamlToken> renewed = MakeToken(text);
        trace.End();
        return renewed;
    });
}

std::shared_ptr<const SamlToken> SecurityTokenServiceImpl::AcquireTokenByGSS(
    const TokenSpec& spec, NegotiationHandler& handler) const {
    return Reported("AcquireTokenByGSS", [&] {
        OperationTrace trace("AcquireTokenByGSS");
        if (Tracing()) {
            Trace("Requested token with spec `%1'", PrintFormatter(DescribeTokenSpec(spec)));
        }
        std::shared_ptr<TransportSession> session = m_transport->CreateSession();
        NegotiationState state;
        std::vector<unsigned char> serverLeg;
        for (;;) {
            std::shared_ptr<std::vector<unsigned char>> leg = handler.NextLeg(serverLeg);
            if (!leg) {
                throw Basalt::InvalidArgumentException(
                    "Invalid NegotiationHandler: the returned leg may not be NULL");
            }
            SoapRequest request =
                state.contextId.empty()
                    ? m_requestBuilder->BuildAcquireTokenByGSSRequest(*leg, spec)
                    : m_requestBuilder->BuildContinueNegotiationRequest(state.contextId, *leg);
            Basalt::Ref<Basalt::Reader> reply = session->SendAndWait(request);
            m_responseHandler->ExtractNegotiationState(reply.Get(), state);
            if (state.contextId.empty()) {
                throw CommunicationException(
                    "Error processing the response to SPNego token request: no Context ID was "
                    "returned.");
            }
            serverLeg = state.serverLeg;
            if (!state.token.empty()) {
                break;
            }
        }
        if (!serverLeg.empty()) {
            // The handler sees the service's last leg too. The warning fires on a null or empty
            // answer, the opposite of what it says; hosts that parse logs rely on that.
            std::shared_ptr<std::vector<unsigned char>> last = handler.NextLeg(serverLeg);
            if ((!last || last->empty()) && GetLogger()->IsEnabled(Level::LL_Warning)) {
                Basalt::Service::LogInternal(
                    GetLogger(), Level::LL_Warning,
                    "GSS contract error: non-empty user leg after negotiation is complete");
            }
        }
        std::shared_ptr<const SamlToken> token = MakeToken(state.token);
        trace.End();
        return token;
    });
}

std::shared_ptr<const SecurityTokenService> SecurityTokenServiceImpl::Copy() const {
    return std::make_shared<SecurityTokenServiceImpl>(m_requestBuilder, m_transport,
                                                      m_responseHandler, m_tokenFactory);
}

void SecurityTokenServiceImpl::AcquireTokenAsync(const std::string& user,
                                                 const std::string& password, const TokenSpec& spec,
                                                 const TokenCallback& callback) const {
    auto service = Copy();
    SyncToAsyncCall(std::function<std::shared_ptr<const SamlToken>()>(
                        [service, user, password = Basalt::StringUtil::SecretText(password), spec] {
                            return service->AcquireToken(user, password.Get(), spec);
                        }),
                    callback, std::shared_ptr<const SamlToken>());
}

void SecurityTokenServiceImpl::AcquireTokenByGSSAsync(
    const TokenSpec& spec, const std::shared_ptr<NegotiationHandler>& handler,
    const TokenCallback& callback) const {
    auto service = Copy();
    PassByRefHelper<NegotiationHandler> handlerRef(handler);
    SyncToAsyncCall(std::function<std::shared_ptr<const SamlToken>()>([service, spec, handlerRef] {
                        return service->AcquireTokenByGSS(spec, handlerRef.Get());
                    }),
                    callback, std::shared_ptr<const SamlToken>());
}

void SecurityTokenServiceImpl::AcquireTokenByCertificateAsync(const TokenSpec& spec,
                                                              const TokenCallback& callback) const {
    auto service = Copy();
    SyncToAsyncCall(std::function<std::shared_ptr<const SamlToken>()>(
                        [service, spec] { return service->AcquireTokenByCertificate(spec); }),
                    callback, std::shared_ptr<const SamlToken>());
}

void SecurityTokenServiceImpl::AcquireTokenByTokenAsync(
    const std::shared_ptr<const SamlToken>& token, const TokenSpec& spec,
    const TokenCallback& callback) const {
    auto service = Copy();
    PassByRefHelper<const SamlToken> tokenRef(token);
    SyncToAsyncCall(std::function<std::shared_ptr<const SamlToken>()>([service, tokenRef, spec] {
                        return service->AcquireTokenByToken(tokenRef.Get(), spec);
                    }),
                    callback, std::shared_ptr<const SamlToken>());
}

void SecurityTokenServiceImpl::ValidateTokenAsync(const std::shared_ptr<const SamlToken>& token,
                                                  const ValidationCallback& callback) const {
    auto service = Copy();
    PassByRefHelper<const SamlToken> tokenRef(token);
    SyncToAsyncCall(std::function<bool()>(
                        [service, tokenRef] { return service->ValidateToken(tokenRef.Get()); }),
                    callback, boost::optional<bool>());
}

void SecurityTokenServiceImpl::RenewTokenAsync(const std::shared_ptr<const SamlToken>& token,
                                               long seconds, const TokenCallback& callback) const {
    auto service = Copy();
    PassByRefHelper<const SamlToken> tokenRef(token);
    SyncToAsyncCall(std::function<std::shared_ptr<const SamlToken>()>([service, tokenRef, seconds] {
                        return service->RenewToken(tokenRef.Get(), seconds);
                    }),
                    callback, std::shared_ptr<const SamlToken>());
}

}  // namespace SsoClient
