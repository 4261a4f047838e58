#pragma once

#include <basalt/Log.h>

namespace Basalt {

// The foundation's own logger, "Basalt".
const Service::Logger* FoundationLogger();

}  // namespace Basalt
