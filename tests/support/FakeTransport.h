#pragma once

// A transport that sends nothing: it records the requests the service hands it and answers them
// from a script, so the service's logic can be tested without a server. Also the token service's
// replies such scripts are made of.

#include <basalt/Http.h>
#include <basalt/IO.h>
#include <basalt/StringUtil.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "internal/transport/Transport.h"

namespace TestSupport {

// Answers a request with the reply body, or throws (a CommunicationException, say).
using Responder = std::function<std::string(const SsoClient::SoapRequest&)>;

// Every session it opens is itself: sessions are counted, requests recorded in order.
class FakeTransport : public SsoClient::Transport,
                      public SsoClient::TransportSession,
                      public std::enable_shared_from_this<FakeTransport> {
  public:
    explicit FakeTransport(Responder responder) : m_responder(std::move(responder)) {}
    std::shared_ptr<SsoClient::TransportSession> CreateSession() const override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_sessions;
        return std::const_pointer_cast<FakeTransport>(shared_from_this());
    }
    Basalt::Ref<Basalt::Reader> SendAndWait(const SsoClient::SoapRequest& request) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request);
        }
        Basalt::Ref<Basalt::StringReader> reply;
        Basalt::CreateStringReader(m_responder(request), reply);
        return reply;
    }
    // Like the HTTP thread, another thread runs the completion, with the failure or the body.
    // Done before it returns, so there is nothing to cancel: no pending item.
    Basalt::Ref<Basalt::Http::PendingRequestItem> SendAsync(
        const SsoClient::SoapRequest& request, SsoClient::TransportCompletion completion) override {
        std::thread([&] {
            Basalt::Ref<Basalt::Reader> body;
            try {
                body = SendAndWait(request);
            } catch (const Basalt::Exception& e) {
                return completion(&e, nullptr);
            }
            completion(nullptr, body.Get());
        }).join();
        return nullptr;
    }
    std::vector<SsoClient::SoapRequest> Requests() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }
    int Sessions() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sessions;
    }

  private:
    const Responder m_responder;
    mutable std::mutex m_mutex;
    mutable int m_sessions = 0;
    std::vector<SsoClient::SoapRequest> m_requests;
};

// Answers the nth request with the nth reply.
inline Responder InOrder(std::vector<std::string> replies) {
    auto next = std::make_shared<std::atomic<size_t>>(0);
    return [replies, next](const SsoClient::SoapRequest&) { return replies.at((*next)++); };
}

inline std::string SoapEnvelope(const std::string& body) {
    return "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "xmlns:wst=\"http://docs.oasis-open.org/ws-sx/ws-trust/200512\" "
           "xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/"
           "oasis-200401-wss-wssecurity-secext-1.0.xsd\"><soapenv:Body>" +
           body + "</soapenv:Body></soapenv:Envelope>";
}

inline std::string SoapFault(const std::string& code, const std::string& faultString) {
    return SoapEnvelope("<soapenv:Fault><faultcode>" + code + "</faultcode><faultstring>" +
                        faultString + "</faultstring></soapenv:Fault>");
}

inline std::string TokenResponse(const std::string& assertion) {
    return "<wst:RequestSecurityTokenResponse><wst:RequestedSecurityToken>" + assertion +
           "</wst:RequestedSecurityToken></wst:RequestSecurityTokenResponse>";
}

inline std::string RenewReply(const std::string& assertion) {
    return SoapEnvelope(TokenResponse(assertion));
}

inline std::string IssueReply(const std::string& assertion) {
    return SoapEnvelope("<wst:RequestSecurityTokenResponseCollection>" + TokenResponse(assertion) +
                        "</wst:RequestSecurityTokenResponseCollection>");
}

inline std::string ValidateReply(const std::string& statusCode) {
    return SoapEnvelope("<wst:RequestSecurityTokenResponse><wst:Status><wst:Code>" + statusCode +
                        "</wst:Code></wst:Status></wst:RequestSecurityTokenResponse>");
}

// One SPNego leg: the context (none if empty), the server's leg (none if empty) and the issued
// assertion (none if empty).
inline std::string NegotiationReply(const std::string& context, const std::string& leg,
                                    const std::string& assertion = "") {
    std::string inner;
    if (!leg.empty()) {
        inner += "<wst:BinaryExchange>" + Basalt::StringUtil::Base64Encode(leg.data(), leg.size()) +
                 "</wst:BinaryExchange>";
    }
    if (!assertion.empty()) {
        inner +=
            "<wst:TokenType>urn:oasis:names:tc:SAML:2.0:assertion</wst:TokenType>"
            "<wst:RequestedSecurityToken>" +
            assertion + "</wst:RequestedSecurityToken>";
    }
    return SoapEnvelope(
        "<wst:RequestSecurityTokenResponseCollection><wst:RequestSecurityTokenResponse" +
        (context.empty() ? "" : " Context=\"" + context + "\"") + ">" + inner +
        "</wst:RequestSecurityTokenResponse></wst:RequestSecurityTokenResponseCollection>");
}

}  // namespace TestSupport
