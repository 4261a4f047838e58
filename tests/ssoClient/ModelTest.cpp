#include <basalt/Log.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/Types.h>

#include <memory>
#include <thread>
#include <typeinfo>

namespace {

using namespace SsoClient;

TEST(PrincipalIdTest, ComparesAsciiCaseInsensitivelyUpToTheFirstNul) {
    struct Case {
        PrincipalId a, b;
        bool equal;
    };
    const Case cases[] = {
        {{"Alice", "SALES"}, {"alice", "sales"}, true},
        {{"alice", "sales"}, {"alice", "support"}, false},
        {{"bob", "sales"}, {"alice", "sales"}, false},
        {{"\xC3\x89mile", "x"}, {"\xC3\xA9mile", "x"}, false},  // non-ASCII letters do not fold
        {{std::string("al\0ice", 6), "d"}, {std::string("al\0bob", 6), "d"}, true},
        {{"alice", std::string("d\0x", 3)}, {"ALICE", "D"}, true},
        {{"", ""}, {"", ""}, true},
        {{"alice", ""}, {"alice2", ""}, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.a == c.b, c.equal) << c.a.name << "@" << c.a.domain;
        EXPECT_EQ(c.b == c.a, c.equal);
        EXPECT_EQ(c.a != c.b, !c.equal);
    }
    PrincipalId self{"x", "y"};
    EXPECT_TRUE(self == self);
}

TEST(TokenSpecTest, DefaultsAndDeepCopies) {
    TokenSpec spec;
    EXPECT_EQ(spec.tokenLifetimeSec, 0);
    EXPECT_FALSE(spec.delegable);
    EXPECT_FALSE(spec.renewable);
    EXPECT_FALSE(spec.delegateTo);
    EXPECT_FALSE(spec.actAsToken);
    EXPECT_EQ(spec.confirmation, CONFIRMATION_DEFAULT);

    spec.tokenLifetimeSec = 600;
    spec.audienceRestriction = {"b", "a", "b"};
    spec.advice.push_back({"src", {{"attr", {"v1", "v2"}}, {"empty", {}}}});
    spec.delegateTo = std::string("delegate@example");
    spec.confirmation = static_cast<ConfirmationType>(5);

    TokenSpec copy = spec;
    spec.advice[0].attributes[0].values[0] = "changed";
    EXPECT_EQ(copy.advice[0].attributes[0].values[0], "v1");
    EXPECT_EQ(
        std::vector<std::string>(copy.audienceRestriction.begin(), copy.audienceRestriction.end()),
        (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(*copy.delegateTo, "delegate@example");
    EXPECT_EQ(static_cast<int32_t>(copy.confirmation), 5);
    EXPECT_EQ(sizeof(ConfirmationType), 4u);
    EXPECT_EQ(sizeof(TokenType), 4u);
    EXPECT_EQ(static_cast<int>(JWT_Bearer), 2);
}

template <class E, class... Bases>
void ExpectFamilyMember() {
    E original("message of " + std::string(typeid(E).name()));
    const Basalt::Exception& base = original;
    std::unique_ptr<Basalt::Exception> clone(base.Clone());
    EXPECT_EQ(typeid(*clone), typeid(E));
    EXPECT_STREQ(clone->what(), original.what());
    // Throw() through the base reference is caught by each base class, as the most derived one.
    auto catchesAs = [&](auto tag) {
        using Handler = typename decltype(tag)::type;
        try {
            clone->Throw();
        } catch (const Handler& e) {
            EXPECT_EQ(typeid(e), typeid(E));
            return true;
        } catch (...) {
        }
        return false;
    };
    EXPECT_TRUE(catchesAs(std::common_type<E>{}));
    EXPECT_TRUE(catchesAs(std::common_type<SsoException>{}));
    EXPECT_TRUE(catchesAs(std::common_type<Basalt::Exception>{}));
    EXPECT_TRUE(catchesAs(std::common_type<std::exception>{}));
    bool caughtByBases = (catchesAs(std::common_type<Bases>{}) && ... && true);
    EXPECT_TRUE(caughtByBases);
}

TEST(ExceptionFamilyTest, EveryClassClonesRethrowsAndIsCaughtByItsBases) {
    ExpectFamilyMember<SsoException>();
    ExpectFamilyMember<CommunicationException>();
    ExpectFamilyMember<InvalidCredentialsException>();
    ExpectFamilyMember<PasswordExpiredException>();
    ExpectFamilyMember<InvalidTokenException>();
    ExpectFamilyMember<InvalidSignatureException, InvalidTokenException>();
    ExpectFamilyMember<ParseException, InvalidTokenException>();
}

TEST(ExceptionFamilyTest, SiblingsDoNotCatchEachOther) {
    try {
        throw ParseException("");
    } catch (const InvalidSignatureException&) {
        FAIL() << "caught by a sibling";
    } catch (const CommunicationException&) {
        FAIL() << "caught by an unrelated class";
    } catch (const InvalidTokenException& e) {
        EXPECT_STREQ(e.what(), "");
    }
}

TEST(ExceptionFamilyTest, DeferredFailureCrossesThreadsByCloneAndThrow) {
    std::shared_ptr<CommunicationException> failure;
    std::thread worker([&] { failure.reset(new CommunicationException("Connection refused")); });
    worker.join();
    ASSERT_TRUE(failure);
    EXPECT_THROW(
        {
            try {
                failure->Throw();
            } catch (const SsoException& e) {
                EXPECT_STREQ(e.what(), "Connection refused");
                throw;
            }
        },
        CommunicationException);
}

TEST(LibraryLoggerTest, TheLibraryLoggerExistsOnceLoaded) {
    Basalt::Service::Logger* logger = Basalt::Service::FindLogger("SsoClient");
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(logger->GetName(), "SsoClient");
}

}  // namespace
