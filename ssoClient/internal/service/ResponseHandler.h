#pragma once

#include <string>
#include <vector>

#include <basalt/IO.h>

namespace SsoClient {

// Where an SPNego negotiation stands after the service's latest reply.
struct NegotiationState {
    std::string contextId;                 // empty until the service names one
    std::vector<unsigned char> serverLeg;  // the service's latest leg, decoded
    std::string token;                     // the issued assertion, empty until issued
};

// Interprets WS-Trust replies: maps SOAP faults to exceptions (InvalidCredentialsException,
// PasswordExpiredException, SsoException) and extracts what each operation needs. Stateless.
class ResponseHandler {
  public:
    virtual ~ResponseHandler();
    // The canonical text of the Assertion of an Issue reply.
    virtual void ExtractIssuedToken(Basalt::Reader* reply, std::string& token) const = 0;
    // The answer of a Validate reply.
    virtual bool ExtractValidationResult(Basalt::Reader* reply) const = 0;
    // The canonical text of the Assertion of a Renew reply.
    virtual void ExtractRenewedToken(Basalt::Reader* reply, std::string& token) const = 0;
    // Context id, server leg and (on the last leg) the token of an SPNego reply.
    virtual void ExtractNegotiationState(Basalt::Reader* reply, NegotiationState& state) const = 0;
};

class ResponseHandlerImpl : public ResponseHandler {
  public:
    void ExtractIssuedToken(Basalt::Reader* reply, std::string& token) const override;
    bool ExtractValidationResult(Basalt::Reader* reply) const override;
    void ExtractRenewedToken(Basalt::Reader* reply, std::string& token) const override;
    void ExtractNegotiationState(Basalt::Reader* reply, NegotiationState& state) const override;
};

}  // namespace SsoClient
