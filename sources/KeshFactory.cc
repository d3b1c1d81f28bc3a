#include "KeshFactory.h"

#include <vector>

#include "base/check.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/caches.h"
#include "services/numberChecks.h"
#include "thread/runFunctionQueue.h"

namespace kesh {

std::unordered_map<uint32_t, std::unique_ptr<KeshThread>> threadRegistry;
std::mutex threadRegistryMutex;
node::MultiIsolatePlatform* mainPlatform = nullptr;

namespace {

constexpr const char kInvalidId[] = "missing/invalid Vuser id";

// A missing argument reads as undefined, which converts to Vuser 0. Only a value that cannot be
// converted (a Symbol, an object whose valueOf throws) is an invalid id.
bool readVuserId(const v8::FunctionCallbackInfo<v8::Value>& info, uint32_t* id) {
  v8::Local<v8::Context> context = info.GetIsolate()->GetCurrentContext();
  v8::Local<v8::Integer> number;
  if (!info[0]->ToInteger(context).ToLocal(&number)) return false;
  *id = static_cast<uint32_t>(number->Value());
  return true;
}

// Replaces whatever the TryCatch holds by an Error with the text and lets it reach the caller.
void throwError(v8::Isolate* isolate, v8::TryCatch& tryCatch, const std::string& text) {
  tryCatch.Reset();
  isolate->ThrowException(v8::Exception::Error(ToV8String(isolate, text)));
  tryCatch.ReThrow();
}

std::string noThreadText(uint32_t id) {
  return "no active thread for Vuser id " + std::to_string(static_cast<int32_t>(id));
}

// The common front of start and stop: a valid id of a registered Vuser.
KeshThread* lookUpOrThrow(const v8::FunctionCallbackInfo<v8::Value>& info, v8::TryCatch& tryCatch) {
  v8::Isolate* isolate = info.GetIsolate();
  uint32_t id = 0;
  if (!readVuserId(info, &id)) {
    throwError(isolate, tryCatch, kInvalidId);
    return nullptr;
  }
  KeshThread* thread = findThread(id);
  if (thread == nullptr) throwError(isolate, tryCatch, noThreadText(id));
  return thread;
}

}  // namespace

KeshThread* findThread(uint32_t vuserId) {
  auto it = threadRegistry.find(vuserId);
  if (it == threadRegistry.end()) {
    KeshLogger::log(LogLevel::kError, component::kKeshFactory, vuserId,
                    "didn't find active thread");
    return nullptr;
  }
  return it->second.get();
}

namespace {

// Reads the script into both caches on the main thread, so that Vuser threads only read them.
// Returns the cache key, or an empty text with an Error thrown.
std::string preloadScript(v8::Isolate* isolate, const std::string& scriptPath) {
  std::string key = absolutePath(scriptPath);
  if (FileRecord* cached = FileCacheManager::instance().find(key)) {
    // A main script carries its base name; the same file as a module, its full path.
    ScriptCacheManager::instance().getOrCompile(isolate, *cached, cached->fileName);
    return key;
  }
  std::unique_ptr<FileRecord> record = FileRecord::forScript(scriptPath);
  try {
    if (!record) {
      LogAndThrowError(
          isolate, component::kKeshFactory,
          "createKeshThread: the script path must name a readable .js file: " + scriptPath);
      return std::string();
    }
    if (!record->fullPath) {
      LogAndThrowError(isolate, component::kKeshFactory,
                       "createKeshThread: script file not found: " + scriptPath);
      return std::string();
    }
    int32_t size = 0;
    std::unique_ptr<char[]> text = ReadFileContents(record->fullPath.get(), &size, false);
    record->text.assign(text.get(), size);
    record->source = record->text.c_str();
    record->size = size;
    FileRecord* added = record.get();
    if (FileCacheManager::instance().add(added)) {
      record.release();
      isolate->AdjustAmountOfExternalAllocatedMemory(size);
    } else {
      added = FileCacheManager::instance().find(key);
    }
    ScriptCacheManager::instance().getOrCompile(isolate, *added, added->fileName);
    return key;
  } catch (const std::exception& e) {
    std::string text = scriptPath + ": " + e.what();
    KeshLogger::log(LogLevel::kError, component::kKeshFactory, text);
    isolate->ThrowException(v8::Exception::Error(ToV8String(isolate, text)));
    return std::string();
  }
}

// Start outcomes travel from the Vuser threads to the main thread through one async handle of
// the main loop. The handle holds the loop open only while a start is unanswered.
struct StartReports {
  std::mutex mutex;
  std::vector<std::pair<uint32_t, bool>> ready;  // under mutex
  uv_async_t async{};
  bool open = false;   // main thread
  int unanswered = 0;  // main thread
};
StartReports startReports;

void reportStart(uint32_t vuserId, bool started) {
  std::lock_guard<std::mutex> lock(startReports.mutex);
  startReports.ready.emplace_back(vuserId, started);
  if (startReports.open) uv_async_send(&startReports.async);
}

void settleStart(v8::Isolate* isolate, KeshThread* thread, bool started) {
  v8::HandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Promise::Resolver> resolver = thread->start_resolver_.Get(isolate);
  thread->start_resolver_.Reset();
  if (resolver.IsEmpty()) return;
  std::string text = "Vuser [" + std::to_string(thread->vuser_id_) + "] thread " +
                     (started ? "started" : "fail to start");
  KeshLogger::log(started ? LogLevel::kDebug : LogLevel::kError, component::kKeshFactory, text);
  (started ? resolver->Resolve(context, ToV8String(isolate, text))
           : resolver->Reject(context, ToV8String(isolate, text)))
      .IsJust();
  if (--startReports.unanswered == 0) uv_unref(reinterpret_cast<uv_handle_t*>(&startReports.async));
}

// Main thread: settles the promises of every start reported so far.
void settleStarts() {
  std::vector<std::pair<uint32_t, bool>> ready;
  {
    std::lock_guard<std::mutex> lock(startReports.mutex);
    ready.swap(startReports.ready);
  }
  if (ready.empty()) return;
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  v8::HandleScope scope(isolate);
  // Lets the promises' reactions run once the starts are settled.
  node::CallbackScope callbackScope(isolate, v8::Object::New(isolate), {0, 0});
  for (const auto& [id, started] : ready) {
    KeshLogger::log(LogLevel::kDebug, component::kKeshFactory, id, "start hook called to finish");
    auto found = threadRegistry.find(id);
    if (found != threadRegistry.end()) settleStart(isolate, found->second.get(), started);
  }
}

// Stops and joins every Vuser still running, so that the process never ends under their feet.
void stopAll() {
  for (auto& [id, thread] : threadRegistry) {
    VuserState state = thread->thread_component_->state_.get();
    if (state != VuserState::kCreated && state != VuserState::kJoined) thread->stop();
  }
}

void onProcessExit(const v8::FunctionCallbackInfo<v8::Value>&) { stopAll(); }

void onEnvironmentCleanup(void*) {
  stopAll();
  if (startReports.open) {
    startReports.open = false;
    uv_close(reinterpret_cast<uv_handle_t*>(&startReports.async), nullptr);
  }
}

}  // namespace

void CreateKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  uint32_t id = 0;
  if (!readVuserId(info, &id)) {
    throwError(isolate, tryCatch, kInvalidId);
    return;
  }
  std::string scriptPath = utf8Text(isolate, info[1]);
  std::string scriptArgs = utf8Text(isolate, info[2]);
  std::string key = preloadScript(isolate, scriptPath);
  if (tryCatch.HasCaught()) {
    tryCatch.ReThrow();
    return;
  }
  if (threadRegistry.count(id) != 0) return;  // the first Vuser of this id stays
  FileRecord* script = FileCacheManager::instance().find(key);
  KESH_CHECK(script != nullptr);  // the preload has just put it there
  auto thread =
      std::make_unique<KeshThread>(id, key, scriptArgs, script, mainPlatform, reportStart);
  KeshLogger::log(LogLevel::kDebug, component::kKeshFactory, id, "initialize");
  std::lock_guard<std::mutex> lock(threadRegistryMutex);
  threadRegistry.emplace(id, std::move(thread));
}

void StartKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  KeshThread* thread = lookUpOrThrow(info, tryCatch);
  if (thread == nullptr) return;
  if (thread->thread_component_->state_.get() != VuserState::kCreated) {
    throwError(isolate, tryCatch,
               "Vuser [" + std::to_string(thread->vuser_id_) + "] was already started");
    return;
  }
  v8::Local<v8::Promise::Resolver> resolver;
  if (!v8::Promise::Resolver::New(isolate->GetCurrentContext()).ToLocal(&resolver)) {
    tryCatch.ReThrow();
    return;
  }
  thread->start_resolver_.Reset(isolate, resolver);
  if (startReports.unanswered++ == 0) uv_ref(reinterpret_cast<uv_handle_t*>(&startReports.async));
  info.GetReturnValue().Set(resolver->GetPromise());
  std::string error;
  if (thread->start(&error)) return;
  // The system gave no thread: the start fails, and nothing of the Vuser stays behind.
  KeshLogger::log(LogLevel::kError, component::kKeshFactory, thread->vuser_id_,
                  "the thread could not be started: " + error);
  settleStart(isolate, thread, false);
  std::lock_guard<std::mutex> lock(threadRegistryMutex);
  threadRegistry.erase(thread->vuser_id_);
}

void StopKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::TryCatch tryCatch(isolate);
  v8::HandleScope scope(isolate);
  KeshThread* thread = lookUpOrThrow(info, tryCatch);
  if (thread == nullptr) return;
  if (thread->thread_component_->state_.get() == VuserState::kCreated) {
    throwError(isolate, tryCatch,
               "Vuser [" + std::to_string(thread->vuser_id_) + "] was never started");
    return;
  }
  thread->stop();
}

void RunFunctionFromScript(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  uint32_t id = 0;
  std::string failure;
  KeshThread* thread = nullptr;
  if (!readVuserId(info, &id)) {
    failure = kInvalidId;
  } else if ((thread = findThread(id)) == nullptr) {
    failure = noThreadText(id);
  } else if (thread->thread_component_->state_.get() == VuserState::kCreated) {
    failure = "Vuser [" + std::to_string(thread->vuser_id_) + "] was never started";
  }
  if (!failure.empty()) {
    KeshLogger::log(LogLevel::kError, component::kKeshFactory, failure);
    throwError(isolate, tryCatch, failure);
    return;
  }
  requestRunFunction(*thread->thread_component_, utf8Text(isolate, info[1]),
                     utf8Text(isolate, info[2]));
}

void InitKeshInspector(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::TryCatch tryCatch(isolate);
  v8::HandleScope scope(isolate);
  if (threadRegistry.size() != 1) {
    static const char kText[] = "Zarnik inspector available only for single Vuser";
    KeshLogger::log(LogLevel::kError, component::kKeshFactory, kText);
    throwError(isolate, tryCatch, kText);
    return;
  }
  uint16_t port = 0;
  if (!info[1]->IsNumber() || !portFromNumber(info[1].As<v8::Number>()->Value(), &port)) {
    std::string text = "initKeshInspector: the port must be an integer from 0 to 65535";
    if (info[1]->IsNumber()) text += ", not " + numberText(info[1].As<v8::Number>()->Value());
    KeshLogger::log(LogLevel::kError, component::kKeshFactory, text);
    isolate->ThrowException(v8::Exception::RangeError(ToV8String(isolate, text)));
    tryCatch.ReThrow();
    return;
  }
  KeshThread* thread = threadRegistry.begin()->second.get();
  thread->inspector_host_ = utf8Text(isolate, info[0]);
  thread->inspector_enabled_ = true;
  thread->inspector_port_ = port;
}

void DestroyKeshThreads(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  // A running thread would use what we free.
  std::string busy;
  for (const auto& [id, thread] : threadRegistry) {
    VuserState state = thread->thread_component_->state_.get();
    if (state != VuserState::kCreated && state != VuserState::kJoined) {
      busy += (busy.empty() ? "" : ", ") + std::to_string(id);
    }
  }
  if (!busy.empty()) {
    v8::TryCatch tryCatch(isolate);
    LogAndThrowError(isolate, component::kKeshFactory,
                     "destroyKeshThreads: stop these Vusers first: " + busy);
    tryCatch.ReThrow();
    return;
  }
  settleStarts();  // a start answered by a thread that has ended since
  KeshLogger::log(LogLevel::kDebug, component::kKeshFactory,
                  "finalizing destruction of Vuser(s) thread(s)");
  v8::HandleScope scope(isolate);
  KeshLogger::instance()->close();
  std::lock_guard<std::mutex> lock(threadRegistryMutex);
  decltype(threadRegistry)().swap(threadRegistry);  // a fresh table, not just an empty one
}

void InstallExitSafety(v8::Local<v8::Context> context) {
  v8::Isolate* isolate = context->GetIsolate();
  startReports.async.data = nullptr;
  KESH_CHECK_EQ(
      uv_async_init(uv_default_loop(), &startReports.async, [](uv_async_t*) { settleStarts(); }),
      0);
  uv_unref(reinterpret_cast<uv_handle_t*>(&startReports.async));
  startReports.open = true;
  // The host's teardown, and process.exit() (which skips that teardown), both join every Vuser
  // first: a Vuser thread still running when the process ends would crash it.
  node::AddEnvironmentCleanupHook(isolate, onEnvironmentCleanup, nullptr);
  v8::Local<v8::Value> process;
  v8::Local<v8::Value> on;
  v8::Local<v8::Function> listener;
  if (context->Global()->Get(context, ToV8String(isolate, "process")).ToLocal(&process) &&
      process->IsObject() &&
      process.As<v8::Object>()->Get(context, ToV8String(isolate, "on")).ToLocal(&on) &&
      on->IsFunction() && v8::Function::New(context, onProcessExit).ToLocal(&listener)) {
    v8::Local<v8::Value> argv[] = {ToV8String(isolate, "exit"), listener};
    on.As<v8::Function>()->Call(context, process, 2, argv).IsEmpty();
  }
}

}  // namespace kesh
