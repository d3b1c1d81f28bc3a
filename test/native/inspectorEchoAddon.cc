// Test-only add-on: the debugger endpoint on a thread and loop of its own, with a delegate that
// echoes every message, for a WebSocket client written elsewhere. libuv and SHA1 resolve from
// the host process, as in the real add-on.
#include <node.h>
#include <uv.h>

#include <string>
#include <vector>

#include "inspector/inspectorSocketServer.h"

namespace {

class EchoEndpoint : public kesh::SocketServerDelegate {
 public:
  uv_thread_t thread_;
  uv_sem_t started_;
  uv_loop_t loop_;
  uv_async_t stop_;
  kesh::InspectorSocketServer* server_ = nullptr;
  int32_t port_ = -1;
  bool connected_ = false;
  std::vector<std::string> events_;  // read by the main thread only after the join

  bool StartSession(int32_t, const std::string&) override {
    if (connected_) return false;
    connected_ = true;
    events_.push_back("start");
    return true;
  }
  void EndSession(int32_t) override {
    connected_ = false;
    events_.push_back("end");
  }
  void MessageReceived(int32_t id, const std::string& message) override {
    events_.push_back("message " + std::to_string(message.size()));
    server_->Send(id, message);
  }
  std::vector<std::string> GetTargetIds() override { return {"echo-target"}; }
  std::string GetTargetTitle(const std::string&) override { return "echo"; }
  std::string GetTargetUrl(const std::string&) override { return "file:///echo.js"; }
  void ServerDone() override {
    events_.push_back("done");
    uv_close(reinterpret_cast<uv_handle_t*>(&stop_), nullptr);
  }
};

EchoEndpoint* endpoint = nullptr;

void threadMain(void* arg) {
  auto* self = static_cast<EchoEndpoint*>(arg);
  uv_loop_init(&self->loop_);
  uv_async_init(&self->loop_, &self->stop_, [](uv_async_t* async) {
    auto* owner = static_cast<EchoEndpoint*>(async->data);
    owner->server_->TerminateConnections();
    owner->server_->Stop();
  });
  self->stop_.data = self;
  kesh::InspectorSocketServer server(self, &self->loop_, "127.0.0.1", self->port_);
  self->server_ = &server;
  bool started = server.Start();
  self->port_ = started ? server.Port() : -1;
  if (!started) uv_close(reinterpret_cast<uv_handle_t*>(&self->stop_), nullptr);
  uv_sem_post(&self->started_);
  uv_run(&self->loop_, UV_RUN_DEFAULT);
  uv_loop_close(&self->loop_);
}

// start(port): the bound port, or -1.
void start(const v8::FunctionCallbackInfo<v8::Value>& info) {
  endpoint = new EchoEndpoint();
  endpoint->port_ = info[0]->Int32Value(info.GetIsolate()->GetCurrentContext()).FromMaybe(0);
  uv_sem_init(&endpoint->started_, 0);
  uv_thread_create(&endpoint->thread_, threadMain, endpoint);
  uv_sem_wait(&endpoint->started_);
  info.GetReturnValue().Set(endpoint->port_);
}

// The close handshakes need the caller's loop to go on: stop asks, join waits.
void requestStop(const v8::FunctionCallbackInfo<v8::Value>&) { uv_async_send(&endpoint->stop_); }

void join(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  uv_thread_join(&endpoint->thread_);
  uv_sem_destroy(&endpoint->started_);
  v8::Local<v8::Array> events = v8::Array::New(isolate);
  for (uint32_t i = 0; i < endpoint->events_.size(); ++i) {
    v8::Local<v8::String> text =
        v8::String::NewFromUtf8(isolate, endpoint->events_[i].c_str()).ToLocalChecked();
    events->Set(isolate->GetCurrentContext(), i, text).Check();
  }
  delete endpoint;
  endpoint = nullptr;
  info.GetReturnValue().Set(events);
}

void init(v8::Local<v8::Object> exports) {
  NODE_SET_METHOD(exports, "start", start);
  NODE_SET_METHOD(exports, "requestStop", requestStop);
  NODE_SET_METHOD(exports, "join", join);
}

}  // namespace

NODE_MODULE(kesh_inspector_echo, init)
