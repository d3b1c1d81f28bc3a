#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

namespace kesh {

// The one exception of file reading; callers turn it into a JavaScript Error.
struct FileIoException : std::exception {
  std::string message;
  explicit FileIoException(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }
};

enum class FileKind : int32_t { kJson = 0, kJavaScript = 1 };

constexpr size_t kMaxPathLength = 260;

// One file that a script may load. Once the file cache owns it, it is shared and never changed.
struct FileRecord {
  std::string text;                  // what V8 is given
  const char* fileName = nullptr;    // points into fullPath, behind its last '/'
  std::unique_ptr<char[]> dirName;   // fullPath up to and including its last '/'
  std::unique_ptr<char[]> fullPath;  // kMaxPathLength + 1 bytes; null: the record names no file
  const char* source = nullptr;      // text's characters, for V8
  int32_t size = -1;                 // byte length of text; what is charged to V8
  FileKind kind = FileKind::kJavaScript;

  // A record for an existing regular file, or null.
  static std::unique_ptr<FileRecord> open(const std::string& path);
  // As open, for a script named by the runner: null without ".js" in the path or for a path that
  // is not a regular file; a record with a null fullPath when nothing exists there.
  static std::unique_ptr<FileRecord> forScript(const std::string& path);
};

// Reads a whole file into a new zero-terminated buffer; *size gets the content length. With
// skipMark a leading UTF-8 byte-order mark is left out. Throws FileIoException.
std::unique_ptr<char[]> ReadFileContents(const std::string& path, int32_t* size, bool skipMark);

// Absolute form of path against cwd, with "." and ".." resolved lexically (links are not
// followed). Repeated separators collapse; ".." at the root stays at the root.
std::string absolutePath(const std::string& cwd, const std::string& path);
// The same against the process's current directory.
std::string absolutePath(const std::string& path);

}  // namespace kesh
