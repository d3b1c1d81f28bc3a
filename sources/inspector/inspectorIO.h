#pragma once

#include <node.h>
#include <uv.h>
#include <v8.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "inspector/inspectorSocketServer.h"
#include "inspector/v8InspectorInterface.h"
#include "vuser/vuserState.h"

// The debugger's network side for one Vuser: a thread with a loop of its own runs the socket
// server, and two queues carry protocol messages between it and the Vuser thread, where V8's
// inspector lives.
namespace kesh {

class Agent;
class InspectorIo;

// From the IO thread to the Vuser thread.
enum class InspectorAction { kStartSession, kEndSession, kSendMessage };
// From the Vuser thread to the IO thread.
enum class TransportAction { kKill, kSendMessage, kStop };

template <typename Action>
using MessageQueue =
    std::deque<std::tuple<Action, int32_t, std::unique_ptr<v8_inspector::StringBuffer>>>;

// What a channel of the agent talks to.
class InspectorSessionDelegate {
 public:
  virtual ~InspectorSessionDelegate() = default;
  // Sleeps until the client has sent something; false ends the pause loop.
  virtual bool WaitForFrontendMessage() = 0;
  virtual void SendMessageToFrontend(const v8_inspector::StringView& message) = 0;
};

class IoSessionDelegate : public InspectorSessionDelegate {
 public:
  InspectorIo* io_;

  explicit IoSessionDelegate(InspectorIo* io) : io_(io) {}
  bool WaitForFrontendMessage() override;
  void SendMessageToFrontend(const v8_inspector::StringView& message) override;
};

// The server's view of the one target; lives on the IO thread's stack.
class InspectorIoDelegate : public SocketServerDelegate {
 public:
  InspectorIo* io_;
  std::atomic<bool> connected_{false};
  std::string script_name_;
  std::string script_path_;
  std::string target_id_;  // lives as long as the thread: a client may attach again
  bool waiting_;

  InspectorIoDelegate(InspectorIo* io, std::string script_path, std::string script_name,
                      bool wait_for_connect);
  bool StartSession(int32_t session_id, const std::string& target_id) override;
  void EndSession(int32_t session_id) override;
  void MessageReceived(int32_t session_id, const std::string& message) override;
  std::vector<std::string> GetTargetIds() override;
  std::string GetTargetTitle(const std::string& id) override;
  std::string GetTargetUrl(const std::string& id) override;
  void ServerDone() override;
};

class InspectorIo {
 public:
  enum class State { kNew, kAccepting, kConnected, kDone, kError, kShutDown };
  using MainThreadRequest = std::pair<uv_async_t, Agent*>;

  uv_thread_t thread_;
  uv_sem_t thread_start_sem_;
  // The state of the Vuser: one held by its debugger (waiting for the run command, or paused)
  // lets go once it is stopping, so that a stop always ends.
  const StateCell* stop_state_ = nullptr;
  bool stopRequested() const;
  std::atomic<InspectorIoDelegate*> delegate_{nullptr};
  State state_ = State::kNew;
  // On the IO loop; data is the server and this object while the server exists.
  uv_async_t thread_req_;
  // On the Vuser's loop; freed by its close callback, which may come after this object is gone.
  MainThreadRequest* main_thread_req_;
  std::unique_ptr<InspectorSessionDelegate> session_delegate_;
  node::MultiIsolatePlatform* platform_;
  v8::Isolate* isolate_;
  uv_loop_t* loop_;
  std::condition_variable incoming_cond_;
  std::mutex state_lock_;  // the two queues and io_loop_open_, nothing else
  MessageQueue<InspectorAction> incoming_queue_;
  MessageQueue<TransportAction> outgoing_queue_;
  MessageQueue<InspectorAction> dispatch_queue_;  // Vuser thread only
  bool dispatching_messages_ = false;
  int32_t session_id_ = 0;
  std::string script_name_;
  std::string host_;
  bool wait_for_connect_;
  int32_t port_;
  // Whether thread_req_ may be woken: false before the server runs and from ServerDone on, so
  // nothing is sent to a loop that is closing or closed.
  bool io_loop_open_ = false;
  // Under state_lock_: a client sent the run command, so the script may start.
  bool run_requested_ = false;
  bool thread_running_ = false;  // started and not yet joined; Vuser thread only
  // IO thread: ends the connections whose clients do not answer our close frame in time.
  uv_timer_t close_timer_;
  bool close_timer_started_ = false;

  InspectorIo(v8::Isolate* isolate, node::MultiIsolatePlatform* platform, std::string script_name,
              std::string host, int32_t port, bool wait_for_connect, uv_loop_t* loop, Agent* agent);
  ~InspectorIo();
  InspectorIo(const InspectorIo&) = delete;
  InspectorIo& operator=(const InspectorIo&) = delete;

  // Blocks until the server runs and, when waiting for a client, until one sent the run command;
  // messages are answered meanwhile. false when the server could not start.
  bool Start();
  void Stop();

  void DispatchMessages();
  void WaitForFrontendMessage();
  void Write(TransportAction action, int32_t session_id, const v8_inspector::StringView& message);
  // IO thread only.
  void PostIncomingMessage(InspectorAction action, int32_t session_id, const std::string& message);

  static void ThreadMain(void* io);
  static void MainThreadReqAsyncCb(uv_async_t* handle);
  static void IoThreadAsyncCb(uv_async_t* handle);
};

// A run of the foreground tasks of the isolate, or an interrupt, that finds the agent of this
// thread's isolate, if it still has one, and works off its queue.
class DispatchMessagesTask : public v8::Task {
 public:
  v8::Isolate* isolate_;
  explicit DispatchMessagesTask(v8::Isolate* isolate) : isolate_(isolate) {}
  void Run() override;
};

// Strict: false for text that is not well-formed UTF-8 (overlong forms, surrogates, beyond
// U+10FFFF, cut sequences).
bool Utf8ToUtf16(const std::string& text, std::u16string* out);
// 8-bit views are taken byte for byte; 16-bit views up to their first NUL. A lone surrogate
// becomes U+FFFD, so a message from V8 always reaches the client.
std::string Utf16ToUtf8(const v8_inspector::StringView& view);
v8_inspector::StringView ViewOf(const std::u16string& text);
// 36 characters, 00xx00xx-00xx-40xx-80xx-00xx00xx00xx, from eight random bytes.
std::string GenerateTargetId();

}  // namespace kesh
