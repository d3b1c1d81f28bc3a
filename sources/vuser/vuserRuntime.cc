#include "vuser/vuserRuntime.h"

#include "base/check.h"
#include "base/hostCompat.h"

namespace kesh {

namespace {

// The host's start-up snapshot: every Vuser isolate and its environment are deserialised from it
// instead of bootstrapped, which is most of a Vuser's start-up time. Kept for the process.
const node::EmbedderSnapshotData* builtinSnapshot() {
  static const node::EmbedderSnapshotData* snapshot =
      node::EmbedderSnapshotData::BuiltinSnapshotData().release();
  return snapshot;
}

// A Vuser must not own the process, start the host's inspector, or load other add-ons.
constexpr auto kEnvironmentFlags = static_cast<node::EnvironmentFlags::Flags>(
    node::EnvironmentFlags::kNoRegisterESMLoader | node::EnvironmentFlags::kNoCreateInspector |
    node::EnvironmentFlags::kNoStartDebugSignalHandler | node::EnvironmentFlags::kNoNativeAddons |
    node::EnvironmentFlags::kNoGlobalSearchPaths | node::EnvironmentFlags::kTrackUnmanagedFds);

void closeHandle(uv_handle_t* handle, void*) {
  if (!uv_is_closing(handle)) uv_close(handle, nullptr);
}

}  // namespace

VuserRuntime::VuserRuntime(ThreadComponent& vuser, node::MultiIsolatePlatform* platform)
    : vuser_(vuser), platform_(platform) {}

std::unique_ptr<VuserRuntime> VuserRuntime::create(ThreadComponent& vuser,
                                                   node::MultiIsolatePlatform* platform,
                                                   const node::IsolateSettings& settings,
                                                   std::string* error) {
  std::unique_ptr<VuserRuntime> runtime(new VuserRuntime(vuser, platform));
  if (int status = uv_loop_init(&runtime->loop_); status != 0) {
    *error = std::string("cannot make the Vuser's loop: ") + uv_strerror(status);
    return nullptr;
  }
  runtime->loop_open_ = true;
  runtime->allocator_ = node::ArrayBufferAllocator::Create();
  runtime->isolate_ = node::NewIsolate(runtime->allocator_.get(), &runtime->loop_, platform,
                                       builtinSnapshot(), settings);
  if (runtime->isolate_ == nullptr) {
    *error = "Isolate has not been created";
    return nullptr;
  }
  v8::Isolate* isolate = runtime->isolate_;
  v8::Locker locker(isolate);
  v8::Isolate::Scope isolateScope(isolate);
  v8::HandleScope handleScope(isolate);
  preferMemoryOverSpeed(isolate);
  isolate->SetData(0, &vuser);
  isolate->SetCaptureStackTraceForUncaughtExceptions(true, 10, v8::StackTrace::kDetailed);
  runtime->isolate_data_ = node::CreateIsolateData(isolate, &runtime->loop_, platform,
                                                   runtime->allocator_.get(), builtinSnapshot());
  // Deserialised from the snapshot, the environment brings its own initialised context.
  runtime->environment_ = node::CreateEnvironment(runtime->isolate_data_, v8::Local<v8::Context>(),
                                                  {}, {}, kEnvironmentFlags);
  if (runtime->environment_ == nullptr) {
    *error = "Failed to create environment";
    return nullptr;
  }
  vuser.loop_ = &runtime->loop_;
  vuser.platform_ = platform;
  vuser.isolate_ = isolate;
  vuser.environment_ = runtime->environment_;
  vuser.context_.Reset(isolate, node::GetMainContext(runtime->environment_));
  std::lock_guard<std::mutex> lock(vuser.wake_mutex_);
  vuser.isolate_alive_ = true;
  return runtime;
}

void VuserRuntime::spin() {
  while (!isStopping(vuser_.state_.get())) {
    uv_run(&loop_, UV_RUN_DEFAULT);
    v8::Locker locker(isolate_);
    v8::Isolate::Scope isolateScope(isolate_);
    platform_->DrainTasks(isolate_);
  }
}

VuserRuntime::~VuserRuntime() {
  freeIsolate();
  closeLoop();
}

void VuserRuntime::freeIsolate() {
  if (isolate_ == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(vuser_.wake_mutex_);
    vuser_.isolate_alive_ = false;
  }
  {
    v8::Locker locker(isolate_);
    v8::Isolate::Scope isolateScope(isolate_);
    // A termination asked for by a stop must not cut short the environment's own clean-up.
    isolate_->CancelTerminateExecution();
    vuser_.context_.Reset();
    if (environment_ != nullptr) node::FreeEnvironment(environment_);
    if (isolate_data_ != nullptr) node::FreeIsolateData(isolate_data_);
    environment_ = nullptr;
    isolate_data_ = nullptr;
    // Only now: the environment's clean-up may still call into the script.
    vuser_.callback_resource_.Reset();
    vuser_.environment_ = nullptr;
  }
  bool finished = false;
  platform_->AddIsolateFinishedCallback(
      isolate_, [](void* flag) { *static_cast<bool*>(flag) = true; }, &finished);
  releaseIsolate(platform_, isolate_);
  isolate_ = nullptr;
  vuser_.isolate_ = nullptr;
  // The platform closes its handle on this loop; the callback comes once that has happened.
  while (!finished && uv_run(&loop_, UV_RUN_ONCE) != 0) {
  }
}

void VuserRuntime::closeLoop() {
  if (!loop_open_) return;
  // Owners have closed their handles by now; whatever a failed start left behind goes here.
  uv_walk(&loop_, closeHandle, nullptr);
  while (uv_run(&loop_, UV_RUN_NOWAIT) != 0) {
  }
  KESH_CHECK_EQ(uv_loop_close(&loop_), 0);
  loop_open_ = false;
  vuser_.loop_ = nullptr;
}

}  // namespace kesh
