// A property check inside a fuzz target: a broken property is a finding, so
// it aborts (the fuzzer then keeps the input) after naming the condition.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                   \
    do {                                                                                   \
        if (!(cond)) {                                                                     \
            std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                  \
        }                                                                                  \
    } while (0)
