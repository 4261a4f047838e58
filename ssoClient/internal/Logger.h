#pragma once

#include <basalt/Log.h>

namespace SsoClient {

// The library's logger, "SsoClient", registered when the library is loaded. Hosts tune it with
// Basalt::Service::SetLoggerLevel("SsoClient", level) and route it with SetLogSink.
const Basalt::Service::Logger* GetLogger();

}  // namespace SsoClient
