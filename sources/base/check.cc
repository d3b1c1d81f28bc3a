#include "base/check.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace kesh {

namespace {
std::atomic<void (*)()> fatalFlush{nullptr};
}  // namespace

void setFatalFlush(void (*flush)()) { fatalFlush.store(flush); }

void failCheck(const char* file, int line, const char* condition, const std::string& values) {
  fprintf(stderr, "%s:%d: check failed: %s%s%s%s\n", file, line, condition,
          values.empty() ? "" : " (", values.c_str(), values.empty() ? "" : ")");
  fflush(stderr);
  if (auto flush = fatalFlush.load()) flush();
  fflush(stdout);
  // Not exit(): static destructors would run while Vuser threads still use what they destroy.
  _exit(1);
}

}  // namespace kesh
