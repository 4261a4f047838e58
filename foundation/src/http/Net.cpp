#include <basalt/Net.h>

#include <arpa/inet.h>

namespace Basalt {
namespace System {

bool IsIpAddress(const std::string& host) {
    if (host.find('\0') != std::string::npos) {
        return false;
    }
    unsigned char address[16];
    // inet_pton accepts exactly the dotted quad (no octal, no short forms) and IPv6 text.
    return inet_pton(AF_INET, host.c_str(), address) == 1 ||
           inet_pton(AF_INET6, host.c_str(), address) == 1;
}

}  // namespace System
}  // namespace Basalt
