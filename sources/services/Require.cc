#include "services/Require.h"

#include <regex>
#include <unordered_map>
#include <vector>

#include "base/hostCompat.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/caches.h"
#include "vuser/threadComponents.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kRequire;
const std::string kPathSeparator = "/";

// No line break in the prefix, so that line numbers in V8's messages are those of the file.
constexpr char kPrefix[] =
    "(function (module, exports, __filename, __dirname, load) { 'use strict'; var require = "
    "function(path){ return keshRequire(path, __dirname); };";
constexpr char kSuffix[] = " \n }); ";
static_assert(sizeof(kPrefix) - 1 == 142, "scripts rely on the column shift of the first line");
static_assert(sizeof(kSuffix) - 1 == 7, "module suffix");

constexpr const char* kCoreModuleNames[] = {
    "assert", "buffer", "child_process", "cluster", "crypto", "dgram", "dns",  "domain",
    "events", "fs",     "http",          "http2",   "net",    "os",    "path", "stream",
    "tls",    "tty",    "url",           "util",    "v8",     "vm",    "zlib"};

// The first "main" anywhere in the text counts, even inside a nested object: no JSON parse.
const std::regex mainFieldRegex(R"re("main":\s*"([^"]*))re", std::regex::ECMAScript);

bool startsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

bool isCoreModule(const std::string& name) {
  for (const char* core : kCoreModuleNames) {
    if (name == core) return true;
  }
  return false;
}

std::unique_ptr<FileRecord> ResolveAsFile(const std::string& path) {
  for (const char* extension : {"", ".js", ".json"}) {
    if (std::unique_ptr<FileRecord> record = FileRecord::open(path + extension)) return record;
  }
  return nullptr;
}

// ResolveAsFile adds its extensions here as well: index.js.js and index.js.json come before
// index.json.
std::unique_ptr<FileRecord> ResolveIndex(const std::string& path) {
  if (std::unique_ptr<FileRecord> record = ResolveAsFile(path + kPathSeparator + "index.js")) {
    return record;
  }
  return ResolveAsFile(path + kPathSeparator + "index.json");
}

std::unique_ptr<FileRecord> ResolveAsDirectory(v8::Isolate* isolate, const std::string& path) {
  std::unique_ptr<FileRecord> package = FileRecord::open(path + kPathSeparator + "package.json");
  if (!package) return ResolveIndex(path);
  std::string text;
  try {
    int32_t size = 0;
    std::unique_ptr<char[]> contents = ReadFileContents(package->fullPath.get(), &size, false);
    text.assign(contents.get(), size);
  } catch (const std::exception& e) {
    LogAndThrowError(isolate, kComponent,
                     std::string("Require::RequireFunction - couldn't load package.json file ") +
                         package->fileName + " : " + e.what());
    return nullptr;
  }
  std::string main;
  try {
    std::smatch match;
    if (std::regex_search(text, match, mainFieldRegex)) main = match[1].str();
  } catch (const std::exception& e) {
    LogAndThrowError(
        isolate, kComponent,
        std::string("Require::RequireFunction - error in trying to match a regex inside") +
            package->fileName + " : " + e.what());
    return nullptr;
  }
  // A package.json without main names nothing at this place; its index is not tried.
  if (main.empty()) return nullptr;
  std::string candidate = path + kPathSeparator + main;
  if (std::unique_ptr<FileRecord> record = ResolveAsFile(candidate)) return record;
  return ResolveIndex(candidate);
}

// The node_modules directories above dir, deepest first. The text behind dir's last separator is
// not a directory of its own.
std::vector<std::string> CollectNodeModulesPaths(const std::string& dir) {
  std::vector<std::string> pieces;
  for (size_t start = 0, end; (end = dir.find(kPathSeparator, start)) != std::string::npos;
       start = end + kPathSeparator.size()) {
    pieces.push_back(dir.substr(start, end - start));
  }
  std::vector<std::string> paths;
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) joined += kPathSeparator;
    joined += pieces[i];
    if (pieces[i] == "node_modules") continue;
    paths.insert(paths.begin(), joined + kPathSeparator + "node_modules");
  }
  return paths;
}

std::unique_ptr<FileRecord> ResolveAsFileOrDirectory(v8::Isolate* isolate,
                                                     const std::string& candidate) {
  if (std::unique_ptr<FileRecord> record = ResolveAsFile(candidate)) return record;
  return ResolveAsDirectory(isolate, candidate);
}

// The kind follows the name as requested, not the file found: "data" found as data.json is
// JavaScript.
FileKind kindFromName(const std::string& name) {
  size_t dot = name.rfind('.');
  return dot != std::string::npos && name.compare(dot + 1, std::string::npos, "json") == 0
             ? FileKind::kJson
             : FileKind::kJavaScript;
}

bool readGlobal(v8::Local<v8::Context> context, v8::Local<v8::String> key,
                v8::Local<v8::String>* out) {
  v8::Local<v8::Value> value;
  return context->Global()->Get(context, key).ToLocal(&value) &&
         value->ToString(context).ToLocal(out);
}

void setGlobal(v8::Isolate* isolate, const v8::TryCatch& tryCatch, v8::Local<v8::String> key,
               v8::Local<v8::Value> value) {
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  if (context->Global()->Set(context, key, value).IsNothing() && !tryCatch.HasCaught()) {
    LogAndThrowError(isolate, kComponent, "Object::Set failed");
  }
}

// Sets back __dirname and __filename as they were when it was made, when it goes out of scope,
// unless dismissed: a module that fails to compile leaves them pointing at itself.
class RestoreGlobalsOnLeave {
 public:
  RestoreGlobalsOnLeave(v8::Isolate* isolate, const v8::TryCatch& tryCatch,
                        v8::Local<v8::String> dirnameKey, v8::Local<v8::String> dirname,
                        v8::Local<v8::String> filenameKey, v8::Local<v8::String> filename)
      : isolate_(isolate),
        try_catch_(tryCatch),
        dirname_key_(dirnameKey),
        dirname_(dirname),
        filename_key_(filenameKey),
        filename_(filename) {}
  ~RestoreGlobalsOnLeave() {
    if (dismissed_) return;
    setGlobal(isolate_, try_catch_, dirname_key_, dirname_);
    setGlobal(isolate_, try_catch_, filename_key_, filename_);
  }
  void dismiss() { dismissed_ = true; }

 private:
  v8::Isolate* isolate_;
  const v8::TryCatch& try_catch_;
  v8::Local<v8::String> dirname_key_;
  v8::Local<v8::String> dirname_;
  v8::Local<v8::String> filename_key_;
  v8::Local<v8::String> filename_;
  bool dismissed_ = false;
};

// One keshRequire call, phase by phase. A failure leaves its exception in the call's TryCatch.
struct RequireCall {
  v8::Isolate* isolate;
  v8::Local<v8::Context> context;
  const v8::TryCatch& tryCatch;
  std::string fileName;
  std::string dirName;
  v8::Local<v8::Value> load;
  v8::Local<v8::String> savedDirname;
  v8::Local<v8::String> savedFilename;
  v8::Local<v8::String> newFilename;
  v8::Local<v8::String> newDirname;
  v8::Local<v8::UnboundScript> script;  // what compile made, for the code cache once it ran

  // The module's text, from the file cache or read now into it; null with the error thrown.
  FileRecord* loadRecord(std::unique_ptr<FileRecord> resolved, std::unique_ptr<FileRecord>* own) {
    FileCacheManager& files = FileCacheManager::instance();
    FileRecord* record = resolved.release();
    if (files.lookup(record)) return record;
    own->reset(record);
    int32_t size = 0;
    std::unique_ptr<char[]> contents;
    try {
      // Only JSON loses a UTF-8 mark: in JavaScript it stands behind the prefix as white space.
      contents =
          ReadFileContents(record->fullPath.get(), &size, record->kind != FileKind::kJavaScript);
    } catch (const std::exception& e) {
      LogAndThrowError(isolate, kComponent,
                       "Require::RequireFunction - couldn't load the file " + fileName +
                           " in folder: " + dirName + ": " + e.what());
      return nullptr;
    }
    if (record->kind == FileKind::kJavaScript) {
      record->text.reserve(sizeof(kPrefix) + size + sizeof(kSuffix));
      record->text.append(kPrefix).append(contents.get(), size).append(kSuffix);
    } else {
      record->text.assign(contents.get(), size);
    }
    record->source = record->text.c_str();
    record->size = static_cast<int32_t>(record->text.size());
    if (files.add(record)) {
      own->release();
      isolate->AdjustAmountOfExternalAllocatedMemory(record->size);
      return record;
    }
    // The loser of a race loads the winner's record and frees its own, never charged: V8 reads a
    // script's text again whenever it compiles one of its functions, long after this load, and
    // an isolate whose external memory count goes below zero is stopped by V8.
    return files.find(record->fullPath.get());
  }

  v8::Local<v8::Value> parseJson(const FileRecord& record) {
    v8::Local<v8::Value> parsed;
    if (!v8::JSON::Parse(context, ToV8String(isolate, record.source)).ToLocal(&parsed) ||
        tryCatch.HasCaught()) {
      if (!tryCatch.HasCaught()) {
        isolate->ThrowException(v8::Exception::Error(ToV8String(isolate, "Failed to parse JSON")));
      }
      return {};
    }
    return parsed;
  }

  // The module's wrapper function, compiled from the shared code cache when it has an entry.
  v8::Local<v8::Value> compile(const FileRecord& record, RestoreGlobalsOnLeave* restore) {
    v8::Local<v8::String> resourceName = ToV8String(isolate, record.fullPath.get());
    v8::ScriptCompiler::Source* cached =
        ScriptCacheManager::instance().getOrCompile(isolate, record, record.fullPath.get());
    if (cached == nullptr && tryCatch.HasCaught()) {
      restore->dismiss();
      return {};
    }
    v8::Local<v8::UnboundScript> unbound;
    if (!ScriptCacheManager::compile(isolate, SourceText(isolate, record), resourceName, cached)
             .ToLocal(&unbound) ||
        tryCatch.HasCaught()) {
      // The script gets the whole record of the error: file, line, column, source line.
      isolate->ThrowException(ExceptionToObject(isolate, tryCatch));
      restore->dismiss();
      return {};
    }
    script = unbound;
    v8::Local<v8::Value> completion;
    if (!unbound->BindToCurrentContext()->Run(context).ToLocal(&completion) ||
        tryCatch.HasCaught()) {
      LogAndThrowError(isolate, kComponent, ExceptionToString(isolate, tryCatch));
      return {};
    }
    return completion;
  }

  // Calls the wrapper with module, exports, file and folder names and `load`; module.exports.
  v8::Local<v8::Value> run(const FileRecord& record, v8::Local<v8::Function> wrapper,
                           RestoreGlobalsOnLeave* restore) {
    auto define = [&](v8::Local<v8::Object> target, const char* key, v8::Local<v8::Value> value) {
      v8::Local<v8::String> name = ToV8String(isolate, key, StringType::kInternalized);
      if (target->CreateDataProperty(context, name, value).IsNothing() && !tryCatch.HasCaught()) {
        LogAndThrowError(isolate, kComponent, "Object::CreateDataProperty failed");
      }
    };
    v8::Local<v8::Object> module = v8::Object::New(isolate);
    v8::Local<v8::Object> exports = v8::Object::New(isolate);
    define(module, "exports", exports);
    v8::Local<v8::Object> parent = v8::Object::New(isolate);
    define(parent, "filename", savedFilename);
    define(parent, "path", savedDirname);
    define(module, "parent", parent);
    define(module, "filename", newFilename);
    define(module, "path", newDirname);
    if (KeshLogger::produces(LogLevel::kTrace)) {
      KeshLogger::log(LogLevel::kTrace, kComponent,
                      std::string("running required file ") + record.fullPath.get());
    }
    v8::Local<v8::Value> args[] = {module, exports, newFilename, newDirname, load};
    v8::Local<v8::Value> returned;
    if (!wrapper->Call(context, context->Global(), 5, args).ToLocal(&returned) ||
        tryCatch.HasCaught()) {
      if (!tryCatch.HasCaught()) {
        isolate->ThrowException(
            v8::Exception::Error(ToV8String(isolate, "Failed to get script result")));
      }
      return {};
    }
    if (IsRejectedPromise(returned)) {
      v8::Local<v8::Message> message =
          v8::Exception::CreateMessage(isolate, returned.As<v8::Promise>()->Result());
      LogAndThrowError(isolate, kComponent,
                       "Error running required file: " + utf8Text(isolate, message->Get()));
      restore->dismiss();
      return {};
    }
    v8::Local<v8::Value> result;
    v8::Local<v8::String> exportsKey = ToV8String(isolate, "exports", StringType::kInternalized);
    if (!module->Get(context, exportsKey).ToLocal(&result)) return {};  // a getter threw
    return result;
  }
};

// Reads keshRequire's arguments into the call; false with the error thrown when they are wrong.
bool readArguments(const v8::FunctionCallbackInfo<v8::Value>& info, RequireCall* call) {
  int argc = info.Length();
  if ((argc != 2 && argc != 3) || !info[1]->IsString() || !info[0]->IsString() ||
      (argc == 3 && info[2]->IsNullOrUndefined())) {
    LogAndThrowError(call->isolate, kComponent,
                     "Require::RequireFunction - Expects at least 2 arguments: 1) file "
                     "name(string), 2) dir name(string)");
    return false;
  }
  call->dirName = utf8Text(call->isolate, info[1]);
  call->fileName = utf8Text(call->isolate, info[0]);
  call->load = argc == 3 ? info[2] : v8::Undefined(call->isolate).As<v8::Value>();
  return true;
}

// Everything of keshRequire but the frame. Returns the result, empty for undefined; a failure
// leaves its exception in tryCatch.
v8::Local<v8::Value> requireModule(const v8::FunctionCallbackInfo<v8::Value>& info,
                                   const v8::TryCatch& tryCatch) {
  v8::Isolate* isolate = info.GetIsolate();
  RequireCall call{isolate, isolate->GetCurrentContext(), tryCatch, {}, {}, {}, {}, {}, {}, {}, {}};
  if (!readArguments(info, &call)) return {};
  v8::Local<v8::String> dirnameKey = ToV8String(isolate, "__dirname", StringType::kInternalized);
  v8::Local<v8::String> filenameKey = ToV8String(isolate, "__filename", StringType::kInternalized);
  if (!readGlobal(call.context, dirnameKey, &call.savedDirname)) {
    LogAndThrowError(isolate, kComponent, "cannot get __dirname");
    return {};
  }
  if (!readGlobal(call.context, filenameKey, &call.savedFilename)) {
    LogAndThrowError(isolate, kComponent, "cannot get __filename");
    return {};
  }
  std::unique_ptr<FileRecord> resolved = ResolveRequiredFile(call.fileName, call.dirName);
  if (!resolved) {
    LogAndThrowError(isolate, kComponent,
                     "Require function couldn't resolve path for the file [" + call.fileName +
                         "] in folder: [" + call.dirName + "]");
    return {};
  }
  RestoreGlobalsOnLeave restore(isolate, tryCatch, dirnameKey, call.savedDirname, filenameKey,
                                call.savedFilename);
  // Element references survive the inserts of nested loads.
  v8::Global<v8::Value>& loaded = componentOf(isolate)->module_table_[resolved->fullPath.get()];
  if (!loaded.IsEmpty()) return loaded.Get(isolate);
  std::unique_ptr<FileRecord> own;  // a record of ours that the cache did not take
  FileRecord* record = call.loadRecord(std::move(resolved), &own);
  if (record == nullptr) {
    restore.dismiss();
    return {};
  }
  KeshLogger::log(LogLevel::kTrace, kComponent,
                  "Require::RequireFunction - successfully loaded " + call.fileName +
                      " in folder: " + call.dirName);
  call.newFilename = ToV8String(isolate, record->fileName);
  call.newDirname = ToV8String(isolate, record->dirName.get());
  setGlobal(isolate, tryCatch, filenameKey, call.newFilename);
  setGlobal(isolate, tryCatch, dirnameKey, call.newDirname);
  if (tryCatch.HasCaught()) {
    restore.dismiss();
    return {};
  }
  v8::Local<v8::Value> result;
  if (record->kind == FileKind::kJson) {
    result = call.parseJson(*record);
  } else {
    v8::Local<v8::Value> wrapper = call.compile(*record, &restore);
    // Not a wrapped module: nothing runs and nothing is stored.
    if (wrapper.IsEmpty() || !wrapper->IsFunction()) return {};
    result = call.run(*record, wrapper.As<v8::Function>(), &restore);
    if (!result.IsEmpty()) {
      ScriptCacheManager::instance().rememberRun(record->fullPath.get(), record->fullPath.get(),
                                                 call.script);
    }
  }
  if (!result.IsEmpty()) loaded.Reset(isolate, result);
  return result;
}

}  // namespace

std::unique_ptr<FileRecord> ResolveRequiredFile(const std::string& name, const std::string& dir) {
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  std::string base = dir;
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);

  if (name.find(".js") == std::string::npos && isCoreModule(name)) {
    LogAndThrowError(
        isolate, kComponent,
        "Require failed loading: " + name + " - Core node modules are currently not supported");
    tryCatch.ReThrow();
    return nullptr;
  }

  std::unique_ptr<FileRecord> found;
  bool pathForm = false;
  if (startsWith(name, "/")) {
    base.clear();  // absolute
    pathForm = true;
  } else if (startsWith(name, "./") || startsWith(name, "../")) {
    pathForm = true;
  }
  if (pathForm) found = ResolveAsFileOrDirectory(isolate, base + name);  // dir ends with '/'
  // A path form that misses goes on like a bare name.
  if (!found) {
    for (const std::string& modules : CollectNodeModulesPaths(dir)) {
      found = ResolveAsFileOrDirectory(isolate, modules + kPathSeparator + name);
      if (found) break;
    }
  }
  if (!found) found = ResolveAsFile(name);  // against the process's current directory
  if (!found) {
    LogAndThrowError(isolate, kComponent,
                     "Require failed loading: " + name + " - couldn't find the file");
    tryCatch.ReThrow();
    return nullptr;
  }
  // A package.json failure on the way, if any, ends with this TryCatch: only its log line stays.
  found->kind = kindFromName(name);
  return found;
}

namespace Require {

void RequireFunction(const v8::FunctionCallbackInfo<v8::Value>& info) {
  EnteredVuser here(info.GetIsolate());
  v8::TryCatch tryCatch(here.isolate());
  v8::Local<v8::Value> result = requireModule(info, tryCatch);
  if (tryCatch.HasCaught()) {
    tryCatch.ReThrow();
  } else if (!result.IsEmpty()) {
    info.GetReturnValue().Set(result);
  }
}

}  // namespace Require

void InstallRequire(ThreadComponent* threadComponent, v8::Local<v8::Object> target) {
  v8::Isolate* isolate = threadComponent->isolate_;
  RegisterFunction(isolate, target, "keshRequire", Require::RequireFunction);
}

}  // namespace kesh
