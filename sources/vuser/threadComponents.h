#pragma once

#include <node.h>
#include <uv.h>
#include <v8.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "vuser/vuserState.h"

namespace kesh {

struct FileRecord;
struct TimerHandle;
struct BareSocket;
struct NetworkManager;
struct NetworkMessage;
enum class InternalMessageType : int32_t;
class Agent;

// One queued script call, made and released on the Vuser thread where a script may run.
struct AsyncCallback {
  v8::Global<v8::Function> function_;
  v8::Global<v8::Value> argument_;
};
using AsyncCallbackEntry = std::unique_ptr<AsyncCallback>;
AsyncCallbackEntry makeAsyncCallback(v8::Isolate* isolate, v8::Local<v8::Function> function,
                                     v8::Local<v8::Value> argument);

// One received line on its way to the script.
struct NetworkQueueEntry {
  std::shared_ptr<NetworkMessage> message;
  InternalMessageType type;
};

// The record of one Vuser: what the main thread and the Vuser thread share, and what the Vuser
// thread keeps between calls. Isolate data slot 0 of the Vuser's isolate leads back here. The
// runtime itself (loop, isolate, environment) is owned by the thread body's VuserRuntime.
struct ThreadComponent {
  const uint32_t vuser_id_;
  const std::string script_path_;
  const std::string script_args_;
  FileRecord* thread_script_file = nullptr;
  StateCell state_;

  // Main thread to Vuser thread: one wake-up handle, open only while the Vuser's loop runs, and
  // the one-slot run-function request. wake_mutex_ guards all of these and isolate_alive_.
  std::mutex wake_mutex_;
  bool wake_open_ = false;
  uv_async_t wake_{};
  bool isolate_alive_ = false;
  bool run_function_pending_ = false;
  std::string pending_function_name_;
  std::string pending_function_param_;

  // Vuser thread only, set while the runtime lives.
  v8::Isolate* isolate_ = nullptr;
  uv_loop_t* loop_ = nullptr;
  node::MultiIsolatePlatform* platform_ = nullptr;
  node::Environment* environment_ = nullptr;
  v8::Global<v8::Context> context_;
  // What Node's callback scopes of this Vuser's calls name as their resource: one object made
  // once, instead of one per call.
  v8::Global<v8::Object> callback_resource_;
  NetworkManager* network_ = nullptr;
  Agent* inspector_agent_ = nullptr;
  int run_function_depth_ = 0;

  uv_prepare_t async_callbacks_prepare_{};
  uv_prepare_cb drain_callback_ = nullptr;
  std::mutex async_callbacks_mutex_;
  std::deque<AsyncCallbackEntry> async_callbacks_;
  std::mutex network_queue_mutex_;
  std::deque<NetworkQueueEntry> network_queue_;
  std::map<int32_t, std::shared_ptr<TimerHandle>> timers_;
  int32_t next_timer_id_ = 0;
  std::unordered_map<std::string, std::shared_ptr<BareSocket>> bare_sockets_;
  // Modules run by this Vuser, by full path.
  std::unordered_map<std::string, v8::Global<v8::Value>> module_table_;

  // Script calls made so far, and what the idle check saw of them and of the heap.
  uint64_t script_calls_ = 0;
  uint64_t script_calls_at_check_ = 0;
  size_t heap_after_collection_ = 0;
  bool collected_while_idle_ = false;
  uv_timer_t idle_check_timer_{};

  ThreadComponent(uint32_t vuser_id, std::string script_path, std::string script_args)
      : vuser_id_(vuser_id),
        script_path_(std::move(script_path)),
        script_args_(std::move(script_args)) {}
  ThreadComponent(const ThreadComponent&) = delete;
  ThreadComponent& operator=(const ThreadComponent&) = delete;
};

// The Vuser of the isolate a script or libuv callback runs in; null on an isolate that is not a
// Vuser's. The one route to the current Vuser.
inline ThreadComponent* componentOf(v8::Isolate* isolate) {
  return static_cast<ThreadComponent*>(isolate->GetData(0));
}

// Any thread: asks the Vuser thread to look at its state and its run-function slot. A no-op while
// the Vuser's loop is not running; the thread looks at both when it opens its wake-up handle.
void wakeVuser(ThreadComponent& vuser);
// Vuser thread: opens the wake-up handle on the Vuser's loop, then wakes once for whatever came
// before; and closes it for good.
void openWake(ThreadComponent& vuser, uv_async_cb callback);
void closeWake(ThreadComponent& vuser);
// Main thread: ends the JavaScript that runs in the Vuser now. False when no isolate exists.
bool terminateScript(ThreadComponent& vuser);

// Closes a timer made with calloc, in any state, and forgets it: its owner holds the one pointer,
// so the close happens once. Its memory goes in the close callback.
void closeHeapTimer(uv_timer_t*& timer);

// Vuser thread: whether queued script calls are drained once per loop turn.
void resumeQueueDrain(ThreadComponent& vuser);
void pauseQueueDrain(ThreadComponent& vuser);

}  // namespace kesh
