#include "thread/KeshThread.h"

#include <chrono>
#include <stdexcept>

#include "inspector/inspectorAgent.h"
#include "inspector/inspectorIO.h"
#include "network/NetworkManager.h"
#include "services/KeshLogger.h"
#include "services/Require.h"
#include "services/Utilities.h"
#include "services/caches.h"
#include "services/console.h"
#include "services/timers.h"
#include "thread/idleCollection.h"
#include "thread/runFunctionQueue.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kVuserThread;

KeshThread* threadOf(uv_handle_t* handle) { return static_cast<KeshThread*>(handle->data); }

void onRunFunction(uv_async_t* handle) {
  runPendingFunction(threadOf(reinterpret_cast<uv_handle_t*>(handle)));
}

void onLoopStop(uv_async_t* handle) { uv_stop(handle->loop); }

void onStopRequest(uv_async_t* handle) {
  KeshThread* thread = threadOf(reinterpret_cast<uv_handle_t*>(handle));
  if (thread->thread_component_->thread_stopping_.load()) {
    KeshLogger::log(LogLevel::kError, kComponent, thread->vuser_id_,
                    "blocked another closing request");
    return;
  }
  thread->stopThread();
}

void closeIfActive(uv_handle_t* handle, void*) {
  if (uv_is_active(handle) && !uv_is_closing(handle)) uv_close(handle, nullptr);
}

}  // namespace

KeshThread::KeshThread(uint32_t vuser_id, std::string script_path, std::string script_args)
    : vuser_id_(vuser_id),
      thread_component_(std::make_unique<ThreadComponent>(std::move(script_path), vuser_id,
                                                          std::move(script_args))) {}

KeshThread::~KeshThread() = default;

void KeshThread::start() {
  KeshLogger::log(LogLevel::kDebug, component::kKeshFactory, vuser_id_, "thread start");
  ThreadComponent* tc = thread_component_.get();
  // The hooks are made before the thread exists, while nothing runs the loop: a command sent
  // right after the start must find them ready. libuv runs async callbacks in the order the
  // handles were made, and a loop run nested inside one callback (a blocking request in a run
  // function) only sees the handles already served in that pass: the stop hooks come first.
  tc->thread_stop_hook_.data = this;
  checkUv("thread_stop_hook", uv_async_init(tc->loop_, &tc->thread_stop_hook_, onStopRequest));
  tc->loop_stop_hook_.data = this;
  checkUv("loop_stop_hook", uv_async_init(tc->loop_, &tc->loop_stop_hook_, onLoopStop));
  tc->run_function_hook_.data = this;
  checkUv("run_function_hook", uv_async_init(tc->loop_, &tc->run_function_hook_, onRunFunction));
  tc->async_callbacks_prepare_.data = tc;
  checkUv("prepare_init", uv_prepare_init(tc->loop_, &tc->async_callbacks_prepare_));
  thread_ = std::thread([this] { threadMain(); });
}

void KeshThread::sendStartHook() {
  if (start_hook_sent_) return;
  start_hook_sent_ = true;
  thread_component_->thread_start_hook_.data = thread_component_.get();
  uv_async_send(&thread_component_->thread_start_hook_);
}

void KeshThread::threadMain() {
  ThreadComponent* tc = thread_component_.get();
  v8::Isolate* isolate = tc->isolate_;
  KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "Started thread");

  {
    v8::Locker locker(isolate);
    isolate->Enter();
    v8::Isolate::Scope isolateScope(isolate);
    v8::HandleScope handleScope(isolate);
    // A Vuser must not own the process, start the host's inspector, or load other add-ons.
    auto flags = static_cast<node::EnvironmentFlags::Flags>(
        node::EnvironmentFlags::kNoRegisterESMLoader | node::EnvironmentFlags::kNoCreateInspector |
        node::EnvironmentFlags::kNoStartDebugSignalHandler |
        node::EnvironmentFlags::kNoNativeAddons | node::EnvironmentFlags::kNoGlobalSearchPaths |
        node::EnvironmentFlags::kTrackUnmanagedFds);
    // Deserialised from the start-up snapshot, the environment brings its own initialised context.
    tc->isolate_data_ = node::CreateIsolateData(isolate, tc->loop_, tc->platform_,
                                                tc->array_buffer_allocator_, builtinSnapshot());
    tc->environment_ =
        node::CreateEnvironment(tc->isolate_data_, v8::Local<v8::Context>(), {}, {}, flags);
    // Without an environment the start fails through the handlers below, which need a context.
    v8::Local<v8::Context> context = tc->environment_ != nullptr
                                         ? node::GetMainContext(tc->environment_)
                                         : v8::Context::New(isolate);
    tc->context_.Reset(isolate, context);
    context->Enter();
    v8::Context::Scope contextScope(context);
    v8::TryCatch tryCatch(isolate);
    bool entered = true;  // the first Enter is taken back once the script stage is over

    try {
      if (tc->environment_ == nullptr) throw std::runtime_error("Failed to create environment");
      // process.exit() and Node's uncaught-exception path end this Vuser, not the host.
      node::SetProcessExitHandler(tc->environment_, [this](node::Environment*, int code) {
        KeshLogger::log(
            LogLevel::kError, kComponent, vuser_id_,
            "process exit requested with code " + std::to_string(code) + ": stopping this Vuser");
        if (!thread_component_->thread_stopping_.load()) stopThread();
      });
      KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "Isolate init");
      isolate->SetCaptureStackTraceForUncaughtExceptions(true, 10, v8::StackTrace::kDetailed);
      installGlobals(tc);
      if (inspector_enabled_) {
        setStopRequestFlag(&tc->stop_requested_);
        inspector_agent_ = StartInspectorAgent(tc, inspector_host_, inspector_port_);
      }

      try {
        FileRecord* file = tc->thread_script_file;
        v8::Local<v8::String> name = ToV8String(isolate, file->fileName);
        v8::Local<v8::String> text = SourceText(isolate, *file);
        v8::ScriptCompiler::Source* cached =
            ScriptCacheManager::instance().find(file->fullPath.get());
        if (cached == nullptr && tryCatch.HasCaught()) {
          std::string error = ExceptionToString(isolate, tryCatch);
          KeshLogger::logf(LogLevel::kInfo, kComponent, vuser_id_,
                           "Error getting the cached script %", error);
          throw std::runtime_error(error);
        }
        // Heap-made and never destroyed: its destructor would delete the shared cache data.
        auto* source = new v8::ScriptCompiler::Source(
            text, v8::ScriptOrigin(isolate, name),
            cached != nullptr ? const_cast<v8::ScriptCompiler::CachedData*>(cached->GetCachedData())
                              : nullptr);
        if (tryCatch.HasCaught()) {
          std::string error = ExceptionToString(isolate, tryCatch);
          KeshLogger::logf(LogLevel::kError, kComponent, vuser_id_, "Error getting script cache %",
                           error);
          throw std::runtime_error(error);
        }
        v8::Local<v8::UnboundScript> unbound;
        if (!v8::ScriptCompiler::CompileUnboundScript(isolate, source,
                                                      cached != nullptr
                                                          ? v8::ScriptCompiler::kConsumeCodeCache
                                                          : v8::ScriptCompiler::kNoCompileOptions)
                 .ToLocal(&unbound) ||
            tryCatch.HasCaught()) {
          std::string error = ExceptionToString(isolate, tryCatch);
          KeshLogger::logf(LogLevel::kError, kComponent, vuser_id_, "Error compiling the script %",
                           error);
          throw std::runtime_error(error);
        }
        v8::Local<v8::Script> script = unbound->BindToCurrentContext();
        tc->script_.Reset(isolate, script);
        v8::Local<v8::Value> result;
        if (!script->Run(context).ToLocal(&result) || tryCatch.HasCaught()) {
          std::string error = ExceptionToString(isolate, tryCatch);
          KeshLogger::logf(LogLevel::kTrace, kComponent, vuser_id_, "Error running the script: %",
                           error);
          throw std::runtime_error(error);
        }
        if (IsRejectedPromise(result)) {
          v8::Local<v8::Value> reason = result.As<v8::Promise>()->Result();
          v8::Local<v8::Message> message = v8::Exception::CreateMessage(isolate, reason);
          std::string text =
              "Exception during async callback: " + utf8Text(isolate, message->Get());
          isolate->ThrowException(reason);
          tryCatch.ReThrow();
          throw std::runtime_error(text);
        }
        tc->script_started_.store(true);
        tc->script_result_.Reset(isolate, result);
        tryCatch.Reset();
        KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_,
                        "finished script initialization successfully");
      } catch (const std::exception& e) {
        tc->script_started_.store(false);
        // The failure is an error for whoever reads the log: the start promise only says "fail".
        KeshLogger::log(LogLevel::kError, kComponent, vuser_id_,
                        std::string("failed during script initialization ") + e.what());
        tryCatch.Reset();
      }

      sendStartHook();
      isolate->Exit();
      entered = false;
      {
        std::unique_lock<std::mutex> lock(tc->start_mutex_);
        tc->start_cv_.wait_for(lock, std::chrono::milliseconds(100),
                               [tc] { return tc->start_acknowledged_.load(); });
        startIdleCollection(tc);
        runEventLoop();
      }
    } catch (const std::exception& e) {
      tc->script_started_.store(false);
      LogAndThrowError(isolate, kComponent,
                       std::string("failed during user initialization ") + e.what());
      tryCatch.Reset();
      if (entered) {
        isolate->Exit();
        entered = false;
      }
      // A start that failed before the script stage is still answered, as a failed start.
      sendStartHook();
    }

    closeResources();
    {
      v8::Unlocker unlocker(isolate);
      KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "finished thread execution");
    }
  }
}

void KeshThread::installGlobals(ThreadComponent* tc) {
  v8::Isolate* isolate = tc->isolate_;
  v8::HandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Object> global = context->Global();
  auto define = [&](const char* key, v8::Local<v8::Value> value) {
    global->CreateDataProperty(context, ToV8String(isolate, key), value).IsJust();
  };
  define("global", v8::Object::New(isolate));
  InstallRunFunctions(tc, global);
  InstallRequire(tc, global);
  InstallConsole(tc, global);
  InstallKeshConsole(isolate);
  network_manager_ = std::make_unique<NetworkManager>(tc);
  InstallNetworkFunctions(tc, global);
  network_manager_->vuser_thread_ = this;
  InstallTimerFunctions(tc, global);
  FileRecord* file = tc->thread_script_file;
  define("__dirname", ToV8String(isolate, file->dirName.get()));
  define("__filename", ToV8String(isolate, file->fullPath.get()));
  define("vuser_id", ToV8String(isolate, std::to_string(tc->vuser_id_)));
  v8::TryCatch tryCatch(isolate);
  v8::Local<v8::Value> args;
  if (!v8::JSON::Parse(context, ToV8String(isolate, tc->script_args_)).ToLocal(&args)) {
    throw std::runtime_error("args is not valid JSON: " + ExceptionToString(isolate, tryCatch));
  }
  define("args", args);
}

void KeshThread::runEventLoop() {
  ThreadComponent* tc = thread_component_.get();
  KeshLogger::log(LogLevel::kTrace, kComponent, vuser_id_, "Running event loop");
  uv_run_mode mode =
      (tc->thread_stopping_.load() || !uv_loop_alive(tc->loop_)) ? UV_RUN_NOWAIT : UV_RUN_DEFAULT;
  for (;;) {
    bool more;
    if (uv_run(tc->loop_, mode) != 0) {
      more = true;
      mode = UV_RUN_DEFAULT;
    } else {
      more = uv_loop_alive(tc->loop_) != 0;
      mode = UV_RUN_NOWAIT;
    }
    if (tc->thread_stopping_.load() || !more) return;
  }
}

void KeshThread::stopThread() {
  ThreadComponent* tc = thread_component_.get();
  auto* prepare = reinterpret_cast<uv_handle_t*>(&tc->async_callbacks_prepare_);
  if (!uv_is_closing(prepare) && uv_is_active(prepare))
    uv_prepare_stop(&tc->async_callbacks_prepare_);
  auto* runHook = reinterpret_cast<uv_handle_t*>(&tc->run_function_hook_);
  if (!uv_is_closing(runHook) && uv_is_active(runHook)) uv_close(runHook, nullptr);
  KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "thread stop");
  tc->thread_stopping_.exchange(true);
  uv_stop(tc->loop_);
}

void KeshThread::closeResources() {
  if (inspector_agent_ != nullptr) {
    inspector_agent_->Stop();
    inspector_agent_->Disconnect();
    inspector_agent_.reset();
  }
  if (NetworkManager* manager = network_manager_.get()) {
    auto* tcp = reinterpret_cast<uv_handle_t*>(&manager->tcp_);
    if (manager->connected_.load() && uv_is_active(tcp) && !uv_is_closing(tcp)) {
      uv_close(tcp, OnClose);
    }
    manager->releaseScriptValues();
  }
  // Script values held for queued calls and timers go while this thread still holds the isolate.
  clearAsyncCallbacks(thread_component_.get());
  closeAllTimers(thread_component_.get());
  closeLoop();
}

void KeshThread::closeLoop() {
  uv_loop_t* loop = thread_component_->loop_;
  uv_stop(loop);
  uv_walk(loop, closeIfActive, nullptr);
  // Let the closes complete, so that the loop really closes and gives back its descriptors.
  // Bounded: a request still out in the thread pool must not hold the thread here.
  for (int turn = 0; turn < 100 && uv_run(loop, UV_RUN_NOWAIT) != 0; ++turn) {
  }
  if (uv_loop_close(loop) == UV_EBUSY) uv_walk(loop, closeIfActive, nullptr);
}

}  // namespace kesh
