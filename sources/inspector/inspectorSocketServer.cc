#include "inspector/inspectorSocketServer.h"

#include <netdb.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/check.h"
#include "services/KeshLogger.h"

namespace kesh {
namespace {

constexpr char kFaviconUrl[] = "https://nodejs.org/static/images/favicons/favicon.ico";
constexpr char kFrontendUrlPrefix[] =
    "chrome-devtools://devtools/bundled/inspector.html?experiments=true&v8only=true&ws=";
constexpr char kResponseHead[] =
    "HTTP/1.0 200 OK\r\n"
    "Content-Type: application/json; charset=UTF-8\r\n"
    "Cache-Control: no-cache\r\n"
    "Content-Length: %zu\r\n\r\n";

char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

void onAllocate(uv_handle_t*, size_t length, uv_buf_t* buf) {
  buf->base = new char[length];
  buf->len = length;
}

void onRead(uv_stream_t* stream, ssize_t nread, const uv_buf_t* buf) {
  SocketSession* session = SocketSession::From(static_cast<InspectorSocket*>(stream->data));
  if (nread > 0) {
    session->server_->delegate_->MessageReceived(
        session->id_, std::string(buf->base, static_cast<size_t>(nread)));
  } else {
    session->Close();
  }
  if (buf != nullptr) delete[] buf->base;
}

bool onHandshake(InspectorSocket* socket, HandshakeEvent event, const std::string& path) {
  return SocketSession::From(socket)->Handshake(event, path);
}

void onConnection(uv_stream_t* server_stream, int status) {
  if (status != 0) return;
  auto* server_socket = static_cast<ServerSocket*>(server_stream->data);
  InspectorSocketServer* server = server_socket->server_;
  auto* session = new SocketSession(server->next_session_id_++, server, server_socket->port_);
  server->http_sessions_[session->id_] = session;
  // On failure the close is under way and kHandshakeFailed frees the session.
  if (AcceptSocket(server_stream, &session->socket_, onHandshake) != 0) return;
  if (server->http_sessions_.size() > kMaxHttpSessions) {
    AbortHandshake(&session->socket_);
    return;
  }
  server->HttpSessionStarted(session);
}

void onHttpTimer(uv_timer_t* timer) {
  static_cast<InspectorSocketServer*>(timer->data)->CloseLateHttpSessions();
}

void freeServerSocket(uv_handle_t* handle) { delete static_cast<ServerSocket*>(handle->data); }

void onServerSocketClosed(uv_handle_t* handle) {
  auto* server_socket = static_cast<ServerSocket*>(handle->data);
  server_socket->server_->ServerSocketClosed(server_socket);
}

}  // namespace

SocketSession* SocketSession::From(InspectorSocket* socket) {
  return static_cast<SocketSession*>(socket->owner);
}

bool SocketSession::Handshake(HandshakeEvent event, const std::string& path) {
  // The query string, if any, stays part of the id.
  std::string id = path.empty() ? std::string() : path.substr(1);
  switch (event) {
    case HandshakeEvent::kHandshakeHttpGet:
      // An answer starts the time of the next request on this connection.
      http_deadline_ = uv_now(server_->loop_) + server_->http_timeout_ms_;
      return server_->HandleGetRequest(this, path);
    case HandshakeEvent::kHandshakeUpgrading:
      if (server_->TargetExists(id) && server_->delegate_->StartSession(id_, id)) {
        server_->connected_sessions_[id_] = this;
        KESH_CHECK(target_id_.empty());
        target_id_ = id;
        return true;
      }
      state_ = State::kDeclined;
      return false;
    case HandshakeEvent::kHandshakeUpgraded:
      KESH_CHECK(State::kHttp == state_);
      state_ = State::kWebSocket;
      server_->http_sessions_.erase(id_);
      if (StartFrameRead(&socket_, onAllocate, onRead) < 0) {
        // The socket is closing already; its close still has to end this session.
        state_ = State::kClosing;
        socket_.websocket_state->close_cb = CloseCallback;
      }
      return true;
    case HandshakeEvent::kHandshakeFailed:
      server_->TerminateSession(this);
      return false;
  }
  return false;
}

void SocketSession::Close() {
  KESH_CHECK(state_ != State::kClosing);
  state_ = State::kClosing;
  CloseSocket(&socket_, CloseCallback);
}

void SocketSession::CloseCallback(InspectorSocket* socket, int) {
  SocketSession* session = From(socket);
  KESH_CHECK(State::kClosing == session->state_);
  session->server_->TerminateSession(session);
}

InspectorSocketServer::InspectorSocketServer(SocketServerDelegate* delegate, uv_loop_t* loop,
                                             std::string host, int32_t port)
    : loop_(loop), delegate_(delegate), host_(std::move(host)), port_(port) {}

bool InspectorSocketServer::Start() {
  KESH_CHECK(state_ == ServerState::kNew);
  std::string port = std::to_string(port_);
  addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_flags = AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  uv_getaddrinfo_t request;
  int err = uv_getaddrinfo(loop_, &request, nullptr, host_.c_str(), port.c_str(), &hints);
  if (err < 0) {
    fprintf(stderr, "Unable to resolve \"%s\": %s\n", host_.c_str(), uv_strerror(err));
    return false;
  }
  for (addrinfo* address = request.addrinfo; address != nullptr; address = address->ai_next) {
    err = ListenOn(address->ai_addr);
  }
  uv_freeaddrinfo(request.addrinfo);
  if (server_sockets_.empty()) {
    fprintf(stderr, "Starting inspector on %s:%d failed: %s\n", host_.c_str(), port_,
            uv_strerror(err));
    fflush(stderr);
    return false;
  }
  KESH_CHECK(0 == uv_timer_init(loop_, &http_timer_));
  http_timer_.data = this;
  state_ = ServerState::kRunning;
  PrintReady();
  return true;
}

void InspectorSocketServer::HttpSessionStarted(SocketSession* session) {
  session->http_deadline_ = uv_now(loop_) + http_timeout_ms_;
  // A running timer is due no later than this newest deadline.
  if (!uv_is_active(reinterpret_cast<uv_handle_t*>(&http_timer_))) {
    uv_timer_start(&http_timer_, onHttpTimer, http_timeout_ms_, 0);
  }
}

void InspectorSocketServer::CloseLateHttpSessions() {
  uint64_t now = uv_now(loop_);
  uint64_t next = UINT64_MAX;
  for (auto& entry : http_sessions_) {
    SocketSession* session = entry.second;
    // A closing one leaves the map from its close callback; it must not re-arm the timer at once.
    if (session->socket_.closing) continue;
    if (session->http_deadline_ <= now) {
      AbortHandshake(&session->socket_);
    } else {
      next = std::min(next, session->http_deadline_);
    }
  }
  if (next != UINT64_MAX) uv_timer_start(&http_timer_, onHttpTimer, next - now, 0);
}

int InspectorSocketServer::ListenOn(const sockaddr* address) {
  auto* server_socket = new ServerSocket();
  server_socket->server_ = this;
  uv_tcp_t* server = &server_socket->tcp_;
  uv_loop_t* loop = loop_;
  KESH_CHECK(0 == uv_tcp_init(loop, server));
  server->data = server_socket;
  sockaddr_storage bound;
  memset(&bound, 0, sizeof(bound));
  memcpy(&bound, address,
         address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
  // With port 0 the first address picks the port; the other addresses of the host share it.
  if (port_ == 0 && !server_sockets_.empty()) {
    uint16_t chosen = htons(static_cast<uint16_t>(server_sockets_.front()->port_));
    if (bound.ss_family == AF_INET6) {
      reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port = chosen;
    } else {
      reinterpret_cast<sockaddr_in*>(&bound)->sin_port = chosen;
    }
  }
  int err = uv_tcp_bind(server, reinterpret_cast<const sockaddr*>(&bound), 0);
  if (err == 0) err = uv_listen(reinterpret_cast<uv_stream_t*>(server), 1, onConnection);
  if (err == 0) {
    sockaddr_storage name;
    int length = sizeof(name);
    err = uv_tcp_getsockname(server, reinterpret_cast<sockaddr*>(&name), &length);
    if (err == 0) {
      server_socket->port_ =
          ntohs(name.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&name)->sin6_port
                                           : reinterpret_cast<sockaddr_in*>(&name)->sin_port);
    }
  }
  if (err != 0) {
    uv_close(reinterpret_cast<uv_handle_t*>(server), freeServerSocket);
    return err;
  }
  server_sockets_.push_back(server_socket);
  return 0;
}

void InspectorSocketServer::Stop() {
  KESH_CHECK(state_ == ServerState::kRunning);
  state_ = ServerState::kStopping;
  // Nobody else would end a connection that is still in its HTTP phase, and it would keep the
  // loop alive for as long as its client liked.
  for (auto& entry : http_sessions_) AbortHandshake(&entry.second->socket_);
  uv_close(reinterpret_cast<uv_handle_t*>(&http_timer_), nullptr);
  for (ServerSocket* server_socket : server_sockets_) {
    uv_close(reinterpret_cast<uv_handle_t*>(&server_socket->tcp_), onServerSocketClosed);
  }
}

void InspectorSocketServer::ServerSocketClosed(ServerSocket* server_socket) {
  KESH_CHECK(state_ == ServerState::kStopping);
  server_sockets_.erase(std::find(server_sockets_.begin(), server_sockets_.end(), server_socket));
  delete server_socket;
  if (!server_sockets_.empty()) return;
  state_ = ServerState::kStopped;
  if (connected_sessions_.empty() && http_sessions_.empty()) delegate_->ServerDone();
}

void InspectorSocketServer::TerminateConnections() {
  for (auto& entry : connected_sessions_) {
    if (entry.second->state_ != SocketSession::State::kClosing) entry.second->Close();
  }
}

void InspectorSocketServer::Send(int32_t session_id, const std::string& message) {
  auto found = connected_sessions_.find(session_id);
  if (found != connected_sessions_.end()) {
    WriteSocket(&found->second->socket_, message.data(), message.size());
  }
}

int32_t InspectorSocketServer::Port() const {
  return server_sockets_.empty() ? -1 : server_sockets_.front()->port_;
}

void InspectorSocketServer::TerminateSession(SocketSession* session) {
  int32_t id = session->id_;
  bool was_connected = connected_sessions_.erase(id) > 0;
  http_sessions_.erase(id);
  if (was_connected) {
    delegate_->EndSession(id);
    if (connected_sessions_.empty() && state_ == ServerState::kRunning &&
        !server_sockets_.empty()) {
      PrintReady();
    }
  }
  delete session;
  // Every session is in one of the two maps until it ends here, so this comes exactly once.
  if (state_ == ServerState::kStopped && connected_sessions_.empty() && http_sessions_.empty()) {
    delegate_->ServerDone();
  }
}

void InspectorSocketServer::PrintReady() {
  for (const std::string& id : delegate_->GetTargetIds()) {
    KeshLogger::logf(LogLevel::kInfo, component::kKeshInspector, kNoVuser,
                     "Debugger listening on %", FormatWsAddress(host_, Port(), id, true));
  }
}

bool InspectorSocketServer::TargetExists(const std::string& id) {
  std::vector<std::string> ids = delegate_->GetTargetIds();
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

bool InspectorSocketServer::HandleGetRequest(SocketSession* session, const std::string& path) {
  const char* command = MatchPathSegment(path.c_str(), "/json");
  if (command == nullptr) return false;
  if (*command == '\0' || MatchPathSegment(command, "list") != nullptr) {
    SendListResponse(session);
    return true;
  }
  if (MatchPathSegment(command, "version") != nullptr) {
    SendHttpResponse(session, JsonObject({{"Browser", "kesh"}, {"Protocol-Version", "1.1"}}));
    return true;
  }
  const char* target = MatchPathSegment(command, "activate");
  if (target != nullptr && TargetExists(target)) {
    SendHttpResponse(session, "Target activated");
    return true;
  }
  return false;
}

void InspectorSocketServer::SendListResponse(SocketSession* session) {
  // The address the client reached us on, so the URLs work from where it stands.
  std::string host;
  sockaddr_storage name;
  int length = sizeof(name);
  if (uv_tcp_getsockname(&session->socket_.tcp, reinterpret_cast<sockaddr*>(&name), &length) == 0) {
    char text[65];
    int err = name.ss_family == AF_INET6
                  ? uv_ip6_name(reinterpret_cast<sockaddr_in6*>(&name), text, sizeof(text))
                  : uv_ip4_name(reinterpret_cast<sockaddr_in*>(&name), text, sizeof(text));
    if (err == 0) host = text;
  }
  std::vector<JsonPairs> targets;
  for (const std::string& id : delegate_->GetTargetIds()) {
    JsonPairs target;
    target["description"] = "node.js instance";
    target["faviconUrl"] = kFaviconUrl;
    target["id"] = id;
    target["title"] = EscapeJsonValue(delegate_->GetTargetTitle(id));
    target["type"] = "node";
    target["url"] = EscapeJsonValue(delegate_->GetTargetUrl(id));
    bool attached =
        std::any_of(connected_sessions_.begin(), connected_sessions_.end(),
                    [&id](const auto& entry) { return entry.second->target_id_ == id; });
    if (!attached) {
      target["devtoolsFrontendUrl"] =
          kFrontendUrlPrefix + FormatWsAddress(host, session->server_port_, id, false);
      target["webSocketDebuggerUrl"] = FormatWsAddress(host, session->server_port_, id, true);
    }
    targets.push_back(std::move(target));
  }
  SendHttpResponse(session, JsonList(targets));
}

void InspectorSocketServer::SendHttpResponse(SocketSession* session, const std::string& body) {
  char head[133];  // the longest length field still fits
  int length = snprintf(head, sizeof(head), kResponseHead, body.size());
  WriteSocket(&session->socket_, head, static_cast<size_t>(length));
  WriteSocket(&session->socket_, body.data(), body.size());
}

std::string JsonObject(const JsonPairs& pairs) {
  std::string out = "{\n";
  bool first = true;
  for (const auto& pair : pairs) {
    if (!first) out += ",\n";
    first = false;
    out += "  \"";
    out += pair.first;
    out += "\": \"";
    out += pair.second;
    out += '"';
  }
  out += "\n} ";
  return out;
}

std::string JsonList(const std::vector<JsonPairs>& objects) {
  std::string out = "[ ";
  for (size_t i = 0; i < objects.size(); ++i) {
    if (i > 0) out += ", ";
    out += JsonObject(objects[i]);
  }
  out += "]\n\n";
  return out;
}

std::string EscapeJsonValue(const std::string& text) {
  std::string out = text;
  std::replace_if(
      out.begin(), out.end(), [](char c) { return c == '"' || c == '\\'; }, '_');
  return out;
}

std::string FormatWsAddress(const std::string& host, int port, const std::string& target_id,
                            bool include_protocol) {
  std::string out = include_protocol ? "ws://" : "";
  bool bracketed = host.find(':') != std::string::npos;
  if (bracketed) out += '[';
  out += host;
  if (bracketed) out += ']';
  out += ':';
  out += std::to_string(port);
  out += '/';
  out += target_id;
  return out;
}

const char* MatchPathSegment(const char* path, const char* expected) {
  size_t length = strlen(expected);
  for (size_t i = 0; i < length; ++i) {
    if (lowerAscii(path[i]) != lowerAscii(expected[i])) return nullptr;  // stops at path's end
  }
  const char* rest = path + length;
  if (*rest == '\0') return rest;
  if (*rest == '/') return rest + 1;
  return nullptr;
}

}  // namespace kesh
