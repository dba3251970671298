// The standard assertion: what a broken precondition or an impossible state ends the process with.
//
// It is active in every build type. The function, the source and the expression are part of the
// message people and tests look for, so the caller names them; they stay the same when code moves
// to another file. Where a check has a number of its own, that number is given; otherwise the line
// of the call is printed.
#pragma once

namespace assertion {

// Prints one line to standard error,
//   Assertion failed: (EXPRESSION), function FUNCTION, file SOURCE, line LINE.
// and aborts. Nothing is unwound: a lock the caller holds must be released before.
[[noreturn]] void Fail(const char* function, const char* source, const char* expression,
                       int line = __builtin_LINE());

// Calls Fail() unless `holds`.
inline void Require(bool holds, const char* function, const char* source, const char* expression,
                    int line = __builtin_LINE()) {
    if (!holds) Fail(function, source, expression, line);
}

}  // namespace assertion
