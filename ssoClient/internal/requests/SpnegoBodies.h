#pragma once

#include <string>
#include <vector>

#include <ssoClient/Types.h>

#include "internal/xml/XmlBuilders.h"

namespace SsoClient {

// The body of the first GSS/SPNego leg: the issue request with the caller's leg in
// wst:BinaryExchange and a fresh "urn:uuid:" Context on every build.
class XMLBodyBuilderInitialSPNego : public XMLBaseBuilder {
  public:
    XMLBodyBuilderInitialSPNego(bool holderOfKey, TokenSpec spec, std::vector<unsigned char> leg);
    void Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;

  private:
    bool m_holderOfKey;
    TokenSpec m_spec;
    std::vector<unsigned char> m_leg;
};

// The body of every later leg: wst:RequestSecurityTokenResponse in the service's context.
class XMLBodyBuilderContinuedSPNego : public XMLBaseBuilder {
  public:
    XMLBodyBuilderContinuedSPNego(std::string contextId, std::vector<unsigned char> leg);
    void Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;

  private:
    std::string m_contextId;
    std::vector<unsigned char> m_leg;
};

}  // namespace SsoClient
