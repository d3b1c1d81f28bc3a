#pragma once

#include <uv.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "inspector/inspectorSocket.h"

// The debugger endpoint's listening side: binds the configured host and port, serves the "/json"
// discovery requests and hands upgraded connections to a delegate. Runs wholly on one loop.
namespace kesh {

// What the server asks of its owner; every call comes on the server's loop thread.
class SocketServerDelegate {
 public:
  virtual ~SocketServerDelegate() = default;
  // false declines the upgrade.
  virtual bool StartSession(int32_t session_id, const std::string& target_id) = 0;
  virtual void EndSession(int32_t session_id) = 0;
  virtual void MessageReceived(int32_t session_id, const std::string& message) = 0;
  virtual std::vector<std::string> GetTargetIds() = 0;
  virtual std::string GetTargetTitle(const std::string& id) = 0;
  virtual std::string GetTargetUrl(const std::string& id) = 0;
  // No listening socket and no connection is left.
  virtual void ServerDone() = 0;
};

enum class ServerState { kNew, kRunning, kStopping, kStopped };

class InspectorSocketServer;

struct ServerSocket {
  uv_tcp_t tcp_;
  InspectorSocketServer* server_ = nullptr;
  int32_t port_ = -1;
};

// One accepted connection, from the accept to its end.
struct SocketSession {
  enum class State { kHttp, kWebSocket, kClosing, kDeclined };

  int32_t id_;
  InspectorSocket socket_;
  InspectorSocketServer* server_;
  std::string target_id_;
  State state_ = State::kHttp;
  int32_t server_port_;
  uint64_t http_deadline_ = 0;  // loop time by which the next request must be complete

  SocketSession(int32_t id, InspectorSocketServer* server, int32_t server_port)
      : id_(id), server_(server), server_port_(server_port) {
    socket_.owner = this;
  }
  SocketSession(const SocketSession&) = delete;
  SocketSession& operator=(const SocketSession&) = delete;

  static SocketSession* From(InspectorSocket* socket);
  bool Handshake(HandshakeEvent event, const std::string& path);
  void Close();
  static void CloseCallback(InspectorSocket* socket, int status);
};

// Connections in their HTTP phase that one server keeps at a time; a further one is closed at
// once, without an answer.
constexpr size_t kMaxHttpSessions = 32;
// How long a connection in its HTTP phase may take to complete a request, counted from its
// accept or from its previous answer; a slower one is closed without an answer, so connections
// that send nothing cannot hold the places above for longer.
constexpr uint64_t kHttpRequestTimeoutMs = 10000;

class InspectorSocketServer {
 public:
  uv_loop_t* loop_;
  SocketServerDelegate* delegate_;
  std::string host_;
  int32_t port_;  // as configured; 0 lets the system choose
  std::vector<ServerSocket*> server_sockets_;
  // Sessions whose upgrade was accepted.
  std::map<int32_t, SocketSession*> connected_sessions_;
  int32_t next_session_id_ = 0;
  ServerState state_ = ServerState::kNew;
  // Sessions still in their HTTP phase: capped, timed, and closed when the server stops.
  std::map<int32_t, SocketSession*> http_sessions_;
  uint64_t http_timeout_ms_ = kHttpRequestTimeoutMs;  // tests shorten it
  // Due at the earliest deadline of the HTTP sessions; exists while the server runs.
  uv_timer_t http_timer_;

  InspectorSocketServer(SocketServerDelegate* delegate, uv_loop_t* loop, std::string host,
                        int32_t port);
  InspectorSocketServer(const InspectorSocketServer&) = delete;
  InspectorSocketServer& operator=(const InspectorSocketServer&) = delete;

  bool Start();
  void Stop();
  void TerminateConnections();
  void Send(int32_t session_id, const std::string& message);
  // The port of the first listening socket, -1 while there is none.
  int32_t Port() const;

  bool HandleGetRequest(SocketSession* session, const std::string& path);
  bool TargetExists(const std::string& id);
  void SendListResponse(SocketSession* session);
  void SendHttpResponse(SocketSession* session, const std::string& body);
  void PrintReady();
  void TerminateSession(SocketSession* session);
  int ListenOn(const sockaddr* address);
  void ServerSocketClosed(ServerSocket* server_socket);
  void HttpSessionStarted(SocketSession* session);
  void CloseLateHttpSessions();
};

// The pure pieces of the answers, exposed for tests.
using JsonPairs = std::map<std::string, std::string>;
std::string JsonObject(const JsonPairs& pairs);
std::string JsonList(const std::vector<JsonPairs>& objects);
// '"' and '\' become '_'; nothing else is touched.
std::string EscapeJsonValue(const std::string& text);
std::string FormatWsAddress(const std::string& host, int port, const std::string& target_id,
                            bool include_protocol);
// Past the segment (and its slash) when path starts with it, letters A-Z in any case;
// otherwise null.
const char* MatchPathSegment(const char* path, const char* expected);

}  // namespace kesh
