#include <basalt/Exception.h>
#include <gtest/gtest.h>

#include <memory>

#include "support/ExpectThrow.h"

namespace {

using namespace Basalt;

// Clone and Throw through a base reference keep the dynamic class, the message and the code.
template <class E>
void ExpectClonesAndRethrowsAs(const char* message) {
    E original{std::string(message)};
    original.SetErrorCode(28);
    std::unique_ptr<Exception> clone(static_cast<const Exception&>(original).Clone());
    EXPECT_EQ(typeid(*clone), typeid(E));
    EXPECT_EQ(clone->GetErrorCode(), 28);
    EXPECT_TRUE(TestSupport::Throws<E>([&] { clone->Throw(); }, message));
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
    EXPECT_EQ(Exception("x").GetErrorCode(), 0);
    EXPECT_STREQ(InvalidStateException(static_cast<const char*>(nullptr)).what(), "");
}

TEST(ExceptionTest, DumpNamesTheClassAndWhereTheThrowSite) {
    try {
        BASALT_THROW(InvalidArgumentException, "bad value");
    } catch (const Throwable& e) {
        EXPECT_EQ(e.Dump().rfind("Basalt::InvalidArgumentException: bad value", 0), 0u) << e.Dump();
        EXPECT_NE(e.Where().find("ExceptionTest.cpp:"), std::string::npos);
    }
    EXPECT_EQ(Exception("x").Where(), "");
    EXPECT_TRUE(TestSupport::Throws<TypeMismatchException>(
        [] { ThrowTypeMismatchException(typeid(InvalidStateException), typeid(int)); },
        "Type mismatch: expected Basalt::InvalidStateException, got int"));
}

}  // namespace
