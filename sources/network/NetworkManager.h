#pragma once

#include <netinet/in.h>
#include <uv.h>
#include <v8.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "network/wireFormat.h"

namespace kesh {

struct KeshThread;
struct ThreadComponent;

// One message in either direction.
struct NetworkMessage {
  int32_t id = -1;  // -1 for a line that belongs to a bare socket
  std::string socket_id;
  std::string payload;  // freed once written
  bool written = false;
  bool is_sync = false;
  v8::Persistent<v8::Function> callback;
  std::string response;
  bool wait_for_response = true;

  // Releases the script's callback; only on the Vuser thread.
  ~NetworkMessage() { callback.Reset(); }
};

// One received line on its way to the script.
struct NetworkQueueEntry {
  std::shared_ptr<NetworkMessage> message;
  InternalMessageType type;
};

// An answer that no waiting message matches: dropped, not a failure.
class no_match_exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One per Vuser thread: its connection to the service and the messages waiting for answers.
struct NetworkManager {
  std::unordered_map<int32_t, std::shared_ptr<NetworkMessage>> pending_messages_;
  std::mutex pending_mutex_;
  KeshThread* vuser_thread_ = nullptr;
  ThreadComponent* thread_component_;
  uv_tcp_t tcp_{};
  uv_connect_t connect_req_{};
  uv_stream_t* stream_ = nullptr;
  std::atomic<bool> connected_{false};
  sockaddr_in address_{};
  int64_t port_ = 0;
  std::string host_;
  LineFramer framer_;
  std::unique_ptr<char[]> read_buffer_;  // kReadBufferSize bytes, made at the first read
  // The failure of a line read during a synchronous wait, for the waiting call to throw.
  v8::Persistent<v8::Value> sync_failure_;

  explicit NetworkManager(ThreadComponent* component);
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  std::shared_ptr<NetworkMessage> FindPendingMessage(int32_t id);
  // A connection stands and is not closing: a write has a stream to go to.
  bool writable() const {
    return connected_.load() && stream_ != nullptr &&
           !uv_is_closing(reinterpret_cast<const uv_handle_t*>(stream_));
  }
  void StopSyncWait();
  // Drops what still waits on this thread's script: on the Vuser thread, at its end.
  void releaseScriptValues();
};

// Behind the sending function's name when there is no connection to send on.
inline constexpr const char kNotConnected[] =
    ": not connected to Pelmare (call _initNetworking first, or again after the connection "
    "closed)";

// The manager of the Vuser thread that runs this code.
NetworkManager* currentNetworkManager();

// Reads the message id and the payload of a sending function; false, with the error logged and
// thrown, when either cannot be read.
bool readIdAndPayload(v8::Isolate* isolate, const v8::FunctionCallbackInfo<v8::Value>& info,
                      v8::TryCatch& tryCatch, const char* payloadError, int32_t* id,
                      std::string* payload);
// Throws the refusal and answers true when there is no connection to write to.
bool refuseWithoutConnection(v8::Isolate* isolate, NetworkManager* manager, const char* function);

std::shared_ptr<NetworkMessage> makeMessage(int32_t id, std::string payload, bool is_sync);

void InstallNetworkFunctions(ThreadComponent* component, v8::Local<v8::Object> target);
void OnMessage(NetworkManager* manager, std::string_view line);
void send_msg(NetworkManager* manager, const std::shared_ptr<NetworkMessage>& message);
void ProcessNetworkMessages(ThreadComponent* component);
void SendSyncEventLoopRunner(NetworkManager* manager,
                             const std::shared_ptr<NetworkMessage>& message);
void OnClose(uv_handle_t* handle);

// The script-side functions, each registered by InstallNetworkFunctions.
void InitNetworking(const v8::FunctionCallbackInfo<v8::Value>& info);
void ClearResponsePendingMessages(const v8::FunctionCallbackInfo<v8::Value>& info);
void Send(const v8::FunctionCallbackInfo<v8::Value>& info);
void SendSync(const v8::FunctionCallbackInfo<v8::Value>& info);
void SendSyncNoWait(const v8::FunctionCallbackInfo<v8::Value>& info);

}  // namespace kesh
