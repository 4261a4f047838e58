#pragma once

#include <string>

#include <basalt/Crypto.h>
#include <ssoClient/HolderOfKeyConfig.h>

#include "internal/xml/XmlBuilders.h"

namespace SsoClient {

// wsse:Security with a wsu:Timestamp valid for timestampMinutes from now; the request's
// credential elements are added after it.
std::shared_ptr<XMLCompositeBuilder> BuildSecurityHeader(int32_t timestampMinutes);
// soapenv:Envelope with soapenv:Header around header and soapenv:Body around body.
std::shared_ptr<XMLCompositeBuilder> BuildEnvelope(const XMLBuilderPtr& header,
                                                   const XMLBuilderPtr& body);
// wsse:BinarySecurityToken carrying the certificate, and the reference that points at it.
XMLBuilderPtr BuildCertificateToken(const Basalt::Crypto::Certificate& certificate);
XMLBuilderPtr BuildCertificateReference();
// wsse:SecurityTokenReference naming a SAML token by its assertion ID.
XMLBuilderPtr BuildSamlTokenReference(const std::string& assertionId);

// Builds the envelope and signs its Body and Timestamp with the holder-of-key private key; the
// signature goes at the end of wsse:Security with keyInfo's element in its ds:KeyInfo.
class XMLSignedSoapBuilder : public XMLBaseBuilder {
  public:
    XMLSignedSoapBuilder(XMLBuilderPtr header, XMLBuilderPtr body, HolderOfKeyConfig holderOfKey,
                         XMLBuilderPtr keyInfo);
    void Build(Basalt::Ref<Basalt::Xml::ElementNode>& out) const override;

  private:
    XMLBuilderPtr m_header;
    XMLBuilderPtr m_body;
    HolderOfKeyConfig m_holderOfKey;
    XMLBuilderPtr m_keyInfo;
};

}  // namespace SsoClient
