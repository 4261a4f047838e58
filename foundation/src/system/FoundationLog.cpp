#include "internal/system/FoundationLog.h"

namespace Basalt {

namespace {
const Service::StaticLogger g_logger("Basalt");
}

const Service::Logger* FoundationLogger() {
    return g_logger.Get();
}

}  // namespace Basalt
