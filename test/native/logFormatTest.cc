#include <gtest/gtest.h>
#include <unistd.h>

#include "services/KeshLogger.h"
#include "services/logFormat.h"

namespace kesh {
namespace {

TEST(ExpandFormat, PlaceholdersEscapesAndTheRestOnceArgumentsRunOut) {
  struct Case {
    const char* format;
    std::vector<std::string> args;
    const char* expected;
  } cases[] = {
      {"100%% of %", {"5"}, "100% of 5"},
      {"% and %", {"a", "b"}, "a and b"},
      {"%", {""}, ""},
      {"x%%", {"1"}, "x%"},
      {"only %", {"1", "2", "3"}, "only 1"},
      // Behind the last argument the rest is copied as it is, doubled percents included.
      {"% then 100%% and %", {"a"}, "a then 100%% and %"},
      {"no args 50%% %", {}, "no args 50%% %"},
  };
  for (const Case& c : cases) {
    std::string out;
    expandFormat(out, c.format, c.args.data(), c.args.size());
    EXPECT_EQ(out, c.expected) << c.format;
  }
}

TEST(DirectOutput, LinesFiltersAndTraceRules) {
  EXPECT_EQ(currentThreadId(), static_cast<uint64_t>(getpid()));  // main thread: tid == pid
  ASSERT_TRUE(directOutput.load());
  testing::internal::CaptureStdout();
  KeshLogger::log(LogLevel::kInfo, "NetworkManager", 7, "connected");
  KeshLogger::logf(LogLevel::kDebug, "timers", "dropped at info %", 1u);
  KeshLogger::log(LogLevel::kTrace, "timers", "plain trace dropped at info");
  KeshLogger::log(LogLevel::kDebug, "timers", std::string("plain debug dropped at info"));
  KeshLogger::logf(LogLevel::kWarning, "", 3u, "% of %", 2u, std::string("3"));
  KeshLogger::logRaw("custom", "Console", "raw text 100%%");
  currentLogLevel = static_cast<int32_t>(LogLevel::kDebug);
  KeshLogger::logf(LogLevel::kDebug, "timers", "now shown %", 2u);
  KeshLogger::log(LogLevel::kTrace, "timers", "plain trace shown at debug");
  KeshLogger::logf(LogLevel::kTrace, "timers", "formatted trace never shows");
  currentLogLevel = static_cast<int32_t>(LogLevel::kError);
  KeshLogger::log(LogLevel::kInfo, "timers", "plain info shows at any level");
  currentLogLevel = static_cast<int32_t>(LogLevel::kInfo);
  std::string out = testing::internal::GetCapturedStdout();
  // Appended, not prepended: GCC 12 in C++20 warns falsely about a prepending operator+.
  std::string tid = std::string("(").append(std::to_string(currentThreadId())).append(") ");
  EXPECT_EQ(out, "[Info]: NetworkManager - " + tid + "Vuser [7] connected\n" + "[Warning]: " + tid +
                     "Vuser [3] 2 of 3\n" + "[custom]: Console - " + tid + "raw text 100%%\n" +
                     "[Debug]: timers - " + tid + "now shown 2\n" + "[trace]: timers - " + tid +
                     "plain trace shown at debug\n" + "[Info]: timers - " + tid +
                     "plain info shows at any level\n");
}

}  // namespace
}  // namespace kesh
