// Principal comparison, the exception family and the library's logger.
#include <basalt/Log.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/Types.h>

#include <memory>
#include <typeinfo>

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
        EXPECT_TRUE(a == a);
    }
}

// Each class is thrown, cloned and rethrown as itself and caught by its base.
template <class E, class Base>
void ExpectFamilyMember() {
    const E original("message");
    std::unique_ptr<Basalt::Exception> clone(
        static_cast<const Basalt::Exception&>(original).Clone());
    EXPECT_EQ(typeid(*clone), typeid(E));
    try {
        clone->Throw();
    } catch (const Base& e) {
        EXPECT_EQ(typeid(e), typeid(E));
        EXPECT_STREQ(e.what(), "message");
        return;
    }
    ADD_FAILURE() << "nothing thrown";
}

TEST(ExceptionFamilyTest, EveryClassClonesRethrowsAndIsCaughtByItsBase) {
    ExpectFamilyMember<SsoException, Basalt::Exception>();
    ExpectFamilyMember<CommunicationException, SsoException>();
    ExpectFamilyMember<InvalidCredentialsException, SsoException>();
    ExpectFamilyMember<PasswordExpiredException, SsoException>();
    ExpectFamilyMember<InvalidTokenException, SsoException>();
    ExpectFamilyMember<InvalidSignatureException, InvalidTokenException>();
    ExpectFamilyMember<ParseException, InvalidTokenException>();
    EXPECT_THROW(
        try { throw ParseException(""); } catch (const InvalidSignatureException&){},
        ParseException);  // siblings do not catch each other
}

TEST(LibraryLoggerTest, TheLibraryLoggerExistsOnceLoaded) {
    const Basalt::Service::Logger* logger = Basalt::Service::FindLogger("SsoClient");
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(logger->GetName(), "SsoClient");
}

}  // namespace
