#pragma once

#include <string>

#include <basalt/Export.h>

namespace Basalt {
namespace System {

// True if host is an IPv4 dotted quad or an IPv6 literal (without brackets or zone id).
BASALT_API bool IsIpAddress(const std::string& host);

}  // namespace System
}  // namespace Basalt
