#include "services/numberChecks.h"

#include <charconv>
#include <cmath>

namespace kesh {

namespace {
constexpr double kTwoTo64 = 18446744073709551616.0;
}

bool portFromNumber(double value, uint16_t* port) {
  if (!(value >= 0 && value <= 65535) || std::trunc(value) != value) return false;
  *port = static_cast<uint16_t>(value);
  return true;
}

bool timerDelayFromNumber(double value, uint64_t* ms) {
  if (std::isinf(value) || value >= kTwoTo64) return false;
  *ms = value > 0 ? static_cast<uint64_t>(value) : 0;  // also NaN
  return true;
}

std::string numberText(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  char text[32];
  auto result = std::to_chars(text, text + sizeof(text), value);
  return std::string(text, result.ptr);
}

}  // namespace kesh
