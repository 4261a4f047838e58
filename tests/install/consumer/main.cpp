// A program outside the project that uses both installed libraries.
#include <basalt/StringUtil.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/Types.h>

#include <cstdio>

int main() {
    SsoClient::PrincipalId a{"Alice", "SALES"};
    SsoClient::PrincipalId b{"alice", "sales"};
    if (!(a == b) || Basalt::StringUtil::Base64Encode("foo", 3) != "Zm9v") {
        return 1;
    }
    try {
        throw SsoClient::ParseException("bad token");
    } catch (const Basalt::Exception& e) {
        std::puts(e.what());
        return 0;
    }
}
