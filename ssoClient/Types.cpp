#include <ssoClient/Types.h>

#include <strings.h>

namespace SsoClient {

bool PrincipalId::operator==(const PrincipalId& other) const {
    if (this == &other) {
        return true;
    }
    // Names decide first; the domains are looked at only when the names agree.
    return strcasecmp(name.c_str(), other.name.c_str()) == 0 &&
           strcasecmp(domain.c_str(), other.domain.c_str()) == 0;
}

}  // namespace SsoClient
