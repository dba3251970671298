#include "common/assertion.h"

#include <cstdio>
#include <cstdlib>

namespace assertion {

void Fail(const char* function, const char* source, const char* expression, int line) {
    std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expression,
                 function, source, line);
    std::fflush(stderr);
    std::abort();
}

}  // namespace assertion
