#include <basalt/Exception.h>
#include <gtest/gtest.h>

#include <memory>

#include "support/ExpectThrow.h"

namespace {

using namespace Basalt;

// Clone and Throw through a base reference keep the dynamic class, the message and the code: the
// base class and one made by the declaring macro stand for the family.
template <class E>
void ExpectClonesAndRethrowsAs(const char* message) {
    E original{std::string(message)};
    original.SetErrorCode(28);
    std::unique_ptr<Exception> clone(static_cast<const Exception&>(original).Clone());
    EXPECT_EQ(clone->GetErrorCode(), 28);
    EXPECT_TRUE(TestSupport::Throws<E>([&] { clone->Throw(); }, message));
}

TEST(ExceptionTest, ClonesRethrowsAndDescribesItsThrowSite) {
    ExpectClonesAndRethrowsAs<Exception>("general");
    ExpectClonesAndRethrowsAs<Xml::Security::SignatureSyntaxException>("syntax");
    try {
        BASALT_THROW(InvalidArgumentException, "bad value");
    } catch (const Throwable& e) {
        EXPECT_EQ(e.Dump().rfind("Basalt::InvalidArgumentException: bad value (at ", 0), 0u);
        EXPECT_NE(e.Where().find("ExceptionTest.cpp:"), std::string::npos);
    }
    EXPECT_TRUE(TestSupport::Throws<TypeMismatchException>(
        [] { ThrowTypeMismatchException(typeid(InvalidStateException), typeid(int)); },
        "Type mismatch: expected Basalt::InvalidStateException, got int"));
}

}  // namespace
