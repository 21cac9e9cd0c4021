#pragma once

// Invariant check that stays on in every build type, NDEBUG included. The
// failing expression is printed as written, so `RS_ASSERT(x && "why")`
// reports both the condition and the reason.
#define RS_ASSERT(expr) \
    ((expr) ? static_cast<void>(0) : rs_assert_fail(#expr, __FILE__, __LINE__, __func__))

[[noreturn]] void rs_assert_fail(const char* expr, const char* file, int line, const char* func);
