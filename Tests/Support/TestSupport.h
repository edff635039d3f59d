#pragma once

// Helpers that every test suite shares.

#include <Platform/Exception.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>

namespace velvox::test {

// The reason of the exception that the action raises, after checking its
// name; "(nothing raised)" when it raises none.
inline std::string raisedReason(const std::function<void()>& action, std::string_view expectedName)
{
    try {
        action();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), expectedName);
        return exception.reason();
    }
    return "(nothing raised)";
}

// "name: reason" of the exception that the action raises, or "(nothing raised)".
inline std::string raisedNameAndReason(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Exception& exception) {
        return exception.name() + ": " + exception.reason();
    }
    return "(nothing raised)";
}

} // namespace velvox::test
