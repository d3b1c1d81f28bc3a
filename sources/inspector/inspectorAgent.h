#pragma once

#include <node.h>
#include <uv.h>
#include <v8.h>

#include <cstdint>
#include <memory>
#include <string>

#include "inspector/v8InspectorInterface.h"

// The debugger's presence on a Vuser thread: V8's inspector in the Vuser's isolate, a channel per
// attached client, and the IO thread for the network side. Vuser thread only.
namespace kesh {

class InspectorIo;
class InspectorSessionDelegate;
struct ThreadComponent;

constexpr int kContextGroupId = 1;

class InspectorChannel : public v8_inspector::V8Inspector::Channel {
 public:
  InspectorSessionDelegate* delegate_;
  std::unique_ptr<v8_inspector::V8InspectorSession> session_;

  InspectorChannel(v8_inspector::V8Inspector* inspector, InspectorSessionDelegate* delegate);
  ~InspectorChannel() override;
  void sendResponse(int callId, std::unique_ptr<v8_inspector::StringBuffer> message) override;
  void sendNotification(std::unique_ptr<v8_inspector::StringBuffer> message) override;
  void flushProtocolNotifications() override;
};

class InspectorClient : public v8_inspector::V8InspectorClient {
 public:
  v8::Isolate* isolate_;
  node::MultiIsolatePlatform* platform_;
  bool terminated_ = false;
  bool running_nested_loop_ = false;
  std::unique_ptr<v8_inspector::V8Inspector> inspector_;
  std::unique_ptr<InspectorChannel> channel_;  // while a client is attached

  InspectorClient(v8::Isolate* isolate, node::MultiIsolatePlatform* platform);
  ~InspectorClient() override;
  void runMessageLoopOnPause(int contextGroupId) override;
  void quitMessageLoopOnPause() override;
  v8::Local<v8::Context> ensureDefaultContextInGroup(int contextGroupId) override;

  void ReportContext(v8::Local<v8::Context> context, const std::string& name);
};

class Agent {
 public:
  v8::Isolate* isolate_ = nullptr;
  uv_loop_t* loop_ = nullptr;
  std::unique_ptr<InspectorClient> client_;
  std::unique_ptr<InspectorIo> io_;  // freed before client_
  node::MultiIsolatePlatform* platform_ = nullptr;
  std::string path_;
  std::string host_;
  int32_t port_;

  // The script name is not kept: Start brings its own.
  Agent(std::string host, int32_t port, const std::string& script_name);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Blocks until a client sent the run command; false when the server could not start, and
  // the agent is then good for nothing but being freed.
  bool Start(v8::Isolate* isolate, node::MultiIsolatePlatform* platform, const char* script_name,
             uv_loop_t* loop);
  void PauseOnNextStatement(const std::string& reason);
  void Connect(InspectorSessionDelegate* delegate);
  void Dispatch(const v8_inspector::StringView& message);
  void Disconnect();
  void Stop();
  InspectorIo* io() { return io_.get(); }

  // Offered to embedders of the agent; nothing in the add-on calls them.

  // The agent of the calling thread's isolate, or null once it is freed: what a late task or
  // interrupt reaches instead of a pointer of its own.
  static Agent* ForIsolate(v8::Isolate* isolate);
};

// Starts the debugger endpoint of a Vuser and holds the Vuser thread until a client sent the run
// command; the script then stops at its first statement. Null when the endpoint could not start:
// the error lines are out, and the script runs without a debugger.
std::unique_ptr<Agent> StartInspectorAgent(ThreadComponent* tc, const std::string& host,
                                           uint32_t port);

}  // namespace kesh
