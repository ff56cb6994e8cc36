#pragma once
// The fuzz targets' one assertion: an invariant that does not hold is a finding, so it must abort
// (libFuzzer then keeps the input) and say which invariant it was.
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                   \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                       \
        }                                                                                       \
    } while (false)
