// A broken invariant stops the fuzzer with a crash report, like a sanitizer finding.
#pragma once

#include <cstdio>
#include <cstdlib>

#define QV_FUZZ_CHECK(cond)                                                           \
    do {                                                                              \
        if (!(cond)) {                                                                \
            std::fprintf(stderr, "invariant failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            std::abort();                                                             \
        }                                                                             \
    } while (0)
