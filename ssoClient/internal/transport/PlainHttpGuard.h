#pragma once

#include <memory>

#include <ssoClient/SecurityTokenService.h>

#include "internal/transport/Transport.h"

namespace SsoClient {

// transport itself, unless config.url is plain http:// without config.allowPlainHttp: then a
// holderOfKey throws Basalt::InvalidArgumentException, and otherwise the result is a transport
// whose CreateSession throws it, so that no credential leaves unencrypted. The opt-in logs a
// warning once per process.
std::shared_ptr<Transport> GuardPlainHttp(const SecurityTokenServiceConfig& config,
                                          std::shared_ptr<Transport> transport);

}  // namespace SsoClient
