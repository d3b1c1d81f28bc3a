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
#include "vuser/enteredVuser.h"

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
  // Bytes of received lines charged to the Vuser's isolate and not yet given back. A second line
  // for the same id replaces `response` before the first is handled, so the give-back is this
  // count, not the length of what the message holds by then.
  int64_t charged = 0;
  bool wait_for_response = true;

  // Releases the script's callback; only on the Vuser thread.
  ~NetworkMessage() { callback.Reset(); }
};

// Gives back to the Vuser's isolate what the message's received lines were charged.
inline void giveBackCharge(v8::Isolate* isolate, NetworkMessage& message) {
  isolate->AdjustAmountOfExternalAllocatedMemory(-message.charged);
  message.charged = 0;
}

// An answer that no waiting message matches: dropped, not a failure.
class no_match_exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class ConnectionState { kClosed, kConnecting, kConnected, kClosing };

// One per Vuser thread: its connection to the service and the messages waiting for answers. The
// connection's faults are the Vuser's: a failed write, a reset or an end of stream close it,
// fail what waits on it, and a later _initNetworking connects again.
struct NetworkManager {
  std::unordered_map<int32_t, std::shared_ptr<NetworkMessage>> pending_messages_;
  std::mutex pending_mutex_;
  ThreadComponent* thread_component_;
  ConnectionState state_ = ConnectionState::kClosed;
  uv_tcp_t tcp_{};  // open unless state_ is kClosed; closed only by closeConnection
  uv_connect_t connect_req_{};
  sockaddr_in address_{};
  int64_t port_ = 0;
  std::string host_;
  LineFramer framer_;
  std::unique_ptr<char[]> read_buffer_;  // kReadBufferSize bytes, made at the first read
  // A blocking request waits in a nested loop while this is set.
  bool sync_waiting_ = false;
  // Why the wait of a blocking request ended without its answer: the record of a line that
  // failed, or the text of a connection that closed.
  v8::Global<v8::Value> sync_failure_;
  std::string sync_closed_;

  explicit NetworkManager(ThreadComponent* component) : thread_component_(component) {}
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  std::shared_ptr<NetworkMessage> FindPendingMessage(int32_t id);
  bool writable() const { return state_ == ConnectionState::kConnected; }
  // Ends the nested loop of a blocking request.
  void StopSyncWait();
  // Closes the connection for `cause`, logged as one Error line: a waiting blocking request
  // fails, waiting callbacks are dropped with a Warning line naming how many.
  void closeConnection(const std::string& cause);
  // Vuser thread, at its end: closes the connection and drops what waits on this thread's script.
  void release();
};

// Behind the sending function's name when there is no connection to send on.
inline constexpr const char kNotConnected[] =
    ": not connected to Pelmare (call _initNetworking first, or again after the connection "
    "closed)";

// A payload as the service receives it: the value's text in UTF-8, up to its first NUL. False
// when the value has no text (its conversion threw).
bool readPayload(EnteredVuser& here, v8::Local<v8::Value> value, std::string* payload);
// Reads the message id and the payload of a sending function; throws a ScriptError when either
// cannot be read.
void readIdAndPayload(EnteredVuser& here, const v8::FunctionCallbackInfo<v8::Value>& info,
                      const char* payloadError, int32_t* id, std::string* payload);
// The manager of the Vuser; throws the refusal when there is no connection to write to.
NetworkManager& connectedManager(EnteredVuser& here, const char* function);

std::shared_ptr<NetworkMessage> makeMessage(int32_t id, std::string payload, bool is_sync);

void InstallNetworkFunctions(ThreadComponent* component, v8::Local<v8::Object> target);
void OnMessage(NetworkManager* manager, std::string_view line);
// Writes the message; false, with the connection closed for the failure, when it cannot.
bool send_msg(NetworkManager* manager, const std::shared_ptr<NetworkMessage>& message);
void ProcessNetworkMessages(ThreadComponent* component);
void SendSyncEventLoopRunner(EnteredVuser& here, NetworkManager& manager,
                             const std::shared_ptr<NetworkMessage>& message);

// The script-side functions, each registered by InstallNetworkFunctions.

void ClearResponsePendingMessages(const v8::FunctionCallbackInfo<v8::Value>& info);
void Send(const v8::FunctionCallbackInfo<v8::Value>& info);
void SendSync(const v8::FunctionCallbackInfo<v8::Value>& info);
void SendSyncNoWait(const v8::FunctionCallbackInfo<v8::Value>& info);

}  // namespace kesh
