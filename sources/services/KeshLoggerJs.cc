// The main-thread half of the logger: the runner's callback, the two exports, delivery, close.
#include <node.h>

#include "base/check.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"

namespace kesh {

namespace {

std::mutex instanceMutex;

void onAsync(uv_async_t* handle) { static_cast<KeshLogger*>(handle->data)->drain(); }

void onClosed(uv_handle_t* handle) {
  KeshLogger::log(LogLevel::kDebug, component::kKeshLogger, "Closed kesh logger async handle");
  KeshLogger::release(static_cast<KeshLogger*>(handle->data));
}

void throwTypeError(v8::Isolate* isolate, v8::TryCatch& tryCatch, const char* text) {
  directOutput.store(true);
  KeshLogger::log(LogLevel::kError, component::kKeshLogger, text);
  isolate->ThrowException(v8::Exception::TypeError(ToV8String(isolate, text)));
  tryCatch.ReThrow();
}

void OnLogMessage(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  uv_loop_t* loop = uv_default_loop();
  KeshLogger* logger = KeshLogger::instance();
  if (info.Length() != 1 || !info[0]->IsFunction()) {
    throwTypeError(isolate, tryCatch, "Please provide function callback");
    return;
  }
  if (!logger->callback_.IsEmpty()) {
    throwTypeError(isolate, tryCatch, "You've already initialized the logger");
    return;
  }
  v8::Local<v8::Function> callback = info[0].As<v8::Function>();
  if (callback.IsEmpty() || tryCatch.HasCaught()) {
    KeshLogger::logf(LogLevel::kError, component::kKeshLogger,
                     "Error converting logger callback: %", ExceptionToString(isolate, tryCatch));
    isolate->ThrowException(ExceptionToObject(isolate, tryCatch));
    tryCatch.ReThrow();
    tryCatch.Reset();
    return;
  }
  logger->callback_.Reset(isolate, callback);
  logger->async_.data = logger;
  uv_async_init(loop, &logger->async_, onAsync);
  directOutput.store(false, std::memory_order_release);
}

void SetLogLevel(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  if (info.Length() != 1) {
    directOutput.store(true);
    KeshLogger::log(LogLevel::kError, component::kKeshLogger,
                    "please pass the requested log level");
  }
  if (info[0]->IsUndefined() || !info[0]->IsString()) {
    directOutput.store(true);
    KeshLogger::log(LogLevel::kError, component::kKeshLogger,
                    "bad argument passed for setLogLevel");
    return;
  }
  std::string level = utf8Text(isolate, info[0]);
  KeshLogger::logf(LogLevel::kInfo, component::kKeshLogger,
                   "called to set Log level with the following state: %", level);
  static const struct {
    const char* name;
    LogLevel level;
  } kLevels[] = {{"info", LogLevel::kInfo},
                 {"debug", LogLevel::kDebug},
                 {"warning", LogLevel::kWarning},
                 {"error", LogLevel::kError}};
  for (const auto& entry : kLevels) {
    if (level == entry.name) {
      currentLogLevel.store(static_cast<int32_t>(entry.level));
      return;
    }
  }
  KeshLogger::logf(LogLevel::kError, component::kKeshLogger,
                   "WARNING: Receive invalid log level parameter %. Use default info log level.",
                   level);
}

v8::Local<v8::Function> makeFunction(v8::Isolate* isolate, v8::Local<v8::Context> context,
                                     const char* name, v8::FunctionCallback callback) {
  v8::Local<v8::Function> function =
      v8::FunctionTemplate::New(isolate, callback)->GetFunction(context).ToLocalChecked();
  function->SetName(ToV8String(isolate, name));
  return function;
}

}  // namespace

KeshLogger::KeshLogger() : async_{} {}

KeshLogger* KeshLogger::instance() {
  KeshLogger* logger = current_.load(std::memory_order_acquire);
  if (logger != nullptr) return logger;
  std::lock_guard<std::mutex> lock(instanceMutex);
  logger = current_.load(std::memory_order_relaxed);
  if (logger == nullptr) {
    logger = new KeshLogger();
    current_.store(logger, std::memory_order_release);
    setFatalFlush(&KeshLogger::flushToStandardOutput);
  }
  return logger;
}

void KeshLogger::release(KeshLogger* logger) {
  {
    std::lock_guard<std::mutex> lock(instanceMutex);
    if (current_.load(std::memory_order_relaxed) == logger) current_.store(nullptr);
  }
  delete logger;
}

KeshLogger::~KeshLogger() {
  // Records still queued are dropped undelivered.
  queue_.clear();
  callback_.Reset();
}

void KeshLogger::drain() {
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  v8::Locker locker(isolate);
  v8::Isolate::Scope isolateScope(isolate);
  v8::HandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  // Lets promise reactions and next-tick work queued by the callback run once delivery ends.
  node::CallbackScope callbackScope(isolate, v8::Object::New(isolate), {0, 0});
  v8::Local<v8::Function> callback = callback_.Get(isolate);
  v8::Local<v8::Object> receiver = context->Global();
  // A flood is delivered in slices, each followed by a turn of the runner's own loop.
  const uint64_t deadline = uv_hrtime() + kDeliverySliceNanos;
  for (size_t delivered = 0;; ++delivered) {
    if ((delivered & 63) == 63 && uv_hrtime() > deadline) {
      uv_async_send(&async_);
      return;
    }
    std::unique_ptr<LogRecord> record;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (queue_.empty()) break;
      record = std::move(queue_.front());
      queue_.pop_front();
      queued_bytes_ -= record->text.size() + record->component.size() + record->levelName.size();
    }
    if (callback.IsEmpty()) continue;  // a logger that never attached has nobody to tell
    v8::HandleScope lineScope(isolate);
    v8::TryCatch tryCatch(isolate);
    v8::Local<v8::Value> argv[2] = {
        ToV8String(isolate, displayText(record->component, record->text)),
        ToV8String(isolate, record->levelName)};
    v8::MaybeLocal<v8::Value> result = callback->Call(context, receiver, 2, argv);
    if (result.IsEmpty() || tryCatch.HasCaught()) {
      // The line is dropped; the error line's own hand-over wakes the next delivery.
      logf(LogLevel::kError, component::kKeshLogger, "Error calling logger callback %\n",
           ExceptionToString(isolate, tryCatch));
      tryCatch.Reset();
      return;
    }
  }
  // Queued after the lines it speaks of, once they have made room.
  reportDropped();
}

void KeshLogger::close() {
  drain();
  directOutput.store(true);
  // Detached at once: a runner may attach a new callback right away, before this one's handle
  // has finished closing.
  {
    std::lock_guard<std::mutex> lock(instanceMutex);
    if (current_.load(std::memory_order_relaxed) == this) current_.store(nullptr);
  }
  if (callback_.IsEmpty()) {
    delete this;  // never attached: no handle to close
    return;
  }
  uv_close(reinterpret_cast<uv_handle_t*>(&async_), onClosed);
}

v8::Local<v8::Object> InstallLoggerExports(v8::Local<v8::Object> exports) {
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  v8::EscapableHandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  exports
      ->Set(context, ToV8String(isolate, "setLogLevel"),
            makeFunction(isolate, context, "setLogLevel", SetLogLevel))
      .IsJust();
  exports
      ->Set(context, ToV8String(isolate, "onLogMessage"),
            makeFunction(isolate, context, "onLogMessage", OnLogMessage))
      .IsJust();
  return scope.Escape(exports);
}

}  // namespace kesh
