#include "internal/requests/RequestBuilder.h"

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <ssoClient/SamlToken.h>

#include "internal/requests/RequestBodies.h"
#include "internal/requests/SoapEnvelope.h"
#include "internal/requests/SpnegoBodies.h"
#include "internal/requests/WsTrustNames.h"

namespace SsoClient {

using namespace WsTrust;

namespace {

constexpr int32_t kTimestampMinutes = 10;
constexpr char kByCertificate[] = "acquire token by certificate";
constexpr char kByToken[] = "acquire token by token";
constexpr char kRenew[] = "renew token";

void CheckLifetime(int64_t lifetimeSeconds) {
    if (lifetimeSeconds <= 0) {
        throw Basalt::InvalidArgumentException("Token lifetime must be positive");
    }
    if (lifetimeSeconds > kMaxTokenLifetimeSec) {
        throw Basalt::InvalidArgumentException("Token lifetime must not exceed " +
                                               std::to_string(kMaxTokenLifetimeSec) +
                                               " seconds (100 years)");
    }
}

// A signing identity must be whole and consistent before any request is built with it.
boost::optional<HolderOfKeyConfig> Checked(boost::optional<HolderOfKeyConfig> holderOfKey) {
    if (!holderOfKey) {
        return holderOfKey;
    }
    if (!holderOfKey->certificate) {
        throw Basalt::InvalidArgumentException("HolderOfKeyConfig.certificate is null");
    }
    if (!holderOfKey->privateKey) {
        throw Basalt::InvalidArgumentException("HolderOfKeyConfig.privateKey is null");
    }
    if (!holderOfKey->privateKey->Matches(*holderOfKey->certificate)) {
        throw Basalt::InvalidArgumentException(
            "HolderOfKeyConfig.privateKey does not match HolderOfKeyConfig.certificate");
    }
    return holderOfKey;
}

SoapRequest Serialize(const char* action, const XMLBaseBuilder& envelopeBuilder) {
    Basalt::Ref<Basalt::Xml::ElementNode> envelope;
    envelopeBuilder.Build(envelope);
    Basalt::Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    // Room for a typical signed envelope, so the buffer holding the password is not regrown.
    writer->Reserve(16 * 1024);
    envelope->Serialize(writer.Get());
    return SoapRequest(action, writer->TakeString());
}

// The envelope around header and body, signed with the certificate when asked to.
SoapRequest Envelope(const char* action, const XMLBuilderPtr& header, const XMLBuilderPtr& body,
                     const HolderOfKeyConfig* signer, const XMLBuilderPtr& keyInfo) {
    if (signer == nullptr) {
        return Serialize(action, *BuildEnvelope(header, body));
    }
    return Serialize(action, XMLSignedSoapBuilder(header, body, *signer, keyInfo));
}

// The envelope, signed by signer when there is one, with the signer's certificate carried in the
// security header and named by the signature's key information.
SoapRequest CertificateEnvelope(const char* action,
                                const std::shared_ptr<XMLCompositeBuilder>& header,
                                const XMLBuilderPtr& body, const HolderOfKeyConfig* signer) {
    if (signer == nullptr) {
        return Envelope(action, header, body, nullptr, nullptr);
    }
    header->Add(BuildCertificateToken(*signer->certificate));
    return Envelope(action, header, body, signer, BuildCertificateReference());
}

}  // namespace

RequestBuilder::~RequestBuilder() = default;

RequestBuilderImpl::RequestBuilderImpl(boost::optional<HolderOfKeyConfig> holderOfKey)
    : m_holderOfKey(Checked(std::move(holderOfKey))) {}

bool RequestBuilderImpl::AsksForHolderOfKey(const TokenSpec& spec) const {
    return m_holderOfKey && spec.confirmation == CONFIRMATION_DEFAULT;
}

bool RequestBuilderImpl::SignsWithCertificate(const TokenSpec& spec) const {
    return AsksForHolderOfKey(spec) && !spec.delegateTo;
}

const HolderOfKeyConfig& RequestBuilderImpl::RequireHolderOfKey(const char* operation) const {
    if (!m_holderOfKey) {
        throw Basalt::InvalidStateException(
            std::string("No HolderOfKeyConfig provided. Unable to ") + operation);
    }
    return *m_holderOfKey;
}

SoapRequest RequestBuilderImpl::BuildAcquireTokenRequest(const std::string& userName,
                                                         const std::string& password,
                                                         const TokenSpec& spec) const {
    CheckLifetime(spec.tokenLifetimeSec);
    auto header = BuildSecurityHeader(kTimestampMinutes);
    header->Add(BuildUsernamePasswordToken(userName, password));
    return CertificateEnvelope(kIssueAction, header,
                               BuildIssueRequestWithUseKey(AsksForHolderOfKey(spec), spec),
                               SignsWithCertificate(spec) ? &*m_holderOfKey : nullptr);
}

SoapRequest RequestBuilderImpl::BuildAcquireTokenByGSSRequest(const std::vector<unsigned char>& leg,
                                                              const TokenSpec& spec) const {
    CheckLifetime(spec.tokenLifetimeSec);
    auto body = std::make_shared<XMLBodyBuilderInitialSPNego>(AsksForHolderOfKey(spec), spec, leg);
    return CertificateEnvelope(kIssueAction, BuildSecurityHeader(kTimestampMinutes), body,
                               SignsWithCertificate(spec) ? &*m_holderOfKey : nullptr);
}

SoapRequest RequestBuilderImpl::BuildContinueNegotiationRequest(
    const std::string& contextId, const std::vector<unsigned char>& leg) const {
    auto body = std::make_shared<XMLBodyBuilderContinuedSPNego>(contextId, leg);
    return Envelope(kContinueAction, BuildSecurityHeader(kTimestampMinutes), body, nullptr,
                    nullptr);
}

SoapRequest RequestBuilderImpl::BuildAcquireTokenByCertificateRequest(const TokenSpec& spec) const {
    CheckLifetime(spec.tokenLifetimeSec);
    const HolderOfKeyConfig& signer = RequireHolderOfKey(kByCertificate);
    if (spec.confirmation != CONFIRMATION_DEFAULT) {
        throw Basalt::InvalidArgumentException(
            std::string("TokenSpec::confirmation must be CONFIRMATION_DEFAULT for ") +
            kByCertificate);
    }
    return CertificateEnvelope(kIssueAction, BuildSecurityHeader(kTimestampMinutes),
                               BuildIssueRequestWithUseKey(true, spec), &signer);
}

SoapRequest RequestBuilderImpl::BuildAcquireTokenByTokenRequest(const SamlToken& token,
                                                                const TokenSpec& spec) const {
    CheckLifetime(spec.tokenLifetimeSec);
    const HolderOfKeyConfig& signer = RequireHolderOfKey(kByToken);
    auto header = BuildSecurityHeader(kTimestampMinutes);
    header->Add(CreatePreBuiltElement(token));
    return Envelope(kIssueAction, header, BuildIssueRequest(AsksForHolderOfKey(spec), spec),
                    &signer, BuildSamlTokenReference(token.GetId()));
}

SoapRequest RequestBuilderImpl::BuildValidateTokenRequest(const SamlToken& token) const {
    return Envelope(kValidateAction, BuildSecurityHeader(kTimestampMinutes),
                    BuildValidateRequest(token), nullptr, nullptr);
}

SoapRequest RequestBuilderImpl::BuildRenewTokenRequest(const SamlToken& token,
                                                       int64_t lifetimeSeconds) const {
    CheckLifetime(lifetimeSeconds);
    const HolderOfKeyConfig& signer = RequireHolderOfKey(kRenew);
    if (token.GetTokenType() != Saml_HOK) {
        throw Basalt::InvalidArgumentException(std::string("Unable to ") + kRenew +
                                               ": the provided token must be Holder Of Key");
    }
    return CertificateEnvelope(kRenewAction, BuildSecurityHeader(kTimestampMinutes),
                               BuildRenewRequest(token, lifetimeSeconds), &signer);
}

}  // namespace SsoClient
