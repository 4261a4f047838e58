#include "internal/Logger.h"

namespace SsoClient {

namespace {
const Basalt::Service::StaticLogger g_logger("SsoClient");
}

const Basalt::Service::Logger* GetLogger() {
    return g_logger.Get();
}

}  // namespace SsoClient
