#pragma once

#include <string>

namespace SsoClient {

// One SOAP request ready to send: the WS-Trust action and the envelope text. The envelope may
// hold a password, so it is wiped when the record goes.
struct SoapRequest {
    SoapRequest() = default;
    SoapRequest(std::string action, std::string envelopeText);
    SoapRequest(const SoapRequest&) = default;
    SoapRequest(SoapRequest&&) = default;
    SoapRequest& operator=(const SoapRequest& other);
    SoapRequest& operator=(SoapRequest&& other) noexcept;
    ~SoapRequest();

    std::string soapAction;
    std::string envelope;
};

}  // namespace SsoClient
