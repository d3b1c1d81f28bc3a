#include <gtest/gtest.h>
#include <unistd.h>

#include "services/KeshLogger.h"
#include "services/logFormat.h"

namespace kesh {
namespace {

std::string expand(const char* format, std::initializer_list<std::string> args) {
  std::string out;
  expandFormat(out, format, args.begin(), args.size());
  return out;
}

TEST(ExpandFormat, PlaceholdersAndEscapes) {
  EXPECT_EQ(expand("100%% of %", {"5"}), "100% of 5");
  EXPECT_EQ(expand("% and %", {"a", "b"}), "a and b");
  EXPECT_EQ(expand("at the end %", {"x"}), "at the end x");
  EXPECT_EQ(expand("%", {""}), "");
}

TEST(ExpandFormat, RestIsCopiedOnceArgumentsRunOut) {
  // A doubled percent behind the last placeholder stays doubled, a later single one stays.
  EXPECT_EQ(expand("% then 100%% and %", {"a"}), "a then 100%% and %");
  EXPECT_EQ(expand("no args 50%% %", {}), "no args 50%% %");
  EXPECT_EQ(expand("a % b % c", {"1"}), "a 1 b % c");
}

TEST(ExpandFormat, ExtraArgumentsAreDroppedAndTrailingPercentIsAPlaceholder) {
  EXPECT_EQ(expand("only %", {"1", "2", "3"}), "only 1");
  EXPECT_EQ(expand("plain", {"1"}), "plain");
  EXPECT_EQ(expand("x%%", {"1"}), "x%");
}

TEST(LineBuilding, PrefixAndDisplayText) {
  std::string line;
  appendLinePrefix(line, 4242, 7);
  EXPECT_EQ(line, "(4242) Vuser [7] ");
  line.clear();
  appendLinePrefix(line, 1, kNoVuser);
  EXPECT_EQ(line, "(1) ");
  EXPECT_EQ(displayText("NetworkManager", "(4242) Vuser [7] connected"),
            "NetworkManager - (4242) Vuser [7] connected");
  EXPECT_EQ(displayText("", "(1) bare"), "(1) bare");
}

TEST(LineBuilding, LevelNames) {
  EXPECT_STREQ(levelName(LogLevel::kError), "Error");
  EXPECT_STREQ(levelName(LogLevel::kWarning), "Warning");
  EXPECT_STREQ(levelName(LogLevel::kInfo), "Info");
  EXPECT_STREQ(levelName(LogLevel::kDebug), "Debug");
  EXPECT_STREQ(levelName(LogLevel::kTrace), "trace");
  EXPECT_STREQ(levelName(static_cast<LogLevel>(9)), "BadLogLevel");
}

TEST(LineBuilding, ThreadIdIsTheKernelId) {
  EXPECT_EQ(currentThreadId(), static_cast<uint64_t>(getpid()));  // main thread: tid == pid
}

TEST(DirectOutput, LinesFiltersAndTraceRules) {
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
