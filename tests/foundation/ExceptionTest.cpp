#include <basalt/Exception.h>
#include <gtest/gtest.h>

#include <memory>
#include <typeinfo>

namespace {

using namespace Basalt;

// Clone and Throw through a base reference keep the dynamic class and the message.
template <class E>
void ExpectClonesAndRethrowsAs(const char* message) {
    E original{std::string(message)};
    const Exception& base = original;
    std::unique_ptr<Exception> clone(base.Clone());
    EXPECT_EQ(typeid(*clone), typeid(E));
    EXPECT_STREQ(clone->what(), message);
    try {
        clone->Throw();
    } catch (const E& caught) {
        EXPECT_STREQ(caught.what(), message);
        EXPECT_EQ(typeid(caught), typeid(E));
        return;
    } catch (...) {
    }
    ADD_FAILURE() << "Throw() did not throw " << typeid(E).name();
}

TEST(ExceptionTest, EveryFoundationClassClonesAndRethrowsItsExactClass) {
    ExpectClonesAndRethrowsAs<Exception>("general");
    ExpectClonesAndRethrowsAs<InvalidArgumentException>("argument");
    ExpectClonesAndRethrowsAs<InvalidStateException>("state");
    ExpectClonesAndRethrowsAs<Base64FormatException>("base64");
    ExpectClonesAndRethrowsAs<DateTimeFormatException>("date");
    ExpectClonesAndRethrowsAs<TypeMismatchException>("type");
    ExpectClonesAndRethrowsAs<Xml::XMLParseException>("parse");
    ExpectClonesAndRethrowsAs<Xml::Security::XmlSecurityException>("security");
    ExpectClonesAndRethrowsAs<Xml::Security::SignatureSyntaxException>("syntax");
}

TEST(ExceptionTest, ConstructorsKeepTheMessageIncludingEmptyAndEmbeddedNul) {
    EXPECT_STREQ(InvalidStateException("").what(), "");
    EXPECT_STREQ(InvalidStateException(static_cast<const char*>(nullptr)).what(), "");
    std::string moved = "moved text";
    EXPECT_STREQ(Exception(std::move(moved)).what(), "moved text");
    const InvalidArgumentException original("copy me");
    InvalidArgumentException copy(original);
    EXPECT_STREQ(copy.what(), "copy me");
}

TEST(ExceptionTest, DumpNamesTheClassAndWhereTheThrowSite) {
    try {
        BASALT_THROW(InvalidArgumentException, "bad value");
    } catch (const Throwable& e) {
        EXPECT_EQ(e.Dump().rfind("Basalt::InvalidArgumentException: bad value", 0), 0u) << e.Dump();
        EXPECT_NE(e.Where().find("ExceptionTest.cpp:"), std::string::npos);
    }
    EXPECT_EQ(Exception("x").Where(), "");
}

TEST(ExceptionTest, TypeMismatchNamesBothClasses) {
    try {
        ThrowTypeMismatchException(typeid(InvalidStateException), typeid(int));
        FAIL() << "did not throw";
    } catch (const TypeMismatchException& e) {
        EXPECT_STREQ(e.what(), "Type mismatch: expected Basalt::InvalidStateException, got int");
    }
}

TEST(ExceptionTest, ErrorCodeTravelsWithClone) {
    Exception e("coded");
    EXPECT_EQ(e.GetErrorCode(), 0);
    e.SetErrorCode(28);
    std::unique_ptr<Exception> clone(e.Clone());
    EXPECT_EQ(clone->GetErrorCode(), 28);
}

}  // namespace
