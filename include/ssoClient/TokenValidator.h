#pragma once

#include <memory>
#include <string_view>

#include <basalt/Object.h>

#include <ssoClient/Export.h>
#include <ssoClient/SamlToken.h>

namespace SsoClient {

// Turns a token presented by a client into a validated token object. Validators are
// reference-counted (hold them in a Basalt::Ref), immutable and may be used from any number of
// threads at once.
class SSOCLIENT_API TokenValidator : public virtual Basalt::Object {
  public:
    // Validates token and returns it as a token object, or throws (see the implementation's
    // factory for what is checked). second is not checked: the token keeps a copy of it.
    virtual std::shared_ptr<const SamlToken> Validate(std::string_view token,
                                                      std::string_view second) const = 0;

  protected:
    ~TokenValidator() override;
};

}  // namespace SsoClient
