#include "internal/requests/SpnegoBodies.h"

#include <basalt/StringUtil.h>

#include "internal/requests/RequestBodies.h"

namespace SsoClient {

XMLBodyBuilderInitialSPNego::XMLBodyBuilderInitialSPNego(bool holderOfKey, TokenSpec spec,
                                                         std::vector<unsigned char> leg)
    : m_holderOfKey(holderOfKey), m_spec(std::move(spec)), m_leg(std::move(leg)) {}

void XMLBodyBuilderInitialSPNego::Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    XMLCompositeBuilder body(BuildIssueRequestWithUseKey(m_holderOfKey, m_spec));
    body.Add(BuildBinaryExchange(m_leg));
    body.Build(out);
    out->SetAttribute("Context", "urn:uuid:" + Basalt::StringUtil::GenerateUuid());
}

XMLBodyBuilderContinuedSPNego::XMLBodyBuilderContinuedSPNego(std::string contextId,
                                                             std::vector<unsigned char> leg)
    : m_contextId(std::move(contextId)), m_leg(std::move(leg)) {}

void XMLBodyBuilderContinuedSPNego::Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const {
    XMLCompositeBuilder body(CreateElementBuilder("wst", "RequestSecurityTokenResponse"));
    body.Add(BuildBinaryExchange(m_leg));
    body.Build(out);
    out->SetAttribute("Context", m_contextId);
}

}  // namespace SsoClient
