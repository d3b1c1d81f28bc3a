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
  // Null while filling, and for good when filling failed. Only its cached data is read. Replaced
  // once, by the cache of the first Vuser that ran the script.
  v8::ScriptCompiler::Source* compiled = nullptr;
  // What `compiled` replaced, never destroyed: compiles that began before may still read it.
  v8::ScriptCompiler::Source* replaced = nullptr;
  bool remade = false;
  std::shared_mutex lock_;  // exclusive while the entry is filled or replaced
};

// Process-wide V8 code caches, one per script and name, consumed by every isolate. The first is
// made by a plain compile, which holds the top level and leaves functions to be compiled when
// first called: an eager one would put every function of a big script or library in every
// Vuser's heap, used or not. Once a Vuser has run the script, the cache is made again from its
// compiled script, and holds what that run compiled. The name is part of the key because V8 keeps
// the name a cache was made under: a main script goes by its base name, the same file required as
// a module by its full path.
struct ScriptCacheManager {
  std::shared_mutex lock_;
  std::unordered_map<std::string, std::unique_ptr<ScriptCacheEntry>> scripts_;

  static ScriptCacheManager& instance();
  // The entry of a script and name, or null; entries live as long as the process.
  ScriptCacheEntry* entryOf(const std::string& fullPath, const char* resourceName);
  v8::ScriptCompiler::Source* find(const std::string& fullPath, const char* resourceName);
  v8::ScriptCompiler::Source* getOrCompile(v8::Isolate* isolate, const FileRecord& record,
                                           const char* resourceName);

  // Vuser thread, after `ran` (compiled from this manager's entry) has run for the first time
  // without failure: the entry's cache is made again from it. Only the first caller per entry
  // does so; later ones return at once.
  void rememberRun(const std::string& fullPath, const char* resourceName,
                   v8::Local<v8::UnboundScript> ran);

  // Compiles `text` named `resourceName` in the caller's isolate, consuming the entry's code
  // cache when there is one (`cached` may be null). Each compile reads the cache's bytes through
  // a CachedData of its own: V8 writes its verdict into the object it is given, and many Vusers
  // consume the one cache at once.
  static v8::MaybeLocal<v8::UnboundScript> compile(v8::Isolate* isolate, v8::Local<v8::String> text,
                                                   v8::Local<v8::String> resourceName,
                                                   const v8::ScriptCompiler::Source* cached);
};

}  // namespace kesh
