#pragma once

#include <cstdio>
#include <cstdlib>

// Fatal assertion for invariants that only a programming error can break; never for input.
// Active in every build type: the text of the condition is what a crash report needs.
#define KESH_CHECK(condition)                                                           \
  do {                                                                                  \
    if (!(condition)) {                                                                 \
      fprintf(stderr, "%s:%d: Assertion failed: %s\n", __FILE__, __LINE__, #condition); \
      fflush(stderr);                                                                   \
      abort();                                                                          \
    }                                                                                   \
  } while (0)
