#include "common/rs_assert.h"

#include <cstdio>
#include <cstdlib>

void rs_assert_fail(const char* expr, const char* file, int line, const char* func) {
    std::fprintf(stderr, "<2>%s:%d: %s: Assertion `%s' failed.\n", file, line, func, expr);
    std::abort();
}
