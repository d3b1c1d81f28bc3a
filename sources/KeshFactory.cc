#include "KeshFactory.h"

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
  if (ScriptCacheManager::instance().contains(key)) return key;
  if (FileRecord* cached = FileCacheManager::instance().find(key)) {
    ScriptCacheManager::instance().getOrCompile(isolate, *cached);
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
    isolate->AdjustAmountOfExternalAllocatedMemory(size);
    FileRecord* added = record.get();
    if (FileCacheManager::instance().add(added)) {
      record.release();
    } else {
      added = FileCacheManager::instance().find(key);
    }
    ScriptCacheManager::instance().getOrCompile(isolate, *added);
    return key;
  } catch (const std::exception& e) {
    std::string text = scriptPath + ": " + e.what();
    KeshLogger::log(LogLevel::kError, component::kKeshFactory, text);
    isolate->ThrowException(v8::Exception::Error(ToV8String(isolate, text)));
    return std::string();
  }
}

void onStartHookClosed(uv_handle_t* handle) {
  auto* tc = static_cast<ThreadComponent*>(handle->data);
  KeshLogger::log(LogLevel::kTrace, component::kKeshFactory, tc->vuser_id_,
                  "closing the thread component start hook");
  if (KeshThread* orphan = tc->release_on_hook_close_) {
    delete orphan;
  } else if (auto it = threadRegistry.find(tc->vuser_id_); it != threadRegistry.end()) {
    it->second->start_hook_closed_ = true;
  }
}

void onStartHook(uv_async_t* handle) {
  auto* tc = static_cast<ThreadComponent*>(handle->data);
  KeshLogger::log(LogLevel::kDebug, component::kKeshFactory, tc->vuser_id_,
                  "start hook called to finish");
  v8::Isolate* isolate = tc->main_isolate_;
  isolateEnter(isolate);
  {
    v8::HandleScope scope(isolate);
    node::CallbackScope callbackScope(isolate, v8::Object::New(isolate), {0, 0});
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    v8::Local<v8::Promise::Resolver> resolver = tc->start_resolver_.Get(isolate);
    std::string prefix = "Vuser [" + std::to_string(tc->vuser_id_) + "] ";
    if (tc->script_started_.load()) {
      std::string text = prefix + "thread started";
      KeshLogger::log(LogLevel::kDebug, component::kKeshFactory, text);
      resolver->Resolve(context, ToV8String(isolate, text)).IsJust();
    } else {
      std::string text = prefix + "thread fail to start";
      KeshLogger::log(LogLevel::kError, component::kKeshFactory, text);
      resolver->Reject(context, ToV8String(isolate, text)).IsJust();
    }
    isolateLeave(isolate);
    uv_close(reinterpret_cast<uv_handle_t*>(handle), onStartHookClosed);
    tc->start_resolver_.Reset();
    tc->start_acknowledged_.exchange(true);
    tc->start_cv_.notify_all();
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
  std::unique_ptr<KeshThread> thread;
  try {
    thread = std::make_unique<KeshThread>(id, key, scriptArgs);
  } catch (const std::exception& e) {
    throwError(isolate, tryCatch, e.what());
    return;
  }
  thread->thread_component_->main_isolate_ = isolate;
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
  if (thread->started_) {
    throwError(isolate, tryCatch,
               "Vuser [" + std::to_string(thread->vuser_id_) + "] was already started");
    return;
  }
  ThreadComponent* tc = thread->thread_component_.get();
  tc->platform_ = mainPlatform;
  v8::Local<v8::Promise::Resolver> resolver;
  if (!v8::Promise::Resolver::New(isolate->GetCurrentContext()).ToLocal(&resolver) ||
      tryCatch.HasCaught()) {
    if (!tryCatch.HasCaught()) {
      isolate->ThrowException(
          v8::Exception::Error(ToV8String(isolate, "Failed to create Resolver")));
    }
    tryCatch.ReThrow();
    return;
  }
  tc->start_resolver_.Reset(isolate, resolver);
  tc->thread_start_hook_.data = tc;
  checkUv("start_hook", uv_async_init(uv_default_loop(), &tc->thread_start_hook_, onStartHook));
  thread->started_ = true;
  thread->start();
  info.GetReturnValue().Set(resolver->GetPromise());
}

void StopKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::TryCatch tryCatch(isolate);
  v8::HandleScope scope(isolate);
  KeshThread* thread = lookUpOrThrow(info, tryCatch);
  if (thread == nullptr) return;
  std::string prefix = "Vuser [" + std::to_string(thread->vuser_id_) + "] ";
  if (!thread->started_) {
    throwError(isolate, tryCatch, prefix + "was never started");
    return;
  }
  // A Vuser that stopped itself, or was stopped before, needs no second request: the stop
  // only makes sure the thread is joined.
  if (thread->joined_ || thread->thread_component_->thread_stopping_.load()) {
    KeshLogger::log(LogLevel::kError, component::kVuserThread, thread->vuser_id_,
                    "blocked another closing request");
  } else {
    KeshLogger::log(LogLevel::kDebug, component::kKeshFactory, thread->vuser_id_, "closing thread");
    checkUv("0 == uv_async_send(&kesh_thread->thread_component_->thread_stop_hook_)",
            uv_async_send(&thread->thread_component_->thread_stop_hook_));
  }
  if (!thread->joined_) {
    thread->thread_component_->stop_requested_.store(true);
    thread->thread_.join();
    thread->joined_ = true;
  }
}

void RunFunctionFromScript(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  isolateEnter(isolate);
  {
    v8::HandleScope scope(isolate);
    v8::TryCatch tryCatch(isolate);
    uint32_t id = 0;
    KeshThread* thread = nullptr;
    if (!readVuserId(info, &id)) {
      KeshLogger::log(LogLevel::kError, component::kKeshFactory, kInvalidId);
      throwError(isolate, tryCatch, kInvalidId);
    } else {
      std::string functionName = utf8Text(isolate, info[1]);
      std::string parameter = utf8Text(isolate, info[2]);
      thread = findThread(id);
      if (thread == nullptr) {
        std::string text = noThreadText(id);
        KeshLogger::log(LogLevel::kError, component::kKeshFactory, text);
        throwError(isolate, tryCatch, text);
      } else if (!thread->started_) {
        std::string text = "Vuser [" + std::to_string(thread->vuser_id_) + "] was never started";
        KeshLogger::log(LogLevel::kError, component::kKeshFactory, text);
        throwError(isolate, tryCatch, text);
      } else {
        requestRunFunction(thread, std::move(functionName), std::move(parameter));
      }
    }
  }
  isolateLeave(isolate);
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
    if (thread->started_ && !thread->joined_) {
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
  KeshLogger::log(LogLevel::kDebug, component::kKeshFactory,
                  "finalizing destruction of Vuser(s) thread(s)");
  v8::HandleScope scope(isolate);
  KeshLogger::instance()->close();
  for (auto& [id, thread] : threadRegistry) {
    // The start hook is still due on the main loop: its close releases the Vuser instead.
    if (thread->started_ && !thread->start_hook_closed_) {
      KeshThread* orphan = thread.release();
      orphan->thread_component_->release_on_hook_close_ = orphan;
    }
  }
  decltype(threadRegistry)().swap(threadRegistry);  // a fresh table, not just an empty one
}

}  // namespace kesh
