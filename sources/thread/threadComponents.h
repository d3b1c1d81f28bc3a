#pragma once

#include <node.h>
#include <uv.h>
#include <v8.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "services/fileRecord.h"

namespace kesh {

struct KeshThread;
struct TimerHandle;
struct NetworkQueueEntry;
struct BareSocket;

// One queued script call, made on the Vuser thread where a script may run.
struct AsyncCallback {
  v8::Persistent<v8::Function> function_;
  v8::Persistent<v8::Value> argument_;
};
// The producer of a call decides how its record is released.
using AsyncCallbackEntry = std::unique_ptr<AsyncCallback, std::function<void(AsyncCallback*)>>;
// A call of `function` with `argument`, released with its handles on the Vuser thread.
AsyncCallbackEntry makeAsyncCallback(v8::Isolate* isolate, v8::Local<v8::Function> function,
                                     v8::Local<v8::Value> argument);

// Everything that belongs to one Vuser and outlives a single call. Built on the main thread with a
// fully configured isolate; isolate data slot 0 leads back here.
struct ThreadComponent {
  v8::Isolate* isolate_ = nullptr;
  v8::Persistent<v8::Context> context_;  // Persistent: never reset from the main thread
  uv_loop_t* loop_ = nullptr;
  uint32_t vuser_id_;
  std::string script_args_;
  uv_async_t run_function_hook_{};
  std::atomic<bool> script_started_{false};
  std::string script_path_;
  v8::Global<v8::Promise::Resolver> start_resolver_;
  uv_prepare_t async_callbacks_prepare_{};
  v8::Isolate* main_isolate_ = nullptr;
  FileRecord* thread_script_file = nullptr;
  uv_async_t thread_start_hook_{};
  uv_async_t thread_stop_hook_{};
  node::ArrayBufferAllocator* array_buffer_allocator_ = nullptr;
  v8::Persistent<v8::Script> script_;
  v8::Persistent<v8::Value> script_result_;
  std::atomic<bool> thread_stopping_{false};
  // Raised by the main thread's stop before it waits for the thread.
  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> sync_request_active_{false};
  uv_async_t loop_stop_hook_{};
  std::mutex async_callbacks_mutex_;
  std::deque<AsyncCallbackEntry> async_callbacks_;
  std::map<int32_t, std::shared_ptr<TimerHandle>> timers_;
  int32_t next_timer_id_ = 0;
  std::mutex network_queue_mutex_;
  std::deque<std::shared_ptr<NetworkQueueEntry>> network_queue_;
  std::unordered_map<std::string, std::shared_ptr<BareSocket>> bare_sockets_;
  node::MultiIsolatePlatform* platform_ = nullptr;
  node::IsolateData* isolate_data_ = nullptr;
  node::Environment* environment_ = nullptr;
  std::mutex start_mutex_;
  std::condition_variable start_cv_;
  std::atomic<bool> start_acknowledged_{false};
  std::string pending_function_name_;
  std::string pending_function_param_;
  std::mutex pending_function_mutex_;
  // Vuser thread only: script calls made so far, and what the idle check saw of them and of the
  // heap (see idleCollection.h).
  uint64_t script_calls_ = 0;
  uint64_t script_calls_at_check_ = 0;
  size_t heap_after_collection_ = 0;
  bool collected_while_idle_ = false;
  uv_timer_t idle_check_timer_{};
  // Set when the Vuser was destroyed while its start hook was still due: the hook's close
  // callback then releases the Vuser.
  KeshThread* release_on_hook_close_ = nullptr;

  ThreadComponent(std::string script_path, uint32_t vuser_id, std::string script_args);
  ~ThreadComponent();
  ThreadComponent(const ThreadComponent&) = delete;
  ThreadComponent& operator=(const ThreadComponent&) = delete;

  void setPendingFunction(std::string name, std::string param);
};

// The host's start-up snapshot that every Vuser isolate and its environment are made from.
const node::EmbedderSnapshotData* builtinSnapshot();

// The Vuser of the isolate a script or libuv callback runs in; null on an isolate that is not a
// Vuser's.
inline ThreadComponent* componentOf(v8::Isolate* isolate) {
  return static_cast<ThreadComponent*>(isolate->GetData(0));
}

// Stops and closes a timer allocated with calloc, in any state; its memory goes in the close
// callback.
void closeHeapTimer(uv_timer_t* timer);

// "%s: failed and returned %d \n" on standard error, then exit code 1: for libuv calls that
// cannot fail unless the process is broken.
void checkUv(const char* label, int result);

}  // namespace kesh
