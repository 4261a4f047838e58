#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <ssoClient/HolderOfKeyConfig.h>
#include <ssoClient/Types.h>
#include <boost/optional.hpp>

#include "internal/requests/SoapRequest.h"

namespace SsoClient {

// Produces the checked (and, for holder-of-key, signed) SOAP request of each token-service
// operation. Checks run before anything is built and throw Basalt::InvalidArgumentException or
// Basalt::InvalidStateException; failures while building or signing pass out unchanged.
class RequestBuilder {
  public:
    virtual ~RequestBuilder();
    virtual SoapRequest BuildAcquireTokenRequest(const std::string& userName,
                                                 const std::string& password,
                                                 const TokenSpec& spec) const = 0;
    virtual SoapRequest BuildAcquireTokenByGSSRequest(const std::vector<unsigned char>& leg,
                                                      const TokenSpec& spec) const = 0;
    virtual SoapRequest BuildContinueNegotiationRequest(
        const std::string& contextId, const std::vector<unsigned char>& leg) const = 0;
    virtual SoapRequest BuildAcquireTokenByCertificateRequest(const TokenSpec& spec) const = 0;
    virtual SoapRequest BuildAcquireTokenByTokenRequest(const SamlToken& token,
                                                        const TokenSpec& spec) const = 0;
    virtual SoapRequest BuildValidateTokenRequest(const SamlToken& token) const = 0;
    virtual SoapRequest BuildRenewTokenRequest(const SamlToken& token,
                                               int64_t lifetimeSeconds) const = 0;
};

class RequestBuilderImpl : public RequestBuilder {
  public:
    explicit RequestBuilderImpl(boost::optional<HolderOfKeyConfig> holderOfKey);

    SoapRequest BuildAcquireTokenRequest(const std::string& userName, const std::string& password,
                                         const TokenSpec& spec) const override;
    SoapRequest BuildAcquireTokenByGSSRequest(const std::vector<unsigned char>& leg,
                                              const TokenSpec& spec) const override;
    SoapRequest BuildContinueNegotiationRequest(
        const std::string& contextId, const std::vector<unsigned char>& leg) const override;
    SoapRequest BuildAcquireTokenByCertificateRequest(const TokenSpec& spec) const override;
    SoapRequest BuildAcquireTokenByTokenRequest(const SamlToken& token,
                                                const TokenSpec& spec) const override;
    SoapRequest BuildValidateTokenRequest(const SamlToken& token) const override;
    SoapRequest BuildRenewTokenRequest(const SamlToken& token,
                                       int64_t lifetimeSeconds) const override;

  private:
    bool AsksForHolderOfKey(const TokenSpec& spec) const;
    bool SignsWithCertificate(const TokenSpec& spec) const;
    const HolderOfKeyConfig& RequireHolderOfKey(const char* operation) const;

    boost::optional<HolderOfKeyConfig> m_holderOfKey;
};

}  // namespace SsoClient
