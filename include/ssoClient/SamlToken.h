#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/DateTime.h>
#include <basalt/XmlSecurity.h>

#include <ssoClient/Export.h>
#include <ssoClient/Types.h>

namespace SsoClient {

// An immutable token: a validated SAML 2.0 assertion (or a validated JWT). Tokens are always
// shared as std::shared_ptr<const SamlToken>, whose deleter knows the concrete class; a built
// token may be read from any number of threads.
class SSOCLIENT_API SamlToken {
  public:
    // The assertion's ID attribute.
    virtual const std::string& GetId() const = 0;
    // NotBefore of the token's conditions.
    virtual const Basalt::System::DateTime& GetStartTime() const = 0;
    // NotOnOrAfter of the token's conditions.
    virtual const Basalt::System::DateTime& GetExpirationTime() const = 0;
    // The expiration time plus the clock tolerance the token was created with.
    virtual Basalt::System::DateTime GetExpirationTimeWithTolerance() const = 0;
    // The subject (never null for a SAML token); owned by the token.
    virtual const PrincipalId* GetSubject() const = 0;
    virtual bool IsRenewable() const = 0;
    virtual int32_t GetRenewCount() const = 0;
    virtual bool IsDelegable() const = 0;
    virtual int32_t GetDelegableCount() const = 0;
    virtual bool IsSolution() const = 0;
    virtual TokenType GetTokenType() const = 0;
    // The collection getters replace the contents of the caller's container.
    virtual void GetPersonName(PersonName& name) const = 0;
    virtual void GetGroups(std::vector<PrincipalId>& groups) const = 0;
    virtual void GetDelegationChain(std::vector<Delegate>& chain) const = 0;
    virtual void GetAudience(std::set<std::string>& audience) const = 0;
    virtual void GetAdvice(std::vector<Advice>& advice) const = 0;
    // The holder-of-key certificate (owned by the token), or null for a bearer token.
    virtual Basalt::Crypto::Certificate* GetHolderOfKeyCertificate() const = 0;
    // The text of the Issuer element.
    virtual const std::string& GetIssuer() const = 0;
    // The assertion's signature, owned by the token and alive as long as it is. A token made
    // from text keeps no DOM: the first call builds the signature object from the text again
    // (about the cost of a parse), later calls return the same object.
    virtual Basalt::Xml::Security::Signature* GetSignature() const = 0;
    // The token's XML: the text it was created from byte for byte, or the canonical form of
    // the element it was created from.
    virtual const std::string& GetXml() const = 0;
    // A JWT token returns the second argument its validator was given; a SAML token does not
    // support it and aborts the process.
    virtual const std::string& GetUnsupportedInfo() const = 0;

  protected:
    SamlToken() = default;
    SamlToken(const SamlToken&) = default;
    SamlToken& operator=(const SamlToken&) = default;
    // Tokens are destroyed through the shared_ptr that created them, never through this base.
    ~SamlToken() = default;
};

}  // namespace SsoClient
