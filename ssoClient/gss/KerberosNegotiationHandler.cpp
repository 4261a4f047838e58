#include <ssoClient/KerberosNegotiationHandler.h>

#include <ssoClient/Exceptions.h>

namespace SsoClient {

namespace {

class KerberosNegotiationHandlerImpl : public NegotiationHandler {
  public:
    KerberosNegotiationHandlerImpl(const std::string& servicePrincipal,
                                   const KerberosOptions& options)
        : m_target(servicePrincipal), m_options(options) {}

    std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>& serverLeg) override {
        try {
            if (serverLeg.empty()) {
                m_context.reset();  // a fresh negotiation: drop the last one first
                m_context = std::make_unique<Basalt::Gss::InitiatorContext>(
                    m_target, m_options.targetKind, m_options.credentials);
            } else if (!m_context) {
                throw Basalt::InvalidStateException(
                    "Kerberos negotiation: a server leg arrived before the first leg");
            }
            return std::make_shared<std::vector<unsigned char>>(m_context->Step(serverLeg));
        } catch (const Basalt::Gss::CredentialsException& error) {
            throw InvalidCredentialsException(error.what());
        } catch (const Basalt::Gss::GssException& error) {
            throw CommunicationException(error.what());
        }
    }

  private:
    const std::string m_target;
    const KerberosOptions m_options;
    std::unique_ptr<Basalt::Gss::InitiatorContext> m_context;
};

}  // namespace

std::shared_ptr<NegotiationHandler> CreateKerberosNegotiationHandler(
    const std::string& servicePrincipal, const KerberosOptions& options) {
    return std::make_shared<KerberosNegotiationHandlerImpl>(servicePrincipal, options);
}

}  // namespace SsoClient
