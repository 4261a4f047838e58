#include "internal/transport/PlainHttpGuard.h"

#include <mutex>

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>

#include "internal/Logger.h"

namespace SsoClient {

namespace {

// Stands in for the transport of a plain http:// service that was not opted in: every operation
// carries a password, a GSS leg or a token, so each is refused before anything is sent.
class PlainHttpRefusal final : public Transport {
  public:
    std::shared_ptr<TransportSession> CreateSession() const override {
        throw Basalt::InvalidArgumentException(
            "Credentials and tokens are not sent over plain http:// unless "
            "SecurityTokenServiceConfig.allowPlainHttp is set");
    }
};

}  // namespace

// An http:// URL is refused with a signing key and, without the opt-in, for every operation.
std::shared_ptr<Transport> GuardPlainHttp(const SecurityTokenServiceConfig& config,
                                          std::shared_ptr<Transport> transport) {
    if (Basalt::StringUtil::ToLower(config.url.substr(0, 7)) != "http://") {
        return transport;
    }
    if (config.allowPlainHttp) {
        static std::once_flag warned;
        std::call_once(warned, [&] {
            Basalt::Service::LogInternal(
                GetLogger(), Basalt::Service::Logger::LL_Warning,
                "SecurityTokenServiceConfig.allowPlainHttp: credentials and tokens for %1 travel "
                "unencrypted",
                config.url);
        });
        return transport;
    }
    if (config.holderOfKey) {
        throw Basalt::InvalidArgumentException(
            "SecurityTokenServiceConfig.holderOfKey needs an https:// url unless "
            "SecurityTokenServiceConfig.allowPlainHttp is set");
    }
    return std::make_shared<PlainHttpRefusal>();
}

}  // namespace SsoClient
