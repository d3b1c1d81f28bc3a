#include "network/NetworkManager.h"

#include <cstring>
#include <string>

#include "network/bareSockets.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kNetworkManager;

NetworkManager& managerOf(uv_handle_t* handle) {
  return *static_cast<NetworkManager*>(handle->data);
}

// The end of every close of the connection, whoever began it.
void onTcpClosed(uv_handle_t* handle) {
  NetworkManager& manager = managerOf(handle);
  manager.state_ = ConnectionState::kClosed;
  KeshLogger::log(LogLevel::kDebug, kComponent, manager.thread_component_->vuser_id_,
                  "closing tcp connection");
}

void OnAlloc(uv_handle_t* handle, size_t, uv_buf_t* buf) {
  NetworkManager& manager = managerOf(handle);
  if (!manager.read_buffer_) manager.read_buffer_ = std::make_unique<char[]>(kReadBufferSize);
  *buf = uv_buf_init(manager.read_buffer_.get(), kReadBufferSize);
}

void OnRead(uv_stream_t* stream, ssize_t nread, const uv_buf_t*) {
  NetworkManager& manager = managerOf(reinterpret_cast<uv_handle_t*>(stream));
  uint32_t vuserId = manager.thread_component_->vuser_id_;
  if (nread == 0) return;
  if (nread < 0) {
    manager.closeConnection(nread == UV_EOF ? std::string("the service closed it")
                                            : std::string("read failed: ") +
                                                  uv_strerror(static_cast<int>(nread)));
    return;
  }
  manager.framer_.feed(
      std::string_view(manager.read_buffer_.get(), static_cast<size_t>(nread)),
      [&manager](std::string_view line) { OnMessage(&manager, line); },
      [vuserId](size_t length) {
        KeshLogger::logf(LogLevel::kError, kComponent, vuserId,
                         "dropped a received line of % bytes: longer than % bytes", length,
                         kMaxLineLength);
      });
}

void OnConnect(uv_connect_t* req, int status) {
  NetworkManager& manager = *static_cast<NetworkManager*>(req->data);
  uint32_t vuserId = manager.thread_component_->vuser_id_;
  if (status == UV_ECANCELED) return;  // closed while connecting
  if (status != 0) {
    KeshLogger::logf(LogLevel::kError, kComponent, vuserId, "failed connecting to Pelmare: %",
                     uv_strerror(status));
    // Nothing was sent yet: the handle goes quietly, and the caller goes on waiting.
    manager.state_ = ConnectionState::kClosing;
    uv_close(reinterpret_cast<uv_handle_t*>(&manager.tcp_), onTcpClosed);
    return;
  }
  KeshLogger::log(LogLevel::kDebug, kComponent, vuserId, "connected to Pelmare");
  manager.state_ = ConnectionState::kConnected;
  uv_read_start(reinterpret_cast<uv_stream_t*>(&manager.tcp_), OnAlloc, OnRead);
}

// The port and host of _initNetworking, checked: a bad one would only ever show as a connection
// that never stands, the script waiting until the Vuser is stopped.
sockaddr_in readAddress(EnteredVuser& here, const v8::FunctionCallbackInfo<v8::Value>& info,
                        NetworkManager& manager) {
  if (!info[0]->IsNumber()) {
    throw ScriptError(kComponent, "_initNetworking: the port must be a number");
  }
  manager.port_ = info[0]->IntegerValue(here.context()).FromMaybe(0);
  manager.host_ = utf8Text(here.isolate(), info[1]);
  if (manager.port_ < 1 || manager.port_ > 65535) {
    throw ScriptError(kComponent,
                      "_initNetworking: port out of range: " + std::to_string(manager.port_));
  }
  sockaddr_in address{};
  if (uv_ip4_addr(manager.host_.c_str(), static_cast<int>(manager.port_), &address) != 0) {
    throw ScriptError(kComponent,
                      "_initNetworking: the host must be a dotted IPv4 address: " + manager.host_);
  }
  return address;
}

void connect(NetworkManager& manager) {
  ThreadComponent& vuser = *manager.thread_component_;
  KESH_CHECK_EQ(uv_tcp_init(vuser.loop_, &manager.tcp_), 0);
  manager.tcp_.data = &manager;
  manager.connect_req_.data = &manager;
  manager.state_ = ConnectionState::kConnecting;
  int result = uv_tcp_connect(&manager.connect_req_, &manager.tcp_,
                              reinterpret_cast<const sockaddr*>(&manager.address_), OnConnect);
  if (result == 0) return;
  manager.state_ = ConnectionState::kClosing;
  uv_close(reinterpret_cast<uv_handle_t*>(&manager.tcp_), onTcpClosed);
  throw ScriptError(kComponent,
                    std::string("failed connecting to Pelmare: ") + uv_strerror(result));
}

// Turns of the loop until `done` or the Vuser stops. A stop used up by these turns must still end
// the loop that runs this script.
template <typename Done>
void waitOnLoop(EnteredVuser& here, Done done) {
  ThreadComponent& vuser = here.vuser();
  while (!done() && !isStopping(vuser.state_.get())) {
    uv_run(vuser.loop_, UV_RUN_ONCE);
  }
  if (isStopping(vuser.state_.get())) uv_stop(vuser.loop_);
}

void InitNetworking(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    NetworkManager& manager = *here.vuser().network_;
    manager.address_ = readAddress(here, info, manager);
    if (KeshLogger::produces(LogLevel::kTrace)) {
      KeshLogger::log(LogLevel::kTrace, kComponent, here.vuser().vuser_id_,
                      "init session at " + manager.host_ + ":" + std::to_string(manager.port_));
    }
    // A connection on its way out finishes closing before the next one is made.
    waitOnLoop(here, [&] { return manager.state_ != ConnectionState::kClosing; });
    if (manager.state_ == ConnectionState::kClosed) connect(manager);
    // A refused connection leaves the script here until the Vuser is stopped, without spinning.
    waitOnLoop(here, [&] { return manager.state_ == ConnectionState::kConnected; });
  });
}

}  // namespace

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
  sync_waiting_ = false;
  uv_stop(thread_component_->loop_);
}

void NetworkManager::closeConnection(const std::string& cause) {
  if (state_ != ConnectionState::kConnected && state_ != ConnectionState::kConnecting) return;
  state_ = ConnectionState::kClosing;
  uv_close(reinterpret_cast<uv_handle_t*>(&tcp_), onTcpClosed);
  uint32_t vuserId = thread_component_->vuser_id_;
  KeshLogger::logf(LogLevel::kError, kComponent, vuserId, "connection to Pelmare closed: %", cause);
  framer_.reset();
  size_t dropped = 0;
  std::unordered_map<int32_t, std::shared_ptr<NetworkMessage>> waiting;
  {
    std::lock_guard<std::mutex> lock(pending_mutex_);
    waiting.swap(pending_messages_);
  }
  for (const auto& [id, message] : waiting) dropped += message->is_sync ? 0 : 1;
  if (dropped > 0) {
    KeshLogger::logf(LogLevel::kWarning, kComponent, vuserId,
                     "% waiting request callback(s) dropped: the connection closed", dropped);
  }
  sync_closed_ = "connection to Pelmare closed: " + cause;
  if (sync_waiting_) StopSyncWait();
  EnteredVuser here(thread_component_->isolate_);  // the callbacks' handles go under the lock
  waiting.clear();
}

void NetworkManager::release() {
  if (state_ == ConnectionState::kConnected || state_ == ConnectionState::kConnecting) {
    state_ = ConnectionState::kClosing;
    uv_close(reinterpret_cast<uv_handle_t*>(&tcp_), onTcpClosed);
  }
  {
    std::lock_guard<std::mutex> lock(pending_mutex_);
    pending_messages_.clear();
  }
  {
    std::lock_guard<std::mutex> lock(thread_component_->network_queue_mutex_);
    thread_component_->network_queue_.clear();
  }
  sync_failure_.Reset();
}

std::shared_ptr<NetworkMessage> makeMessage(int32_t id, std::string payload, bool is_sync) {
  auto message = std::make_shared<NetworkMessage>();
  message->id = id;
  message->payload = std::move(payload);
  message->is_sync = is_sync;
  return message;
}

void InstallNetworkFunctions(ThreadComponent* component, v8::Local<v8::Object> target) {
  v8::Isolate* isolate = component->isolate_;
  v8::HandleScope scope(isolate);
  RegisterFunction(isolate, target, "_initNetworking", InitNetworking);
  RegisterFunction(isolate, target, "_clearResponsePendingMessages", ClearResponsePendingMessages);
  RegisterFunction(isolate, target, "_send", Send);
  RegisterFunction(isolate, target, "_sendSync", SendSync);
  RegisterFunction(isolate, target, "_sendSyncNoWait", SendSyncNoWait);
  InstallBareSocketFunctions(isolate, target);
}

}  // namespace kesh
