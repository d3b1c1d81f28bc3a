// The endpoint on a loop of the test's own thread, driven by plain TCP clients on the loopback.
// The loop only turns while a helper waits, so every step is ordered and byte-exact.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>

#include "inspector/inspectorSocketServer.h"
#include "wsClientFrame.h"

namespace kesh {
namespace {

constexpr char kKey[] = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr char kAccept[] = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
constexpr char kRefusal[] =
    "HTTP/1.0 400 Bad Request\r\nContent-Type: text/html; charset=UTF-8\r\n\r\n"
    "WebSockets request was expected\r\n";
constexpr char kHead[] =
    "HTTP/1.0 200 OK\r\nContent-Type: application/json; charset=UTF-8\r\n"
    "Cache-Control: no-cache\r\nContent-Length: ";

bool runUntil(uv_loop_t* loop, const std::function<bool()>& done, int ms = 5000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    uv_run(loop, UV_RUN_NOWAIT);
    usleep(100);
  }
  return true;
}

std::string upgradeRequest(const std::string& path, const std::string& keyLines) {
  return "GET " + path + " HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" +
         keyLines + "Sec-WebSocket-Version: 13\r\n\r\n";
}

std::string switching(const std::string& accept) {
  return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Accept: " +
         accept + "\r\n\r\n";
}

struct Client {
  uv_loop_t* loop;
  int fd;
  std::string in;
  bool eof = false;

  // Non-blocking: the loop that must accept runs on this same thread.
  Client(uv_loop_t* loop, int port, bool v6 = false) : loop(loop) {
    fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in a4{};
    sockaddr_in6 a6{};
    a4.sin_family = AF_INET;
    a4.sin_port = htons(port);
    a4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a6.sin6_family = AF_INET6;
    a6.sin6_port = htons(port);
    a6.sin6_addr = in6addr_loopback;
    if (v6) {
      connect(fd, reinterpret_cast<sockaddr*>(&a6), sizeof(a6));
    } else {
      connect(fd, reinterpret_cast<sockaddr*>(&a4), sizeof(a4));
    }
    runUntil(loop, [&] {
      pollfd p{fd, POLLOUT, 0};
      return poll(&p, 1, 0) == 1;
    });
    // Accepted before the next client comes: a full backlog of 1 would drop that one's SYN.
    uv_run(loop, UV_RUN_NOWAIT);
  }
  ~Client() { close(fd); }

  void send(const std::string& bytes) {
    size_t sent = 0;
    runUntil(loop, [&] {
      ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n > 0) sent += n;
      return sent == bytes.size() || (n < 0 && errno != EAGAIN);
    });
  }
  void pump() {
    char block[65536];
    ssize_t n;
    while ((n = recv(fd, block, sizeof(block), 0)) > 0) in.append(block, n);
    if (n == 0) eof = true;
  }
  // n bytes, or fewer when the stream ends first.
  std::string take(size_t n) {
    runUntil(loop, [&] {
      pump();
      return in.size() >= n || eof;
    });
    std::string out = in.substr(0, n);
    in.erase(0, out.size());
    return out;
  }
  bool ended() {
    return runUntil(loop, [&] {
      pump();
      return eof;
    });
  }
  // One answer of the HTTP phase, head and body.
  std::string response() {
    size_t total = 0;
    runUntil(loop, [&] {
      pump();
      size_t head = in.find("\r\n\r\n");
      if (head == std::string::npos) return eof;
      size_t field = in.find("Content-Length: ");
      total = head + 4 + (field < head ? std::stoul(in.substr(field + 16)) : 0);
      return in.size() >= total;
    });
    return take(total ? total : in.size());
  }
  bool attach(const std::string& target = "/T1") {
    send(upgradeRequest(target, std::string("Sec-WebSocket-Key: ") + kKey + "\r\n"));
    return take(switching(kAccept).size()) == switching(kAccept);
  }
  // One frame of the server: its first byte and its payload.
  std::pair<int, std::string> frame() {
    std::string head = take(2);
    if (head.size() < 2) return {-1, ""};
    uint64_t n = static_cast<uint8_t>(head[1]);
    if (n >= 126) {
      std::string more = take(n == 126 ? 2 : 8);
      n = 0;
      for (char c : more) n = (n << 8) | static_cast<uint8_t>(c);
    }
    return {static_cast<uint8_t>(head[0]), take(n)};
  }
};

class Delegate : public SocketServerDelegate {
 public:
  std::vector<std::string> events;  // "start id target", "end id", "message id text"
  std::string title = "main.js";
  bool connected = false;
  int done = 0;

  bool StartSession(int32_t id, const std::string& target) override {
    if (connected) return false;
    connected = true;
    events.push_back("start " + std::to_string(id) + " " + target);
    return true;
  }
  void EndSession(int32_t id) override {
    connected = false;
    events.push_back("end " + std::to_string(id));
  }
  void MessageReceived(int32_t id, const std::string& message) override {
    events.push_back("message " + std::to_string(id) + " " + message);
  }
  std::vector<std::string> GetTargetIds() override { return {"T1"}; }
  std::string GetTargetTitle(const std::string&) override { return title; }
  std::string GetTargetUrl(const std::string&) override { return "file:///s/main.js"; }
  void ServerDone() override { ++done; }
};

std::string listBody(const std::string& title, const std::string& host, int port, bool free) {
  std::string address = host + ":" + std::to_string(port) + "/T1";
  std::string body = "[ {\n  \"description\": \"node.js instance\",\n";
  if (free) {
    body +=
        "  \"devtoolsFrontendUrl\": \"chrome-devtools://devtools/bundled/inspector.html?"
        "experiments=true&v8only=true&ws=" +
        address + "\",\n";
  }
  body +=
      "  \"faviconUrl\": \"https://nodejs.org/static/images/favicons/favicon.ico\",\n"
      "  \"id\": \"T1\",\n  \"title\": \"" +
      title + "\",\n  \"type\": \"node\",\n  \"url\": \"file:///s/main.js\"";
  if (free) body += ",\n  \"webSocketDebuggerUrl\": \"ws://" + address + "\"";
  return body + "\n} ]\n\n";
}

std::string answer(const std::string& body) {
  return kHead + std::to_string(body.size()) + "\r\n\r\n" + body;
}

class InspectorServer : public testing::Test {
 protected:
  uv_loop_t loop_;
  Delegate delegate_;
  std::unique_ptr<InspectorSocketServer> server_;
  int port_ = 0;

  void SetUp() override { ASSERT_EQ(uv_loop_init(&loop_), 0); }
  void TearDown() override {
    if (server_ != nullptr && server_->state_ == ServerState::kRunning) {
      server_->TerminateConnections();
      server_->Stop();
    }
    // The clients are gone with the test body: every session ends, then the loop runs dry.
    EXPECT_TRUE(runUntil(&loop_, [&] { return uv_loop_alive(&loop_) == 0; }));
    if (server_ != nullptr) {
      EXPECT_EQ(delegate_.done, 1);
    }
    EXPECT_EQ(uv_loop_close(&loop_), 0);
  }
  void start(const char* host = "127.0.0.1") {
    server_ = std::make_unique<InspectorSocketServer>(&delegate_, &loop_, host, 0);
    ASSERT_TRUE(server_->Start());
    port_ = server_->Port();
  }
  bool until(const std::function<bool()>& done) { return runUntil(&loop_, done); }
  void settle() {
    runUntil(
        &loop_, [] { return false; }, 30);
  }
  std::string get(Client& client, const std::string& path) {
    client.send("GET " + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
    return client.response();
  }
};

TEST_F(InspectorServer, HttpPhaseAnswersAndRefusals) {
  start();
  {
    Client quiet(&loop_, port_);
    shutdown(quiet.fd, SHUT_WR);
    EXPECT_TRUE(quiet.ended());
    EXPECT_EQ(quiet.in, "");
  }
  std::string key = std::string("Sec-WebSocket-Key: ") + kKey + "\r\n";
  const std::string refused[] = {
      upgradeRequest("/T1", ""),  // no key
      upgradeRequest("/T1", "Sec-WebSocket-Keys: " + std::string(kKey) + "\r\n"),
      "POST /T1 HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" + key + "\r\n",
      upgradeRequest("/T2", key),      // no such target
      upgradeRequest("/T1?x=1", key),  // the query is part of the id
      // Parsed on, the next request's path would extend this one to "/json/activate/T1".
      "GET /json/activate HTTP/1.1\r\n\r\nGET /T1 HTTP/1.1\r\n\r\n",
      "NONSENSE\r\n\r\n",
      "GET /" + std::string(kMaxHttpHeadBytes, 'a') + " HTTP/1.1\r\n\r\n",
  };
  for (const std::string& request : refused) {
    Client client(&loop_, port_);
    // A request behind the refused one in the same read gets no answer of its own.
    client.send(request + "GET /json HTTP/1.1\r\n\r\n");
    EXPECT_EQ(client.take(1000), kRefusal) << request.substr(0, 40);
    EXPECT_TRUE(client.eof);
  }
  EXPECT_TRUE(delegate_.events.empty());
  Client twice(&loop_, port_);
  twice.send("GET /json/version HTTP/1.0\r\n\r\nGET /json/version HTTP/1.1\r\n\r\n");
  std::string version = answer("{\n  \"Browser\": \"kesh\",\n  \"Protocol-Version\": \"1.1\"\n} ");
  EXPECT_EQ(twice.response(), version);
  EXPECT_EQ(twice.response(), version);
  EXPECT_EQ(get(twice, "/json/version"), version);
}

TEST_F(InspectorServer, KeyHeaderInAnyCaseSplitOrRepeated) {
  start();
  for (const char* name : {"sec-websocket-key", "SEC-WEBSOCKET-KEY", "Sec-WebSocket-Key"}) {
    Client client(&loop_, port_);
    std::string request = upgradeRequest("/T1", std::string(name) + ": " + kKey + "\r\n");
    size_t cut = request.find(name) + 5;  // inside the name, then inside the value
    client.send(request.substr(0, cut));
    settle();
    client.send(request.substr(cut, 20));
    settle();
    client.send(request.substr(cut + 20));
    EXPECT_EQ(client.take(switching(kAccept).size()), switching(kAccept)) << name;
    shutdown(client.fd, SHUT_WR);
    EXPECT_TRUE(client.ended());
    EXPECT_TRUE(until([&] { return !delegate_.connected; }));
  }
  Client twoKeys(&loop_, port_);
  twoKeys.send(upgradeRequest("/T1", std::string("Sec-WebSocket-Key: ") + kKey +
                                         "\r\nsec-websocket-key: x3JJHMbDL1EzLkh9GBhXDw==\r\n"));
  std::string both = switching("hXV7YrtQrRxZW0XiHg/+5ajpjIA=");
  EXPECT_EQ(twoKeys.take(both.size()), both);
  EXPECT_EQ(delegate_.events[0], "start 0 T1");  // ids count every connection
  EXPECT_EQ(delegate_.events.back(), "start 3 T1");
}

TEST_F(InspectorServer, DiscoveryRoutes) {
  start();
  std::string list = answer(listBody("main.js", "127.0.0.1", port_, true));
  Client client(&loop_, port_);
  for (const char* path : {"/json", "/JSON/", "/json/list", "/Json/List/x"}) {
    EXPECT_EQ(get(client, path), list) << path;
  }
  EXPECT_EQ(get(client, "/json/activate/T1"), answer("Target activated"));
  for (const char* path :
       {"/jsonx", "/json?a", "/json/activate", "/json/activate/t1", "/json/x", "/", "/T1"}) {
    Client refused(&loop_, port_);
    refused.send("GET " + std::string(path) + " HTTP/1.1\r\n\r\n");
    EXPECT_EQ(refused.take(1000), kRefusal) << path;
  }
}

TEST_F(InspectorServer, ListFollowsTitlesAndSessions) {
  delegate_.title = "C:\\x\\\"quoted\".js";
  testing::internal::CaptureStdout();
  start();
  std::string ready = "Debugger listening on ws://127.0.0.1:" + std::to_string(port_) + "/T1\n";
  Client asking(&loop_, port_);
  EXPECT_EQ(get(asking, "/json/list"),
            answer(listBody("C:_x__quoted_.js", "127.0.0.1", port_, true)));
  {
    Client first(&loop_, port_);
    ASSERT_TRUE(first.attach());
    EXPECT_EQ(get(asking, "/json"),
              answer(listBody("C:_x__quoted_.js", "127.0.0.1", port_, false)));
    Client second(&loop_, port_);
    second.send(upgradeRequest("/T1", std::string("Sec-WebSocket-Key: ") + kKey + "\r\n"));
    EXPECT_EQ(second.take(1000), kRefusal);
    first.send(clientFrame(0x81, "still here"));
    EXPECT_TRUE(until([&] { return delegate_.events.back() == "message 1 still here"; }));
  }
  EXPECT_TRUE(until([&] { return delegate_.events.back() == "end 1"; }));
  std::string out = testing::internal::GetCapturedStdout();
  ASSERT_NE(out.find(ready), std::string::npos) << out;
  EXPECT_NE(out.find(ready, out.find(ready) + 1), std::string::npos) << out;  // logged again
}

TEST_F(InspectorServer, FramesFromAndToTheClient) {
  start();
  Client client(&loop_, port_);
  // A frame sent along with the upgrade request is lost with the request's read.
  client.send(upgradeRequest("/T1", std::string("Sec-WebSocket-Key: ") + kKey + "\r\n") +
              clientFrame(0x81, "early"));
  ASSERT_EQ(client.take(switching(kAccept).size()), switching(kAccept));
  std::string slow = clientFrame(0x81, "byte by byte");
  for (char c : slow) {
    EXPECT_EQ(delegate_.events.size(), 1u);
    client.send(std::string(1, c));
    settle();
  }
  client.send(clientFrame(0x81, "one") + clientFrame(0x81, "two"));
  EXPECT_TRUE(until([&] { return delegate_.events.size() == 4; }));
  EXPECT_EQ(delegate_.events[1], "message 0 byte by byte");
  EXPECT_EQ(delegate_.events[2], "message 0 one");
  EXPECT_EQ(delegate_.events[3], "message 0 two");
  for (size_t n : {125, 126, 65535, 65536}) {
    std::string payload(n, static_cast<char>('a' + n % 26));
    client.send(clientFrame(0x81, payload));
    EXPECT_TRUE(until([&] { return delegate_.events.size() == 5; })) << n;
    EXPECT_EQ(delegate_.events.back(), "message 0 " + payload);
    delegate_.events.pop_back();
    server_->Send(0, payload);
    EXPECT_EQ(client.frame(), std::make_pair(0x81, payload)) << n;
  }
  // An empty text frame reads like a close: the session ends.
  client.send(clientFrame(0x81, ""));
  EXPECT_EQ(client.frame().first, 0x88);
  client.send(clientFrame(0x88, ""));
  EXPECT_TRUE(client.ended());
  EXPECT_EQ(delegate_.events.back(), "end 0");
  // Unmasked, oversized, or compressed frames end the session too.
  std::string unmasked = clientFrame(0x81, "hi");
  unmasked[1] = 2;
  for (const std::string& bad :
       {unmasked, std::string("\x81\xFF\0\0\0\0\x01\0\0\x01", 10), clientFrame(0xC1, "z")}) {
    Client other(&loop_, port_);
    ASSERT_TRUE(other.attach());
    other.send(bad);
    EXPECT_TRUE(other.ended());
    EXPECT_TRUE(until([&] { return !delegate_.connected; }));
  }
}

TEST_F(InspectorServer, CloseHandshakeFromEitherSide) {
  start();
  {
    Client client(&loop_, port_);
    ASSERT_TRUE(client.attach());
    server_->TerminateConnections();
    EXPECT_EQ(client.frame(), std::make_pair(0x88, std::string()));
    client.send(clientFrame(0x81, "dropped"));
    settle();
    client.send(clientFrame(0x88, ""));
    EXPECT_TRUE(client.ended());
    EXPECT_EQ(delegate_.events, (std::vector<std::string>{"start 0 T1", "end 0"}));
  }
  {
    Client client(&loop_, port_);
    ASSERT_TRUE(client.attach());
    client.send(clientFrame(0x88, ""));
    EXPECT_EQ(client.frame().first, 0x88);
    EXPECT_TRUE(client.ended());
    EXPECT_EQ(delegate_.events.back(), "end 1");
  }
  // The peer ends while our close frame still waits behind a large message it has not read.
  Client client(&loop_, port_);
  ASSERT_TRUE(client.attach());
  std::string big(32 * 1024 * 1024, 'b');  // more than the kernel buffers hold
  server_->Send(2, big);
  server_->TerminateConnections();
  shutdown(client.fd, SHUT_WR);
  settle();
  auto frame = client.frame();
  EXPECT_EQ(frame.first, 0x81);
  EXPECT_EQ(frame.second.size(), big.size());
  EXPECT_EQ(client.frame().first, 0x88);
  EXPECT_TRUE(client.ended());
  EXPECT_TRUE(until([&] { return delegate_.events.back() == "end 2"; }));
}

TEST_F(InspectorServer, StopBoundsHttpConnectionsAndEndsOnce) {
  start();
  auto attached = std::make_unique<Client>(&loop_, port_);
  ASSERT_TRUE(attached->attach());  // a WebSocket does not count against the HTTP phase's cap
  std::vector<std::unique_ptr<Client>> idle;
  for (size_t i = 0; i < kMaxHttpSessions; ++i) {
    idle.push_back(std::make_unique<Client>(&loop_, port_));
  }
  EXPECT_TRUE(until([&] { return server_->http_sessions_.size() == kMaxHttpSessions; }));
  Client extra(&loop_, port_);
  EXPECT_TRUE(extra.ended());
  idle[0]->send("GET /json HTTP/1.1\r\n");  // half a request
  server_->Stop();
  for (auto& client : idle) EXPECT_TRUE(client->ended());
  settle();
  EXPECT_EQ(delegate_.done, 0);  // the WebSocket session is still there
  attached->send(clientFrame(0x81, "after stop"));
  EXPECT_TRUE(until([&] { return delegate_.events.back() == "message 0 after stop"; }));
  attached.reset();
  EXPECT_TRUE(until([&] { return delegate_.done == 1; }));
  EXPECT_EQ(delegate_.events.back(), "end 0");
}

TEST_F(InspectorServer, Ipv6AndChosenPort) {
  testing::internal::CaptureStdout();
  start("::1");
  std::string out = testing::internal::GetCapturedStdout();
  ASSERT_GT(port_, 0);
  EXPECT_NE(out.find("Debugger listening on ws://[::1]:" + std::to_string(port_) + "/T1"),
            std::string::npos);
  Client client(&loop_, port_, true);
  EXPECT_EQ(get(client, "/json"), answer(listBody("main.js", "[::1]", port_, true)));

  Delegate otherDelegate;
  InspectorSocketServer taken(&otherDelegate, &loop_, "::1", port_);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(taken.Start());
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "Starting inspector on ::1:" + std::to_string(port_) + " failed: address already in use\n");
}

}  // namespace
}  // namespace kesh
