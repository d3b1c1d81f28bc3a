#include "thread/threadComponents.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "KeshFactory.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/caches.h"

namespace kesh {

AsyncCallbackEntry makeAsyncCallback(v8::Isolate* isolate, v8::Local<v8::Function> function,
                                     v8::Local<v8::Value> argument) {
  auto* callback = new AsyncCallback();
  callback->function_.Reset(isolate, function);
  callback->argument_.Reset(isolate, argument);
  return AsyncCallbackEntry(callback, [](AsyncCallback* released) {
    released->function_.Reset();
    released->argument_.Reset();
    delete released;
  });
}

void closeHeapTimer(uv_timer_t* timer) {
  auto* handle = reinterpret_cast<uv_handle_t*>(timer);
  if (uv_is_closing(handle)) return;
  uv_timer_stop(timer);
  uv_close(handle, [](uv_handle_t* closed) { free(closed); });
}

void checkUv(const char* label, int result) {
  if (result == 0) return;
  fprintf(stderr, "%s: failed and returned %d \n", label, result);
  exit(1);
}

namespace {
// Unhandled rejections are not Node's to act on: its default turns them into an exit, and a
// Vuser whose run function rejects after an await must run on. They are only logged.
void onPromiseRejected(v8::PromiseRejectMessage message) {
  if (message.GetEvent() != v8::kPromiseRejectWithNoHandler) return;
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  ThreadComponent* tc = componentOf(isolate);
  v8::HandleScope scope(isolate);
  std::string text =
      utf8Text(isolate, v8::Exception::CreateMessage(isolate, message.GetValue())->Get());
  KeshLogger::logf(LogLevel::kWarning, component::kVuserThread,
                   tc != nullptr ? tc->vuser_id_ : kNoVuser, "unhandled promise rejection: %",
                   text);
}

bool onUncaughtException(v8::Isolate*) {
  KeshLogger::log(LogLevel::kError, component::kVuserThread, "V8 uncaught exception was thrown.");
  return false;  // never abort the host
}
}  // namespace

const node::EmbedderSnapshotData* builtinSnapshot() {
  // Kept for the life of the process: every Vuser isolate is made from it.
  static const node::EmbedderSnapshotData* snapshot =
      node::EmbedderSnapshotData::BuiltinSnapshotData().release();
  return snapshot;
}

ThreadComponent::ThreadComponent(std::string script_path, uint32_t vuser_id,
                                 std::string script_args)
    : vuser_id_(vuser_id),
      script_args_(std::move(script_args)),
      script_path_(std::move(script_path)) {
  loop_ = static_cast<uv_loop_t*>(calloc(1, sizeof(uv_loop_t)));
  thread_script_file = FileCacheManager::instance().find(script_path_);
  if (thread_script_file == nullptr) {
    // The factory preloads the script under this key; a miss is a broken preload.
    fprintf(stderr, "ThreadComponent: script not in the file cache: %s\n", script_path_.c_str());
    abort();
  }
  checkUv("loop_init", uv_loop_init(loop_));
  // Routes uncaught exceptions and rejections through Node, whose exit path the thread body
  // replaces with one that ends only this Vuser.
  node::IsolateSettings settings;
  settings.policy = v8::MicrotasksPolicy::kAuto;
  settings.should_abort_on_uncaught_exception_callback = onUncaughtException;
  settings.promise_reject_callback = onPromiseRejected;
  // The isolate starts from the host's built-in start-up snapshot: the environment is then
  // deserialised instead of bootstrapped, which is most of a Vuser's start-up time.
  array_buffer_allocator_ = node::ArrayBufferAllocator::Create().release();  // never freed
  isolate_ =
      node::NewIsolate(array_buffer_allocator_, loop_, mainPlatform, builtinSnapshot(), settings);
  if (isolate_ == nullptr) throw std::runtime_error("Isolate has not been created");

  v8::Locker locker(isolate_);
  v8::Isolate::Scope isolateScope(isolate_);
  isolate_->EnableMemorySavingsMode();
  isolate_->SetData(0, this);
  isolate_->SetCaptureStackTraceForUncaughtExceptions(true, 10, v8::StackTrace::kOverview);
}

ThreadComponent::~ThreadComponent() {
  // The loop was closed by the thread. The isolate, its environment and its handles stay to the
  // end of the process: the Vuser-side handles are Persistents, which a destructor leaves alone.
  free(loop_);
}

void ThreadComponent::setPendingFunction(std::string name, std::string param) {
  std::lock_guard<std::mutex> lock(pending_function_mutex_);
  pending_function_name_ = std::move(name);
  pending_function_param_ = std::move(param);
}

}  // namespace kesh
