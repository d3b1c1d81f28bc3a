#include "network/NetworkManager.h"

#include <cstring>
#include <string>

#include "network/bareSockets.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"
#include "thread/threadComponents.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kNetworkManager;

thread_local NetworkManager* current_network_manager = nullptr;

void OnAlloc(uv_handle_t* handle, size_t, uv_buf_t* buf) {
  auto* manager = static_cast<NetworkManager*>(handle->data);
  if (!manager->read_buffer_) manager->read_buffer_ = std::make_unique<char[]>(kReadBufferSize);
  *buf = uv_buf_init(manager->read_buffer_.get(), kReadBufferSize);
}

void OnRead(uv_stream_t* stream, ssize_t nread, const uv_buf_t*) {
  auto* manager = static_cast<NetworkManager*>(stream->data);
  uint32_t vuserId = manager->thread_component_->vuser_id_;
  if (nread == UV_EOF) {
    // The standing state is kept: waiting messages, sockets and a partial line stay as they are.
    uv_read_stop(stream);
    KeshLogger::log(LogLevel::kTrace, kComponent, vuserId, "OnRead received EOF from server");
    return;
  }
  if (nread == 0) return;
  if (nread < 0) {
    manager->framer_.reset();
    KeshLogger::logf(LogLevel::kError, kComponent, vuserId, "error reading message from stream: %",
                     uv_strerror(static_cast<int>(nread)));
    uv_read_stop(stream);
    auto* tcp = reinterpret_cast<uv_handle_t*>(&manager->tcp_);
    if (manager->connected_.load() && uv_is_active(tcp) && !uv_is_closing(tcp)) {
      uv_close(tcp, OnClose);
    }
    return;
  }
  manager->framer_.feed(
      std::string_view(manager->read_buffer_.get(), static_cast<size_t>(nread)),
      [manager](std::string_view line) { OnMessage(manager, line); },
      [vuserId](size_t length) {
        KeshLogger::logf(LogLevel::kError, kComponent, vuserId,
                         "dropped a received line of % bytes: longer than % bytes", length,
                         kMaxLineLength);
      });
}

void OnConnect(uv_connect_t* req, int status) {
  auto* manager = static_cast<NetworkManager*>(req->data);
  uint32_t vuserId = manager->thread_component_->vuser_id_;
  if (status != 0) {
    KeshLogger::logf(LogLevel::kError, kComponent, vuserId, "failed connecting to Pelmare: %",
                     uv_strerror(status));
    return;
  }
  KeshLogger::log(LogLevel::kDebug, kComponent, vuserId, "connected to Pelmare");
  manager->connected_.exchange(true);
  req->handle->data = manager;
  uv_read_start(req->handle, OnAlloc, OnRead);
  manager->stream_ = req->handle;
}

// The text of a refused _initNetworking, logged and thrown to the script.
void refuseInit(v8::Isolate* isolate, v8::TryCatch& tryCatch, const std::string& text) {
  LogAndThrowError(isolate, kComponent, "_initNetworking: " + text);
  tryCatch.ReThrow();
}

}  // namespace

NetworkManager::NetworkManager(ThreadComponent* component) : thread_component_(component) {
  current_network_manager = this;
}

NetworkManager* currentNetworkManager() { return current_network_manager; }

std::shared_ptr<NetworkMessage> NetworkManager::FindPendingMessage(int32_t id) {
  std::lock_guard<std::mutex> lock(pending_mutex_);
  auto found = pending_messages_.find(id);
  if (found == pending_messages_.end()) {
    throw no_match_exception("received message id [" + std::to_string(id) +
                             "] but it didn't match any outgoing message");
  }
  return found->second;
}

void NetworkManager::StopSyncWait() {
  thread_component_->sync_request_active_.exchange(false);
  uv_stop(thread_component_->loop_);
}

void NetworkManager::releaseScriptValues() {
  {
    std::lock_guard<std::mutex> lock(pending_mutex_);
    pending_messages_.clear();
  }
  {
    std::lock_guard<std::mutex> lock(thread_component_->network_queue_mutex_);
    thread_component_->network_queue_.clear();
  }
  sync_failure_.Reset();
  // Their destructors close the sockets' timers and release their script values.
  thread_component_->bare_sockets_.clear();
}

std::shared_ptr<NetworkMessage> makeMessage(int32_t id, std::string payload, bool is_sync) {
  auto message = std::make_shared<NetworkMessage>();
  message->id = id;
  message->payload = std::move(payload);
  message->is_sync = is_sync;
  return message;
}

void InitNetworking(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  NetworkManager* manager = currentNetworkManager();
  ThreadComponent* tc = manager->thread_component_;
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  // A bad address or port would only ever surface as a connection that never stands, and the
  // script would wait until the Vuser is stopped: refuse them here instead.
  if (!info[0]->IsNumber()) {
    refuseInit(isolate, tryCatch, "the port must be a number");
    return;
  }
  manager->port_ = info[0]->IntegerValue(context).FromMaybe(0);
  v8::String::Utf8Value host(isolate, info[1]);
  manager->host_ = *host != nullptr ? *host : "";
  if (manager->port_ < 1 || manager->port_ > 65535) {
    refuseInit(isolate, tryCatch, "port out of range: " + std::to_string(manager->port_));
    return;
  }
  sockaddr_in address{};
  if (uv_ip4_addr(manager->host_.c_str(), static_cast<int>(manager->port_), &address) != 0) {
    refuseInit(isolate, tryCatch, "the host must be a dotted IPv4 address: " + manager->host_);
    return;
  }
  manager->address_ = address;
  if (KeshLogger::produces(LogLevel::kTrace)) {
    KeshLogger::log(LogLevel::kTrace, kComponent, tc->vuser_id_,
                    "init session at " + manager->host_ + ":" + std::to_string(manager->port_));
  }
  if (!manager->connected_.load()) {
    if (uv_is_closing(reinterpret_cast<uv_handle_t*>(&manager->tcp_)) ||
        manager->tcp_.loop == nullptr) {
      // A fresh handle: the first call, or one made after the last connection closed.
      manager->tcp_ = uv_tcp_t{};
      uv_tcp_init(tc->loop_, &manager->tcp_);
    }
    manager->connect_req_.data = manager;
    int result = uv_tcp_connect(&manager->connect_req_, &manager->tcp_,
                                reinterpret_cast<const sockaddr*>(&manager->address_), OnConnect);
    if (result != 0) {
      std::string text = std::string("failed connecting to Pelmare: ") + uv_strerror(result);
      LogAndThrowError(isolate, kComponent, text);
      tryCatch.ReThrow();
      return;
    }
  }
  // Passes that wait for the loop's next event: a refused connection leaves the script here
  // until the Vuser is stopped, without spinning.
  while (!manager->connected_.load() && !tc->thread_stopping_.load()) {
    if (uv_run(tc->loop_, UV_RUN_ONCE) == 0 && !manager->connected_.load()) {
      LogAndThrowError(isolate, kComponent,
                       "There are no open handles / req in the Vuser event-loop after reset.");
      tryCatch.ReThrow();
      return;
    }
  }
  // A stop used up by these passes must still end the loop that runs this script.
  if (tc->thread_stopping_.load()) uv_stop(tc->loop_);
}

void OnClose(uv_handle_t* handle) {
  auto* manager = static_cast<NetworkManager*>(handle->data);
  if (manager == nullptr) manager = currentNetworkManager();
  KeshLogger::log(LogLevel::kDebug, kComponent, manager->thread_component_->vuser_id_,
                  "closing tcp connection");
  manager->connected_.exchange(false);
}

void InstallNetworkFunctions(ThreadComponent* component, v8::Local<v8::Object> target) {
  v8::Isolate* isolate = component->isolate_;
  isolateEnter(isolate);
  {
    v8::HandleScope scope(isolate);
    RegisterFunction(isolate, target, "_initNetworking", InitNetworking);
    RegisterFunction(isolate, target, "_clearResponsePendingMessages",
                     ClearResponsePendingMessages);
    RegisterFunction(isolate, target, "_send", Send);
    RegisterFunction(isolate, target, "_sendSync", SendSync);
    RegisterFunction(isolate, target, "_sendSyncNoWait", SendSyncNoWait);
    InstallBareSocketFunctions(isolate, target);
  }
  isolateLeave(isolate);
}

}  // namespace kesh
