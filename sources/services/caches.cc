#include "services/caches.h"

#include <mutex>

#include "base/hostCompat.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"

namespace kesh {

FileCacheManager& FileCacheManager::instance() {
  static FileCacheManager* manager = new FileCacheManager();  // lives to the end of the process
  return *manager;
}

FileRecord* FileCacheManager::find(const std::string& fullPath) {
  std::shared_lock<std::shared_mutex> lock(lock_);
  auto it = files_.find(fullPath);
  return it == files_.end() ? nullptr : it->second;
}

bool FileCacheManager::lookup(FileRecord*& record) {
  std::shared_lock<std::shared_mutex> lock(lock_);
  auto it = files_.find(record->fullPath.get());
  if (it == files_.end()) return false;
  delete record;  // its text was never read, so nothing was charged for it
  record = it->second;
  return true;
}

bool FileCacheManager::add(FileRecord* record) {
  std::unique_lock<std::shared_mutex> lock(lock_);
  bool inserted = files_.emplace(record->fullPath.get(), record).second;
  KeshLogger::logf(LogLevel::kTrace, component::kFileCacheManager, " File added to cache : %",
                   record->fullPath.get());
  return inserted;
}

namespace {

std::string keyOf(const std::string& fullPath, const char* resourceName) {
  std::string key = fullPath;
  key.push_back('\0');  // no path holds one
  key.append(resourceName);
  return key;
}

}  // namespace

ScriptCacheManager& ScriptCacheManager::instance() {
  static ScriptCacheManager* manager = new ScriptCacheManager();
  return *manager;
}

ScriptCacheEntry* ScriptCacheManager::entryOf(const std::string& fullPath,
                                              const char* resourceName) {
  std::shared_lock<std::shared_mutex> lock(lock_);
  auto it = scripts_.find(keyOf(fullPath, resourceName));
  return it == scripts_.end() ? nullptr : it->second.get();
}

v8::ScriptCompiler::Source* ScriptCacheManager::find(const std::string& fullPath,
                                                     const char* resourceName) {
  ScriptCacheEntry* entry = entryOf(fullPath, resourceName);
  if (entry == nullptr) return nullptr;
  std::shared_lock<std::shared_mutex> entryLock(entry->lock_);  // waits while it is filled
  return entry->compiled;
}

namespace {

void reportCacheError(v8::Isolate* isolate, v8::TryCatch& tryCatch, const char* prefix) {
  std::string text = prefix + ExceptionToString(isolate, tryCatch);
  KeshLogger::log(LogLevel::kError, component::kScriptCacheManager, text);
  isolate->ThrowException(v8::Exception::Error(ToV8String(isolate, text)));
  tryCatch.ReThrow();
}

}  // namespace

v8::ScriptCompiler::Source* ScriptCacheManager::getOrCompile(v8::Isolate* isolate,
                                                             const FileRecord& record,
                                                             const char* resourceName) {
  // The caller is inside the isolate: the main thread, or a Vuser's EnteredVuser.
  v8::EscapableHandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  std::string key = keyOf(record.fullPath.get(), resourceName);

  std::unique_lock<std::shared_mutex> managerLock(lock_);
  auto it = scripts_.find(key);
  if (it != scripts_.end()) {
    ScriptCacheEntry* entry = it->second.get();
    managerLock.unlock();
    std::shared_lock<std::shared_mutex> entryLock(entry->lock_);
    v8::ScriptCompiler::Source* compiled = entry->compiled;
    entryLock.unlock();
    return compiled;
  }
  ScriptCacheEntry* entry = (scripts_[key] = std::make_unique<ScriptCacheEntry>()).get();
  std::unique_lock<std::shared_mutex> entryLock(entry->lock_);
  managerLock.unlock();  // other scripts need not wait for this compilation

  v8::Local<v8::String> source = ToV8String(isolate, record.source, StringType::kInternalized);
  v8::Local<v8::String> name = ToV8String(isolate, resourceName, StringType::kInternalized);
  v8::ScriptOrigin origin = scriptOrigin(isolate, name);
  v8::ScriptCompiler::Source plain(source, origin);
  v8::Local<v8::UnboundScript> unbound;
  if (!v8::ScriptCompiler::CompileUnboundScript(isolate, &plain,
                                                v8::ScriptCompiler::kNoCompileOptions)
           .ToLocal(&unbound) ||
      tryCatch.HasCaught()) {
    // The caller's own compilation reports the same error where the script can see it.
    KeshLogger::logf(LogLevel::kTrace, component::kScriptCacheManager,
                     "Error compiling the script to create cache %",
                     ExceptionToString(isolate, tryCatch));
    tryCatch.Reset();
    return nullptr;
  }
  v8::ScriptCompiler::CachedData* data = v8::ScriptCompiler::CreateCodeCache(unbound);
  if (data == nullptr) {
    if (tryCatch.HasCaught()) reportCacheError(isolate, tryCatch, "Error creating code cache: ");
    return nullptr;
  }
  // Heap-made and never destroyed: a Source deletes its cached data, which every isolate reads.
  auto* compiled = new v8::ScriptCompiler::Source(source, origin, data);
  if (tryCatch.HasCaught()) {
    reportCacheError(isolate, tryCatch, "Error creating script source: ");
    return nullptr;
  }
  entry->compiled = compiled;
  entryLock.unlock();
  return compiled;
}

void ScriptCacheManager::rememberRun(const std::string& fullPath, const char* resourceName,
                                     v8::Local<v8::UnboundScript> ran) {
  ScriptCacheEntry* entry = entryOf(fullPath, resourceName);
  if (entry == nullptr) return;
  {
    std::unique_lock<std::shared_mutex> entryLock(entry->lock_);
    if (entry->remade || entry->compiled == nullptr) return;
    entry->remade = true;
  }
  v8::ScriptCompiler::CachedData* data = v8::ScriptCompiler::CreateCodeCache(ran);
  if (data == nullptr) return;  // the first cache serves on
  hostWrote(data, sizeof(*data));
  hostWrote(data->data, static_cast<size_t>(data->length));
  // Only the cached data of a Source is read, so this one carries no text.
  auto* compiled = new v8::ScriptCompiler::Source(v8::Local<v8::String>(), data);
  KeshLogger::logf(LogLevel::kDebug, component::kScriptCacheManager,
                   "code cache of % made again after its first run: % bytes", resourceName,
                   data->length);
  std::unique_lock<std::shared_mutex> entryLock(entry->lock_);
  entry->replaced = entry->compiled;
  entry->compiled = compiled;
}

v8::MaybeLocal<v8::UnboundScript> ScriptCacheManager::compile(
    v8::Isolate* isolate, v8::Local<v8::String> text, v8::Local<v8::String> resourceName,
    const v8::ScriptCompiler::Source* cached) {
  const v8::ScriptCompiler::CachedData* shared =
      cached != nullptr ? cached->GetCachedData() : nullptr;
  // Deleted by the Source; the bytes stay with the entry.
  auto* view = shared == nullptr ? nullptr
                                 : new v8::ScriptCompiler::CachedData(
                                       shared->data, shared->length,
                                       v8::ScriptCompiler::CachedData::BufferNotOwned);
  v8::ScriptCompiler::Source source(text, scriptOrigin(isolate, resourceName), view);
  v8::MaybeLocal<v8::UnboundScript> unbound = v8::ScriptCompiler::CompileUnboundScript(
      isolate, &source,
      view != nullptr ? v8::ScriptCompiler::kConsumeCodeCache
                      : v8::ScriptCompiler::kNoCompileOptions);
  if (view != nullptr) hostWrote(view, sizeof(*view));
  return unbound;
}

}  // namespace kesh
