#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "services/KeshLogger.h"
#include "services/fileRecord.h"
#include "services/logFormat.h"
#include "services/numberChecks.h"

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

class Files : public testing::Test {
 protected:
  std::string dir_;

  void SetUp() override {
    char pattern[] = "/tmp/kesh-files-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { system(("rm -rf '" + dir_ + "'").c_str()); }

  std::string write(const std::string& name, const std::string& bytes) {
    std::string path = dir_ + "/" + name;
    FILE* file = fopen(path.c_str(), "wb");
    fwrite(bytes.data(), 1, bytes.size(), file);
    fclose(file);
    return path;
  }
  std::string read(const std::string& bytes, bool skipMark) {
    int32_t size = -1;
    std::unique_ptr<char[]> buffer = ReadFileContents(write("r.js", bytes), &size, skipMark);
    EXPECT_EQ(buffer[size], '\0');
    return std::string(buffer.get(), size);
  }
  std::string dir(const std::string& name) {
    mkdir((dir_ + "/" + name).c_str(), 0755);
    return dir_ + "/" + name;
  }
};

TEST_F(Files, ReadSkipsTheMarkOnlyWhenAskedAndWholeAndThrowsWithItsText) {
  EXPECT_EQ(read("\xEF\xBB\xBFvar a;", true), "var a;");
  EXPECT_EQ(read("\xEF\xBB\xBFvar a;", false), "\xEF\xBB\xBFvar a;");
  EXPECT_EQ(read("\xEF\x41\x42\x43", true), "\xEF\x41\x42\x43");
  EXPECT_EQ(read("\xEF\xBB", true), "\xEF\xBB");
  EXPECT_EQ(read("", true), "");
  EXPECT_EQ(read(std::string("a\0b", 3), false), std::string("a\0b", 3));

  int32_t size = 0;
  try {
    ReadFileContents(dir_ + "/missing.js", &size, false);
    FAIL() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "File system couldn't load the file: No such file or directory");
  }
  std::string path = write("a.js", "x");
  EXPECT_THROW(ReadFileContents(path, nullptr, false), FileIoException);
  EXPECT_THROW(ReadFileContents(dir_, &size, false), FileIoException);
  if (geteuid() != 0) {  // root reads whatever the mode says
    chmod(path.c_str(), 0);
    EXPECT_THROW(ReadFileContents(path, &size, false), FileIoException);
  }
}

TEST_F(Files, OpenGivesAbsoluteNormalizedNamesAndRefusesTheRest) {
  write("m.js", "1");
  auto record = FileRecord::open(dir("sub") + "/../././m.js");
  ASSERT_TRUE(record);
  EXPECT_STREQ(record->fullPath.get(), (dir_ + "/m.js").c_str());
  EXPECT_EQ(std::string(record->dirName.get()) + record->fileName, record->fullPath.get());
  EXPECT_EQ(record->kind, FileKind::kJavaScript);
  char cwd[4096];  // a relative name is taken against the current directory
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  ASSERT_EQ(chdir(dir_.c_str()), 0);
  auto relative = FileRecord::open("sub/../m.js");
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_TRUE(relative);
  EXPECT_STREQ(relative->fullPath.get(), (dir_ + "/m.js").c_str());

  EXPECT_FALSE(FileRecord::open(dir_));
  EXPECT_FALSE(FileRecord::open(dir_ + "/nothing.js"));
  // The file exists, but its absolute path is over 260 bytes.
  std::string longPath = write(std::string(250, 'n') + ".js", "1");
  EXPECT_FALSE(FileRecord::open(longPath));
  EXPECT_FALSE(FileRecord::forScript(longPath));
}

TEST_F(Files, ForScriptNeedsJsAndTellsMissingFromUnusable) {
  EXPECT_FALSE(FileRecord::forScript(write("script", "1")));  // no ".js" anywhere in the path
  auto missing = FileRecord::forScript(dir_ + "/gone.js");
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->fullPath, nullptr);
  EXPECT_FALSE(FileRecord::forScript(dir("dir.js")));
  // ".js" inside a directory name is enough, as it is only a sign of a script path.
  dir("x.jsdir");
  EXPECT_TRUE(FileRecord::forScript(write("x.jsdir/run", "1")));
}

TEST(AbsolutePath, LexicalNormalisation) {
  const char* cases[][3] = {{"/a/b", "../c.js", "/a/c.js"},
                            {"/a/b", "/x//y/./z/../w.js", "/x/y/w.js"},
                            {"/", "../../etc", "/etc"},
                            {"/a", ".", "/a"},
                            {"/a", "..", "/"}};
  for (auto& c : cases) EXPECT_EQ(absolutePath(c[0], c[1]), c[2]) << c[1];
}

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(NumberChecks, PortsAreIntegersFrom0To65535AndDelaysWholeMillisecondsInLibuvsRange) {
  std::pair<double, int> ports[] = {{0.0, 0},    {-0.0, 0},       {9229, 9229},     {65535, 65535},
                                    {65536, -1}, {-1, -1},        {0.5, -1},        {65534.9, -1},
                                    {1e300, -1}, {kInfinity, -1}, {-kInfinity, -1}, {kNaN, -1}};
  for (auto [value, expected] : ports) {
    uint16_t port = 7;  // left alone on a refusal
    EXPECT_EQ(portFromNumber(value, &port), expected >= 0) << value;
    EXPECT_EQ(port, expected >= 0 ? expected : 7) << value;
  }
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
