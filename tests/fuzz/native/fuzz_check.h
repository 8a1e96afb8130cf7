// A check that holds in every build: prints what failed and aborts, which libFuzzer records as
// a finding with the input that caused it.
#pragma once
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond, ...)                                                 \
  do {                                                                        \
    if (!(cond)) {                                                            \
      std::fprintf(stderr, "%s:%d: check failed: %s: ", __FILE__, __LINE__, #cond); \
      std::fprintf(stderr, __VA_ARGS__);                                      \
      std::fprintf(stderr, "\n");                                             \
      std::abort();                                                           \
    }                                                                         \
  } while (0)
