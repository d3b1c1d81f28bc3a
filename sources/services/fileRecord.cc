#include "services/fileRecord.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "services/KeshLogger.h"

namespace kesh {

namespace {

std::string errorText(int error) {
  char buffer[256];
  // GNU strerror_r: returns a pointer that may or may not be the buffer.
  return std::string(strerror_r(error, buffer, sizeof(buffer)));
}

[[noreturn]] void fail(const std::string& message) {
  KeshLogger::log(LogLevel::kError, component::kUtilities, message);
  throw FileIoException(message);
}

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

std::unique_ptr<FileRecord> newRecord(const std::string& path) {
  auto record = std::make_unique<FileRecord>();
  std::string absolute = absolutePath(path);
  struct stat info;
  if (absolute.size() <= kMaxPathLength && stat(absolute.c_str(), &info) == 0) {
    record->fullPath = std::make_unique<char[]>(kMaxPathLength + 1);  // zero-filled
    memcpy(record->fullPath.get(), absolute.data(), absolute.size());
  }
  return record;
}

bool isRegularFile(const char* path) {
  struct stat info;
  return stat(path, &info) == 0 && S_ISREG(info.st_mode);
}

void setNames(FileRecord& record) {
  const char* full = record.fullPath.get();
  const char* slash = strrchr(full, '/');
  record.fileName = slash ? slash + 1 : full;
  size_t dirLength = record.fileName - full;
  record.dirName = std::make_unique<char[]>(dirLength + 1);
  memcpy(record.dirName.get(), full, dirLength);
  record.dirName[dirLength] = '\0';
}

}  // namespace

std::string absolutePath(const std::string& cwd, const std::string& path) {
  std::string joined = (!path.empty() && path[0] == '/') ? path : cwd + "/" + path;
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= joined.size()) {
    size_t end = joined.find('/', start);
    if (end == std::string::npos) end = joined.size();
    std::string part = joined.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(std::move(part));
    }
    start = end + 1;
  }
  std::string result;
  for (const std::string& part : parts) {
    result.push_back('/');
    result.append(part);
  }
  return result.empty() ? "/" : result;
}

std::string absolutePath(const std::string& path) {
  std::vector<char> buffer(PATH_MAX);
  std::string cwd = getcwd(buffer.data(), buffer.size()) ? buffer.data() : "/";
  return absolutePath(cwd, path);
}

std::unique_ptr<char[]> ReadFileContents(const std::string& path, int32_t* size, bool skipMark) {
  std::unique_ptr<FILE, FileCloser> file(fopen(path.c_str(), "rb"));
  if (!file) fail("File system couldn't load the file: " + errorText(errno));
  if (size == nullptr) fail("didn't receive the file size of - " + path);

  *size = 0;
  struct stat info;
  if (fstat(fileno(file.get()), &info) != 0)
    fail("File system couldn't load the file: " + errorText(errno));
  // A directory opens for reading on Linux; refuse it here rather than at the first read.
  if (S_ISDIR(info.st_mode)) fail("File system couldn't load the file: " + errorText(EISDIR));
  if (info.st_size >= INT32_MAX) {
    fail("File system couldn't load the file [ " + path + "] due to: " + errorText(EFBIG));
  }
  *size = static_cast<int32_t>(info.st_size);

  if (skipMark && *size >= 1) {
    static const unsigned char kMark[3] = {0xEF, 0xBB, 0xBF};
    unsigned char head[3];
    size_t got = fread(head, 1, 3, file.get());
    if (got == 3 && memcmp(head, kMark, 3) == 0) {
      *size -= 3;
    } else {
      rewind(file.get());
    }
  }

  std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(*size) + 1]);
  if (!buffer) {
    fail("File system couldn't load the file [ " + path + "] due to: " + errorText(ENOMEM));
  }
  size_t total = 0;
  while (total < static_cast<size_t>(*size)) {
    size_t got = fread(buffer.get() + total, 1, *size - total, file.get());
    if (got == 0) break;  // the file shrank since it was measured: keep what is there
    total += got;
  }
  *size = static_cast<int32_t>(total);
  buffer[total] = '\0';
  return buffer;
}

std::unique_ptr<FileRecord> FileRecord::open(const std::string& path) {
  std::unique_ptr<FileRecord> record = newRecord(path);
  if (!record->fullPath || !isRegularFile(record->fullPath.get())) return nullptr;
  setNames(*record);
  return record;
}

std::unique_ptr<FileRecord> FileRecord::forScript(const std::string& path) {
  if (path.find(".js") == std::string::npos) return nullptr;
  if (absolutePath(path).size() > kMaxPathLength) return nullptr;
  std::unique_ptr<FileRecord> record = newRecord(path);
  if (!record->fullPath) return record;
  if (!isRegularFile(record->fullPath.get())) return nullptr;
  setNames(*record);
  return record;
}

}  // namespace kesh
