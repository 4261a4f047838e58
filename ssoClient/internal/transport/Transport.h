#pragma once

// The SOAP transport: a Transport opens sessions; a session posts SOAP requests and hands back
// the reply bodies.

#include <basalt/Exception.h>
#include <basalt/Http.h>
#include <basalt/IO.h>

#include <functional>
#include <memory>
#include <string>

#include <ssoClient/Export.h>
#include "internal/requests/SoapRequest.h"

namespace SsoClient {

// Called once when an asynchronous exchange ends: with the failure (a CommunicationException)
// and a null reader, or with no failure and the reply body. Meanwhile ThreadFailureNotes() holds
// what is known of the exchange (URL, status, tries) on the calling thread.
using TransportCompletion = std::function<void(const Basalt::Exception*, Basalt::Reader*)>;

// One exchange context (cookies persist across its requests). Used by one operation at a time.
class TransportSession {
  public:
    virtual ~TransportSession();
    // Posts the request and waits for the reply; returns its body. Throws CommunicationException
    // when the exchange fails or the status is neither 2xx nor 500.
    virtual Basalt::Ref<Basalt::Reader> SendAndWait(const SoapRequest& request) = 0;
    // Posts the request and returns at once; completion runs on the HTTP thread (or a pool
    // thread between retries) and must not block. The handle cancels the exchange, retries
    // included; it may be null when the transport cannot cancel.
    virtual Basalt::Ref<Basalt::Http::PendingRequestItem> SendAsync(
        const SoapRequest& request, TransportCompletion completion) = 0;
};

// A factory of sessions; immutable and shareable between threads.
class Transport {
  public:
    virtual ~Transport();
    virtual std::shared_ptr<TransportSession> CreateSession() const = 0;
};

}  // namespace SsoClient
