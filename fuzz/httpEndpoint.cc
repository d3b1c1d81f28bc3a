// The debugger endpoint against bytes a client could send: a real server on a loop of this
// thread, and per input one loopback connection that sends the input in writes of a size the
// input chooses (each also ending after a request head), then ends its side. Whatever came, the
// endpoint must answer only in its known forms, close the connection, and free every session before
// the next input. An upgrade is accepted for the target "T1", and text frames are echoed, so the
// WebSocket phase and writes are reached too.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "inspector/inspectorSocketServer.h"

namespace {

class EchoDelegate : public kesh::SocketServerDelegate {
 public:
  kesh::InspectorSocketServer* server = nullptr;
  bool connected = false;

  bool StartSession(int32_t, const std::string&) override {
    if (connected) return false;
    connected = true;
    return true;
  }
  void EndSession(int32_t) override { connected = false; }
  void MessageReceived(int32_t id, const std::string& message) override {
    server->Send(id, message);
  }
  std::vector<std::string> GetTargetIds() override { return {"T1"}; }
  std::string GetTargetTitle(const std::string&) override { return "fuzz.js"; }
  std::string GetTargetUrl(const std::string&) override { return "file:///fuzz.js"; }
  void ServerDone() override {}
};

struct Endpoint {
  uv_loop_t loop;
  EchoDelegate delegate;
  std::unique_ptr<kesh::InspectorSocketServer> server;
  uint32_t connections = 0;
};

Endpoint* endpoint = nullptr;

void fail(const char* what) {
  fprintf(stderr, "httpEndpoint: %s\n", what);
  __builtin_trap();
}

// Turns the loop until done() holds; a hang of the endpoint is a finding.
void pumpUntil(const std::function<bool()>& done, const char* what) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) fail(what);
    uv_run(&endpoint->loop, UV_RUN_NOWAIT);
  }
}

// What the client got so far; false once its stream has ended.
bool drain(int fd, std::string* answer) {
  char block[65536];
  for (;;) {
    ssize_t got = recv(fd, block, sizeof(block), 0);
    if (got > 0) {
      answer->append(block, static_cast<size_t>(got));
      continue;
    }
    return got < 0 && errno == EAGAIN;
  }
}

bool knownAnswer(const std::string& answer) {
  if (answer.empty()) return true;
  for (std::string_view head : {"HTTP/1.0 200 OK\r\n", "HTTP/1.1 101 Switching Protocols\r\n",
                                "HTTP/1.0 400 Bad Request\r\n"}) {
    if (answer.compare(0, head.size(), head) == 0) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The endpoint's log lines would drown libFuzzer's own, which go to standard error.
  int null = open("/dev/null", O_WRONLY);
  if (null < 0 || dup2(null, STDOUT_FILENO) < 0) abort();
  close(null);
  signal(SIGPIPE, SIG_IGN);  // libuv writes without MSG_NOSIGNAL
  endpoint = new Endpoint();
  if (uv_loop_init(&endpoint->loop) != 0) abort();
  endpoint->server = std::make_unique<kesh::InspectorSocketServer>(&endpoint->delegate,
                                                                   &endpoint->loop, "127.0.0.1", 0);
  endpoint->delegate.server = endpoint->server.get();
  if (!endpoint->server->Start()) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  kesh::InspectorSocketServer* server = endpoint->server.get();
  // The first byte picks the size of each write: 1 to 255 bytes, or 0 for all at once.
  size_t writeSize = data[0] == 0 ? size : data[0];
  std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (fd < 0) fail("no socket");
  // A source address of its own for each connection: closed connections wait in TIME_WAIT, and
  // one address would run out of ports within seconds.
  uint32_t host = 0x7F000000u | (endpoint->connections++ % 0xFFFFFEu + 1);
  sockaddr_in source{AF_INET, 0, {htonl(host)}, {}};
  sockaddr_in target{
      AF_INET, htons(static_cast<uint16_t>(server->Port())), {htonl(INADDR_LOOPBACK)}, {}};
  if (bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof(source)) != 0) fail("no bind");
  int32_t accepted = server->next_session_id_;
  connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof(target));
  // Accepted before the first write, so that each write is a read of its own on the other side.
  pumpUntil([&] { return server->next_session_id_ > accepted; }, "connection not accepted");

  std::string answer;
  bool open = true;
  for (size_t at = 0; at < bytes.size() && open;) {
    // A write also ends with a request head, as a client's upgrade waits for its answer before
    // the first frame: bytes that share a read with the upgrade are not taken as frames.
    std::string_view piece = bytes.substr(at, writeSize);
    size_t headEnd = piece.find("\r\n\r\n");
    if (headEnd != std::string_view::npos) piece = piece.substr(0, headEnd + 4);
    ssize_t sent = send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN) break;  // the endpoint has closed the connection
    if (sent > 0) at += static_cast<size_t>(sent);
    for (int turn = 0; turn < 2; ++turn) uv_run(&endpoint->loop, UV_RUN_NOWAIT);
    open = drain(fd, &answer);
  }
  shutdown(fd, SHUT_WR);
  pumpUntil(
      [&] {
        if (open) open = drain(fd, &answer);
        return !open && server->http_sessions_.empty() && server->connected_sessions_.empty();
      },
      "connection or session not ended after the client ended");
  close(fd);
  if (!knownAnswer(answer)) fail("an answer of unknown form");
  if (endpoint->delegate.connected) fail("a session outlived its connection");
  return 0;
}
