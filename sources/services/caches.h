#pragma once

#include <v8.h>

#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "services/fileRecord.h"

namespace kesh {

// Process-wide file texts, keyed by absolute path. Records are immutable once added.
struct FileCacheManager {
  std::shared_mutex lock_;
  std::unordered_map<std::string, FileRecord*> files_;

  static FileCacheManager& instance();
  FileRecord* find(const std::string& fullPath);
  // On a hit the caller's record is released and replaced by the cached one.
  bool lookup(FileRecord*& record);
  // Takes ownership unless the path is present; the loser of a race keeps its own record.
  bool add(FileRecord* record);
};

struct ScriptCacheEntry {
  // Null while filling, and for good when filling failed. Only its cached data is read.
  v8::ScriptCompiler::Source* compiled = nullptr;
  std::shared_mutex lock_;  // exclusive while the entry is filled
};

// Process-wide V8 code caches: one eager compile per script and name, consumed by every isolate.
// The name is part of the key because V8 keeps the name a cache was made under: a main script
// goes by its base name, the same file required as a module by its full path.
struct ScriptCacheManager {
  std::shared_mutex lock_;
  std::unordered_map<std::string, std::unique_ptr<ScriptCacheEntry>> scripts_;

  static ScriptCacheManager& instance();
  v8::ScriptCompiler::Source* find(const std::string& fullPath, const char* resourceName);
  v8::ScriptCompiler::Source* getOrCompile(v8::Isolate* isolate, const FileRecord& record,
                                           const char* resourceName);

  // Compiles `text` named `resourceName` in the caller's isolate, consuming the entry's code
  // cache when there is one (`cached` may be null). Each compile reads the cache's bytes through
  // a CachedData of its own: V8 writes its verdict into the object it is given, and many Vusers
  // consume the one cache at once.
  static v8::MaybeLocal<v8::UnboundScript> compile(v8::Isolate* isolate, v8::Local<v8::String> text,
                                                   v8::Local<v8::String> resourceName,
                                                   const v8::ScriptCompiler::Source* cached);
};

}  // namespace kesh
