#pragma once

// A transport that sends nothing: it records the requests the service hands it and answers them
// from a script, so the service's logic can be tested without a server. Also the token service's
// replies such scripts are made of.

#include <basalt/Http.h>
#include <basalt/IO.h>
#include <basalt/StringUtil.h>
#include <basalt/Thread.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
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
    // Answers on a pool thread, as the HTTP thread would, and cannot be cancelled.
    Basalt::Ref<Basalt::Http::PendingRequestItem> SendAsync(
        const SsoClient::SoapRequest& request, SsoClient::TransportCompletion completion) override {
        auto self = shared_from_this();
        Basalt::System::GetThreadPool()->GetWorkQueue()->Post([self, request, completion] {
            Basalt::Ref<Basalt::Reader> reply;
            try {
                reply = self->SendAndWait(request);
            } catch (const Basalt::Exception& failure) {
                return completion(&failure, nullptr);
            }
            completion(nullptr, reply.Get());
        });
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

// <wst:name>inner</wst:name>; nothing if inner is empty.
inline std::string Wst(const std::string& name, const std::string& inner) {
    return inner.empty() ? "" : "<wst:" + name + ">" + inner + "</wst:" + name + ">";
}

// A RequestSecurityTokenResponse around inner, in a collection if asked.
inline std::string TokenReply(const std::string& inner, bool collection = true,
                              const std::string& context = "") {
    const std::string response = "<wst:RequestSecurityTokenResponse" +
                                 (context.empty() ? "" : " Context=\"" + context + "\"") + ">" +
                                 inner + "</wst:RequestSecurityTokenResponse>";
    return SoapEnvelope(collection ? Wst("RequestSecurityTokenResponseCollection", response)
                                   : response);
}

inline std::string IssueReply(const std::string& assertion, bool collection = true) {
    return TokenReply(Wst("RequestedSecurityToken", assertion), collection);
}

inline std::string ValidateReply(const std::string& statusCode) {
    return TokenReply(Wst("Status", Wst("Code", statusCode)), false);
}

// One SPNego leg: the context, the server's leg and the issued assertion (each none if empty).
inline std::string NegotiationReply(const std::string& context, const std::string& leg,
                                    const std::string& assertion = "") {
    const std::string token = Wst("TokenType", "urn:oasis:names:tc:SAML:2.0:assertion") +
                              Wst("RequestedSecurityToken", assertion);
    return TokenReply(
        Wst("BinaryExchange", Basalt::StringUtil::Base64Encode(leg.data(), leg.size())) +
            (assertion.empty() ? "" : token),
        true, context);
}

}  // namespace TestSupport
