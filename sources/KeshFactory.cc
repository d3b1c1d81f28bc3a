#include "KeshFactory.h"

#include "services/KeshLogger.h"
#include "services/Utilities.h"

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

std::string noThutf8Text(uint32_t id) {
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
  if (thread == nullptr) throwError(isolate, tryCatch, noThutf8Text(id));
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
  // Vuser threads arrive with the thread runtime; until then no Vuser can be created.
  LogAndThrowError(isolate, component::kKeshFactory,
                   "createKeshThread: Vuser threads are not available in this build");
  tryCatch.ReThrow();
}

void StartKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  if (lookUpOrThrow(info, tryCatch) == nullptr) return;
  throwError(isolate, tryCatch, "startKeshThread: Vuser threads are not available in this build");
}

void StopKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::TryCatch tryCatch(isolate);
  v8::HandleScope scope(isolate);
  if (lookUpOrThrow(info, tryCatch) == nullptr) return;
  throwError(isolate, tryCatch, "stopKeshThread: Vuser threads are not available in this build");
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
        std::string text = noThutf8Text(id);
        KeshLogger::log(LogLevel::kError, component::kKeshFactory, text);
        throwError(isolate, tryCatch, text);
      } else {
        throwError(isolate, tryCatch,
                   "runFunctionFromScript: Vuser threads are not available in this build");
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
  KeshThread* thread = threadRegistry.begin()->second.get();
  thread->inspector_host_ = utf8Text(isolate, info[0]);
  thread->inspector_enabled_ = true;
  // The port is taken as a number as it stands, without conversion.
  thread->inspector_port_ =
      info[1]->IsNumber() ? static_cast<uint32_t>(info[1].As<v8::Integer>()->Value()) : 0;
}

void DestroyKeshThreads(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  KeshLogger::log(LogLevel::kDebug, component::kKeshFactory,
                  "finalizing destruction of Vuser(s) thread(s)");
  v8::HandleScope scope(isolate);
  KeshLogger::instance()->close();
  decltype(threadRegistry)().swap(threadRegistry);  // a fresh table, not just an empty one
}

}  // namespace kesh
