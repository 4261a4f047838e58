#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <typeinfo>

#include <basalt/Exception.h>

namespace TestSupport {

// Runs action and checks that it throws exactly Expected (not a subclass) with a message equal to
// message, or starting with it when prefixOnly is set.
template <class Expected, class Action>
::testing::AssertionResult Throws(Action&& action, const std::string& message,
                                  bool prefixOnly = false) {
    try {
        action();
    } catch (const Basalt::Exception& e) {
        const std::string what = e.what();
        if (typeid(e) != typeid(Expected)) {
            return ::testing::AssertionFailure()
                   << "threw " << Basalt::DemangledName(typeid(e)) << ": " << what;
        }
        const bool matches = prefixOnly ? what.rfind(message, 0) == 0 : what == message;
        if (!matches) {
            return ::testing::AssertionFailure() << "message was: " << what;
        }
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "nothing thrown";
}

// Throws<Expected> as a value, for tables whose rows expect different exception classes.
using ThrowCheck = ::testing::AssertionResult (*)(const std::function<void()>&, const std::string&,
                                                  bool);
template <class Expected>
constexpr ThrowCheck kThrows = &Throws<Expected, const std::function<void()>&>;

}  // namespace TestSupport
