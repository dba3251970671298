// What the tests of broken preconditions share.
#pragma once

#include <algorithm>
#include <string>

namespace test_support {

// Pattern of the line that a broken precondition prints.
inline std::string AssertionLine(std::string expression, const std::string& function,
                                 const std::string& source) {
    std::replace_if(
        expression.begin(), expression.end(), [](char c) { return c == '(' || c == ')'; }, '.');
    return "^Assertion failed: \\(" + expression + "\\), function " + function + ", file " +
           source + ", line [0-9]+\\.\n$";
}

}  // namespace test_support
