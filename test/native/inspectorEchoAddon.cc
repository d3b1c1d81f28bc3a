// Test-only add-on: the debugger endpoint on a thread and loop of its own, with a delegate that
// echoes every text message, so that a WebSocket client written elsewhere can be run against it.
// libuv and SHA1 resolve from the host process, as they will in the real add-on.
#include <node.h>
#include <uv.h>

#include <mutex>
#include <string>
#include <vector>

#include "inspector/inspectorSocketServer.h"

namespace {

struct Endpoint {
  uv_thread_t thread_;
  uv_sem_t started_;
  uv_loop_t loop_;
  uv_async_t stop_;
  kesh::InspectorSocketServer* server_ = nullptr;
  std::string host_;
  int32_t port_ = 0;
  int32_t bound_port_ = -1;
  std::mutex mutex_;
  std::vector<std::string> events_;

  void note(std::string event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
  }
};

Endpoint* endpoint = nullptr;

class EchoDelegate : public kesh::SocketServerDelegate {
 public:
  Endpoint* endpoint_;
  bool connected_ = false;

  explicit EchoDelegate(Endpoint* endpoint) : endpoint_(endpoint) {}
  bool StartSession(int32_t id, const std::string&) override {
    if (connected_) return false;
    connected_ = true;
    endpoint_->note("start " + std::to_string(id));
    return true;
  }
  void EndSession(int32_t id) override {
    connected_ = false;
    endpoint_->note("end " + std::to_string(id));
  }
  void MessageReceived(int32_t id, const std::string& message) override {
    endpoint_->note("message " + std::to_string(id) + " " + std::to_string(message.size()));
    endpoint_->server_->Send(id, message);
  }
  std::vector<std::string> GetTargetIds() override { return {"echo-target"}; }
  std::string GetTargetTitle(const std::string&) override { return "echo"; }
  std::string GetTargetUrl(const std::string&) override { return "file:///echo.js"; }
  void ServerDone() override {
    endpoint_->note("done");
    uv_close(reinterpret_cast<uv_handle_t*>(&endpoint_->stop_), nullptr);
  }
};

void onStop(uv_async_t* async) {
  auto* self = static_cast<Endpoint*>(async->data);
  self->server_->TerminateConnections();
  self->server_->Stop();
}

void threadMain(void* arg) {
  auto* self = static_cast<Endpoint*>(arg);
  uv_loop_init(&self->loop_);
  uv_async_init(&self->loop_, &self->stop_, onStop);
  self->stop_.data = self;
  EchoDelegate delegate(self);
  kesh::InspectorSocketServer server(&delegate, &self->loop_, self->host_, self->port_);
  self->server_ = &server;
  if (server.Start()) {
    self->bound_port_ = server.Port();
  } else {
    uv_close(reinterpret_cast<uv_handle_t*>(&self->stop_), nullptr);
  }
  uv_sem_post(&self->started_);
  uv_run(&self->loop_, UV_RUN_DEFAULT);
  uv_loop_close(&self->loop_);
}

// start(host, port): the bound port, or -1.
void start(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  endpoint = new Endpoint();
  endpoint->host_ = *v8::String::Utf8Value(isolate, info[0]);
  endpoint->port_ = info[1]->Int32Value(isolate->GetCurrentContext()).FromMaybe(0);
  uv_sem_init(&endpoint->started_, 0);
  uv_thread_create(&endpoint->thread_, threadMain, endpoint);
  uv_sem_wait(&endpoint->started_);
  info.GetReturnValue().Set(endpoint->bound_port_);
}

// Closes the sessions (close handshakes run while the caller's loop goes on) and the listener.
void requestStop(const v8::FunctionCallbackInfo<v8::Value>&) { uv_async_send(&endpoint->stop_); }

// Waits for the endpoint's thread and gives what its delegate heard.
void join(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  uv_thread_join(&endpoint->thread_);
  uv_sem_destroy(&endpoint->started_);
  v8::Local<v8::Array> events = v8::Array::New(isolate);
  for (uint32_t i = 0; i < endpoint->events_.size(); ++i) {
    events->Set(isolate->GetCurrentContext(), i,
                v8::String::NewFromUtf8(isolate, endpoint->events_[i].c_str()).ToLocalChecked())
        .Check();
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
