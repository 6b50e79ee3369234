// A broken property stops the run with the property's text, so libFuzzer
// keeps the input that broke it.
#ifndef KORVANE_FUZZ_CHECK_H
#define KORVANE_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition) \
    ((condition) ? void() : (std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #condition), std::abort()))

#endif
