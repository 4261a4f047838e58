// Principal comparison.
#include <gtest/gtest.h>
#include <ssoClient/Types.h>

namespace {

using namespace SsoClient;

TEST(PrincipalIdTest, ComparesAsciiCaseInsensitivelyUpToTheFirstNul) {
    const std::tuple<PrincipalId, PrincipalId, bool> cases[] = {
        {{"Alice", "SALES"}, {"alice", "sales"}, true},
        {{"alice", "sales"}, {"alice", "support"}, false},
        {{"bob", "sales"}, {"alice", "sales"}, false},
        {{"\xC3\x89mile", "x"}, {"\xC3\xA9mile", "x"}, false},  // non-ASCII letters do not fold
        {{std::string("al\0ice", 6), "d"}, {std::string("al\0bob", 6), "d"}, true},
        {{"alice", std::string("d\0x", 3)}, {"ALICE", "D"}, true},
        {{"alice", ""}, {"alice2", ""}, false},
    };
    for (const auto& [a, b, equal] : cases) {
        EXPECT_EQ(a == b, equal) << a.name << "@" << a.domain;
        EXPECT_EQ(b != a, !equal);
    }
}

}  // namespace
