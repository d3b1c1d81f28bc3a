#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "services/fileRecord.h"

namespace kesh {
namespace {

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
  std::string read(const std::string& name, const std::string& bytes, bool skipMark) {
    int32_t size = -1;
    std::unique_ptr<char[]> buffer = ReadFileContents(write(name, bytes), &size, skipMark);
    EXPECT_EQ(buffer[size], '\0');
    return std::string(buffer.get(), size);
  }
};

TEST_F(Files, ReadSkipsTheMarkOnlyWhenAskedAndWhole) {
  EXPECT_EQ(read("bom.js", "\xEF\xBB\xBFvar a;", true), "var a;");
  EXPECT_EQ(read("bom.js", "\xEF\xBB\xBFvar a;", false), "\xEF\xBB\xBFvar a;");
  EXPECT_EQ(read("half.js", "\xEF\x41\x42\x43", true), "\xEF\x41\x42\x43");
  EXPECT_EQ(read("short.js", "\xEF\xBB", true), "\xEF\xBB");
  EXPECT_EQ(read("empty.js", "", true), "");
  EXPECT_EQ(read("zero.bin", std::string("a\0b", 3), false), std::string("a\0b", 3));
}

TEST_F(Files, ReadFailuresThrowWithTheirTexts) {
  int32_t size = 0;
  try {
    ReadFileContents(dir_ + "/missing.js", &size, false);
    FAIL() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "File system couldn't load the file: No such file or directory");
  }
  std::string path = write("a.js", "x");
  EXPECT_THROW(ReadFileContents(path, nullptr, false), FileIoException);
  EXPECT_THROW(ReadFileContents(dir_, &size, false), FileIoException);  // a directory
  if (geteuid() != 0) {  // root reads whatever the mode says
    chmod(path.c_str(), 0);
    EXPECT_THROW(ReadFileContents(path, &size, false), FileIoException);
  }
}

TEST_F(Files, OpenGivesAbsoluteNormalizedNamesAndRefusesTheRest) {
  write("m.js", "1");
  mkdir((dir_ + "/sub").c_str(), 0755);
  auto record = FileRecord::open(dir_ + "/sub/../././m.js");
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
  mkdir((dir_ + "/dir.js").c_str(), 0755);
  EXPECT_FALSE(FileRecord::forScript(dir_ + "/dir.js"));
  // ".js" inside a directory name is enough, as it is only a sign of a script path.
  mkdir((dir_ + "/x.jsdir").c_str(), 0755);
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

}  // namespace
}  // namespace kesh
