#include "thread/KeshThread.h"

#include <chrono>
#include <stdexcept>

#include "base/hostCompat.h"
#include "inspector/inspectorAgent.h"
#include "network/NetworkManager.h"
#include "services/KeshLogger.h"
#include "services/Require.h"
#include "services/Utilities.h"
#include "services/caches.h"
#include "services/console.h"
#include "services/timers.h"
#include "thread/idleCollection.h"
#include "thread/runFunctionQueue.h"
#include "vuser/enteredVuser.h"
#include "vuser/vuserRuntime.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kVuserThread;

// Unhandled rejections are not Node's to act on: its default turns them into an exit, and a
// Vuser whose run function rejects after an await must run on. They are only logged.
void onPromiseRejected(v8::PromiseRejectMessage message) {
  if (message.GetEvent() != v8::kPromiseRejectWithNoHandler) return;
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  ThreadComponent* vuser = componentOf(isolate);
  v8::HandleScope scope(isolate);
  std::string text =
      utf8Text(isolate, v8::Exception::CreateMessage(isolate, message.GetValue())->Get());
  KeshLogger::logf(LogLevel::kWarning, kComponent, vuser != nullptr ? vuser->vuser_id_ : kNoVuser,
                   "unhandled promise rejection: %", text);
}

bool onUncaughtException(v8::Isolate*) {
  KeshLogger::log(LogLevel::kError, kComponent, "V8 uncaught exception was thrown.");
  return false;  // never abort the host
}

// Routes uncaught exceptions and rejections through Node, whose exit path the thread body
// replaces with one that ends only this Vuser.
node::IsolateSettings isolateSettings() {
  node::IsolateSettings settings;
  settings.policy = v8::MicrotasksPolicy::kAuto;
  settings.should_abort_on_uncaught_exception_callback = onUncaughtException;
  settings.promise_reject_callback = onPromiseRejected;
  return settings;
}

void onWake(uv_async_t* handle) {
  ThreadComponent& vuser = *static_cast<ThreadComponent*>(handle->data);
  if (isStopping(vuser.state_.get())) {
    uv_stop(handle->loop);
    return;
  }
  runPendingFunction(vuser);
}

}  // namespace

void requestStop(ThreadComponent& vuser) {
  vuser.state_.move({VuserState::kStarting, VuserState::kRunning, VuserState::kFailed},
                    VuserState::kStopping);
  if (vuser.loop_ != nullptr) uv_stop(vuser.loop_);
}

KeshThread::KeshThread(uint32_t vuser_id, std::string script_path, std::string script_args,
                       FileRecord* script, node::MultiIsolatePlatform* platform, StartReport report)
    : vuser_id_(vuser_id),
      thread_component_(std::make_unique<ThreadComponent>(vuser_id, std::move(script_path),
                                                          std::move(script_args))),
      platform_(platform),
      start_report_(report) {
  thread_component_->thread_script_file = script;
}

KeshThread::~KeshThread() {
  VuserState state = thread_component_->state_.get();
  KESH_CHECK(state == VuserState::kCreated || state == VuserState::kJoined);
}

bool KeshThread::start(std::string* error) {
  KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "thread start");
  thread_component_->state_.move({VuserState::kCreated}, VuserState::kStarting);
  try {
    thread_ = std::thread([this] { threadMain(); });
  } catch (const std::system_error& e) {
    // No thread ever touched the record: the Vuser is as good as joined.
    *error = e.what();
    thread_component_->state_.move({VuserState::kStarting}, VuserState::kJoined);
    return false;
  }
  return true;
}

void KeshThread::stop() {
  ThreadComponent& vuser = *thread_component_;
  if (vuser.state_.move({VuserState::kStarting, VuserState::kRunning, VuserState::kFailed},
                        VuserState::kStopping)) {
    KeshLogger::log(LogLevel::kDebug, component::kKeshFactory, vuser_id_, "closing thread");
  } else {
    KeshLogger::log(LogLevel::kError, kComponent, vuser_id_, "blocked another closing request");
  }
  if (vuser.state_.get() == VuserState::kJoined) return;
  wakeVuser(vuser);
  if (!vuser.state_.waitFor(VuserState::kStopped, std::chrono::milliseconds(kStopGraceMs)) &&
      terminateScript(vuser)) {
    KeshLogger::logf(LogLevel::kWarning, kComponent, vuser_id_,
                     "the script did not come back to its loop within % ms of the stop: its "
                     "JavaScript was terminated",
                     kStopGraceMs);
  }
  thread_.join();
  vuser.state_.move({VuserState::kStopped}, VuserState::kJoined);
}

void KeshThread::threadMain() {
  ThreadComponent& vuser = *thread_component_;
  KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "Started thread");
  std::string error;
  std::unique_ptr<VuserRuntime> runtime =
      VuserRuntime::create(vuser, platform_, isolateSettings(), &error);
  if (runtime == nullptr) {
    KeshLogger::log(LogLevel::kError, kComponent, vuser_id_,
                    "failed during user initialization " + error);
    vuser.state_.move({VuserState::kStarting}, VuserState::kFailed);
    start_report_(vuser_id_, false);
  } else {
    // Held while the script may run: Node's own handles on this loop expect the lock held.
    // Entered too, so that each entry of a callback is a count, not a new entry of the thread.
    v8::Locker locker(runtime->isolate());
    v8::Isolate::Scope isolateScope(runtime->isolate());
    openWake(vuser, onWake);
    KESH_CHECK_EQ(uv_prepare_init(vuser.loop_, &vuser.async_callbacks_prepare_), 0);
    vuser.drain_callback_ = onAsyncCallbacksPrepare;
    bool started = runScript();
    vuser.state_.move({VuserState::kStarting},
                      started ? VuserState::kRunning : VuserState::kFailed);
    start_report_(vuser_id_, started);
    startIdleCollection(&vuser);
    KeshLogger::log(LogLevel::kTrace, kComponent, vuser_id_, "Running event loop");
    runtime->spin();
    // Whoever asked for the stop (the runner, the script's exit, a rejected run function), the
    // thread says so once, as it acts on it.
    KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "thread stop");
    releaseScriptValues();
  }
  runtime.reset();  // releases the environment, the isolate and the loop, in that order
  requestStop(vuser);
  vuser.state_.move({VuserState::kStopping}, VuserState::kStopped);
  KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "finished thread execution");
}

bool KeshThread::runScript() {
  ThreadComponent& vuser = *thread_component_;
  EnteredVuser here(vuser.isolate_);
  node::SetProcessExitHandler(vuser.environment_, [&vuser](node::Environment*, int code) {
    KeshLogger::logf(LogLevel::kError, kComponent, vuser.vuser_id_,
                     "process exit requested with code %: stopping this Vuser", code);
    requestStop(vuser);
  });
  KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_, "Isolate init");
  try {
    installGlobals();
  } catch (const std::exception& e) {
    KeshLogger::log(LogLevel::kError, kComponent, vuser_id_,
                    std::string("failed during user initialization ") + e.what());
    return false;
  }
  if (inspector_enabled_) {
    inspector_agent_ = StartInspectorAgent(&vuser, inspector_host_, inspector_port_);
    vuser.inspector_agent_ = inspector_agent_.get();
  }
  return compileAndRun();
}

void KeshThread::installGlobals() {
  ThreadComponent* tc = thread_component_.get();
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
  tc->network_ = network_manager_.get();
  InstallNetworkFunctions(tc, global);
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

bool KeshThread::compileAndRun() {
  ThreadComponent& vuser = *thread_component_;
  v8::Isolate* isolate = vuser.isolate_;
  v8::HandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::TryCatch tryCatch(isolate);
  FileRecord* file = vuser.thread_script_file;
  v8::ScriptCompiler::Source* cached =
      ScriptCacheManager::instance().find(file->fullPath.get(), file->fileName);
  v8::Local<v8::UnboundScript> unbound;
  v8::Local<v8::Value> result;
  std::string failure;
  if (!ScriptCacheManager::compile(isolate, SourceText(isolate, *file),
                                   ToV8String(isolate, file->fileName), cached)
           .ToLocal(&unbound)) {
    failure = ExceptionToString(isolate, tryCatch);
    KeshLogger::logf(LogLevel::kError, kComponent, vuser_id_, "Error compiling the script %",
                     failure);
  } else if (!unbound->BindToCurrentContext()->Run(context).ToLocal(&result)) {
    failure = ExceptionToString(isolate, tryCatch);
    KeshLogger::logf(LogLevel::kTrace, kComponent, vuser_id_, "Error running the script: %",
                     failure);
  } else if (IsRejectedPromise(result)) {
    v8::Local<v8::Value> reason = result.As<v8::Promise>()->Result();
    failure = "Exception during async callback: " +
              utf8Text(isolate, v8::Exception::CreateMessage(isolate, reason)->Get());
  }
  if (!failure.empty()) {
    // A trace: the rejected start is the failure's Error line, and a compile error has its own.
    KeshLogger::log(LogLevel::kTrace, kComponent, vuser_id_,
                    "failed during script initialization " + failure);
    return false;
  }
  KeshLogger::log(LogLevel::kDebug, kComponent, vuser_id_,
                  "finished script initialization successfully");
  if (cached != nullptr) {
    ScriptCacheManager::instance().rememberRun(file->fullPath.get(), file->fileName, unbound);
  }
  return true;
}

void KeshThread::releaseScriptValues() {
  ThreadComponent& vuser = *thread_component_;
  EnteredVuser here(vuser.isolate_);
  if (inspector_agent_ != nullptr) {
    inspector_agent_->Stop();
    inspector_agent_->Disconnect();
    inspector_agent_.reset();
    vuser.inspector_agent_ = nullptr;
  }
  if (network_manager_ != nullptr) network_manager_->release();
  // Script values held for queued calls, timers, sockets and modules go while this thread still
  // holds the isolate; each owner closes its own handles.
  clearAsyncCallbacks(&vuser);
  closeAllTimers(&vuser);
  vuser.timers_.clear();
  vuser.bare_sockets_.clear();
  vuser.module_table_.clear();
  uv_close(reinterpret_cast<uv_handle_t*>(&vuser.async_callbacks_prepare_), nullptr);
  uv_close(reinterpret_cast<uv_handle_t*>(&vuser.idle_check_timer_), nullptr);
  closeWake(vuser);
}

}  // namespace kesh
