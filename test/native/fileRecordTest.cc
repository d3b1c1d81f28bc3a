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
};

std::string read(const std::string& path, bool skipMark, int32_t* size) {
  std::unique_ptr<char[]> buffer = ReadFileContents(path, size, skipMark);
  EXPECT_EQ(buffer[*size], '\0');
  return std::string(buffer.get(), *size);
}

TEST_F(Files, ReadSkipsTheMarkOnlyWhenAskedAndWhole) {
  std::string path = write("bom.js", "\xEF\xBB\xBFvar a;");
  int32_t size = -1;
  EXPECT_EQ(read(path, true, &size), "var a;");
  EXPECT_EQ(size, 6);
  EXPECT_EQ(read(path, false, &size), "\xEF\xBB\xBFvar a;");
  EXPECT_EQ(size, 9);

  std::string half = write("half.js", "\xEF\x41\x42\x43");  // 0xEF without the rest of the mark
  EXPECT_EQ(read(half, true, &size), "\xEF\x41\x42\x43");
  std::string shortMark = write("short.js", "\xEF\xBB");
  EXPECT_EQ(read(shortMark, true, &size), "\xEF\xBB");
}

TEST_F(Files, ReadEmptyFileAndEmbeddedZeros) {
  int32_t size = -1;
  EXPECT_EQ(read(write("empty.js", ""), true, &size), "");
  EXPECT_EQ(size, 0);
  EXPECT_EQ(read(write("zero.bin", std::string("a\0b", 3)), false, &size), std::string("a\0b", 3));
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
  try {
    ReadFileContents(path, nullptr, false);
    FAIL() << "no exception";
  } catch (const FileIoException& e) {
    EXPECT_EQ(e.message, "didn't receive the file size of - " + path);
  }
  EXPECT_THROW(ReadFileContents(dir_, &size, false), FileIoException);  // a directory
  if (geteuid() != 0) {  // root reads whatever the mode says
    chmod(path.c_str(), 0);
    EXPECT_THROW(ReadFileContents(path, &size, false), FileIoException);
  }
}

TEST_F(Files, OpenGivesAbsoluteNormalizedNames) {
  write("m.js", "1");
  mkdir((dir_ + "/sub").c_str(), 0755);
  auto record = FileRecord::open(dir_ + "/sub/../././m.js");
  ASSERT_TRUE(record);
  EXPECT_STREQ(record->fullPath.get(), (dir_ + "/m.js").c_str());
  EXPECT_STREQ(record->fileName, "m.js");
  EXPECT_EQ(std::string(record->dirName.get()) + record->fileName, record->fullPath.get());
  EXPECT_EQ(record->size, -1);
  EXPECT_EQ(record->kind, FileKind::kJavaScript);

  // A relative name is taken against the current directory.
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  ASSERT_EQ(chdir(dir_.c_str()), 0);
  auto relative = FileRecord::open("sub/../m.js");
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_TRUE(relative);
  EXPECT_STREQ(relative->fullPath.get(), (dir_ + "/m.js").c_str());
}

TEST_F(Files, OpenRefusesDirectoriesMissingFilesAndLongPaths) {
  EXPECT_FALSE(FileRecord::open(dir_));
  EXPECT_FALSE(FileRecord::open(dir_ + "/nothing.js"));
  std::string longName(250, 'n');
  write(longName + ".js", "1");  // the file exists, but its absolute path is over 260 bytes
  EXPECT_FALSE(FileRecord::open(dir_ + "/" + longName + ".js"));
  EXPECT_FALSE(FileRecord::forScript(dir_ + "/" + longName + ".js"));
}

TEST_F(Files, ForScriptNeedsJsAndTellsMissingFromUnusable) {
  std::string plain = write("script", "1");
  EXPECT_FALSE(FileRecord::forScript(plain));  // no ".js" anywhere in the path
  auto missing = FileRecord::forScript(dir_ + "/gone.js");
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->fullPath, nullptr);
  mkdir((dir_ + "/dir.js").c_str(), 0755);
  EXPECT_FALSE(FileRecord::forScript(dir_ + "/dir.js"));
  auto found = FileRecord::forScript(write("v.js", "1"));
  ASSERT_TRUE(found);
  EXPECT_STREQ(found->fileName, "v.js");
  // ".js" inside a directory name is enough, as it is only a sign of a script path.
  mkdir((dir_ + "/x.jsdir").c_str(), 0755);
  EXPECT_TRUE(FileRecord::forScript(write("x.jsdir/run", "1")));
}

TEST(AbsolutePath, LexicalNormalisation) {
  EXPECT_EQ(absolutePath("/a/b", "c.js"), "/a/b/c.js");
  EXPECT_EQ(absolutePath("/a/b", "../c.js"), "/a/c.js");
  EXPECT_EQ(absolutePath("/a/b", "/x//y/./z/../w.js"), "/x/y/w.js");
  EXPECT_EQ(absolutePath("/", "../../etc"), "/etc");
  EXPECT_EQ(absolutePath("/a", "."), "/a");
  EXPECT_EQ(absolutePath("/a", ".."), "/");
}

}  // namespace
}  // namespace kesh
