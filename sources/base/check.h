#pragma once

#include <sstream>
#include <string>

// Fatal checks for invariants that only a programming error can break, and for libuv calls that
// cannot fail unless the process is broken; never for input, nor for what a peer sends or a
// connection answers. A failed check reports on standard error, hands what the logger still holds
// to standard output, and ends the process with exit status 1: no abort, no static destructors
// running under live threads. Active in every build type.

namespace kesh {

[[noreturn]] void failCheck(const char* file, int line, const char* condition,
                            const std::string& values);

// Called by a failed check before the process ends; the logger sets it.
void setFatalFlush(void (*flush)());

template <typename A, typename B>
std::string checkValues(const A& a, const B& b) {
  std::ostringstream out;
  out << a << " vs " << b;
  return out.str();
}

}  // namespace kesh

#define KESH_CHECK(condition)                                                \
  do {                                                                       \
    if (!(condition)) ::kesh::failCheck(__FILE__, __LINE__, #condition, ""); \
  } while (0)

// Shows both values, so that a failed libuv call reports its code.
#define KESH_CHECK_EQ(a, b)                                               \
  do {                                                                    \
    const auto& kesh_check_a = (a);                                       \
    const auto& kesh_check_b = (b);                                       \
    if (!(kesh_check_a == kesh_check_b)) {                                \
      ::kesh::failCheck(__FILE__, __LINE__, #a " == " #b,                 \
                        ::kesh::checkValues(kesh_check_a, kesh_check_b)); \
    }                                                                     \
  } while (0)

#define KESH_UNREACHABLE() ::kesh::failCheck(__FILE__, __LINE__, "unreachable code", "")
