#include "internal/requests/SoapRequest.h"

#include <basalt/StringUtil.h>

namespace SsoClient {

SoapRequest::SoapRequest(std::string action, std::string envelopeText)
    : soapAction(std::move(action)), envelope(std::move(envelopeText)) {}

SoapRequest& SoapRequest::operator=(const SoapRequest& other) {
    if (this != &other) {
        Basalt::StringUtil::SecureWipe(envelope);
        soapAction = other.soapAction;
        envelope = other.envelope;
    }
    return *this;
}

SoapRequest& SoapRequest::operator=(SoapRequest&& other) noexcept {
    Basalt::StringUtil::SecureWipe(envelope);
    soapAction = std::move(other.soapAction);
    envelope = std::move(other.envelope);
    return *this;
}

SoapRequest::~SoapRequest() {
    Basalt::StringUtil::SecureWipe(envelope);
}

}  // namespace SsoClient
