#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "services/numberChecks.h"

namespace kesh {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(NumberChecks, PortsAreIntegersFrom0To65535) {
  for (double value : {0.0, -0.0, 9229.0, 65535.0}) {
    uint16_t port = 1;
    EXPECT_TRUE(portFromNumber(value, &port)) << value;
    EXPECT_EQ(port, static_cast<uint16_t>(value));
  }
  for (double value : {65536.0, -1.0, 0.5, 65534.9, 1e300, kInfinity, -kInfinity, kNaN}) {
    uint16_t port = 7;
    EXPECT_FALSE(portFromNumber(value, &port)) << value;
    EXPECT_EQ(port, 7);
  }
}

TEST(NumberChecks, TimerDelaysAreCutToWholeMillisecondsWithinLibuvsRange) {
  const double belowTwoTo64 = std::nextafter(18446744073709551616.0, 0.0);
  std::pair<double, uint64_t> accepted[] = {{2.9, 2},
                                            {kNaN, 0},
                                            {-1e308, 0},
                                            {1e15, 1000000000000000},
                                            {belowTwoTo64, static_cast<uint64_t>(belowTwoTo64)}};
  for (auto [value, expected] : accepted) {
    uint64_t ms = 1;
    EXPECT_TRUE(timerDelayFromNumber(value, &ms)) << value;
    EXPECT_EQ(ms, expected) << value;
  }
  for (double value : {kInfinity, -kInfinity, 18446744073709551616.0, 1e308}) {
    uint64_t ms = 1;
    EXPECT_FALSE(timerDelayFromNumber(value, &ms)) << value;
  }
}

TEST(NumberChecks, NumbersShowInTheirShortForm) {
  std::pair<double, const char*> cases[] = {
      {0.5, "0.5"},      {-1, "-1"},
      {1e300, "1e+300"}, {18446744073709551616.0, "18446744073709551616"},
      {kNaN, "NaN"},     {-kInfinity, "-Infinity"}};
  for (auto [value, text] : cases) EXPECT_EQ(numberText(value), text);
}

}  // namespace
}  // namespace kesh
