#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>

#include "inspector/base64.h"
#include "inspector/inspectorSocket.h"
#include "inspector/inspectorSocketServer.h"
#include "wsClientFrame.h"

namespace kesh {
namespace {

FrameResult decode(const std::string& bytes, std::string* payload = nullptr, int* used = nullptr) {
  bool compressed = false;
  std::vector<char> out;
  int consumed = 0;
  FrameResult result = DecodeFrame(bytes.data(), bytes.size(), &compressed, &out, &consumed);
  if (payload != nullptr) payload->assign(out.begin(), out.end());
  if (used != nullptr) *used = consumed;
  return compressed ? FrameResult::kFrameError : result;  // the socket treats both alike
}

TEST(InspectorCodec, Base64AcceptKeyAndJson) {
  const char* vectors[][2] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"\xFB\xFF\xBF", "+/+/"}};
  for (auto& v : vectors) {
    EXPECT_EQ(base64Encode(reinterpret_cast<const uint8_t*>(v[0]), strlen(v[0])), v[1]);
  }
  EXPECT_EQ(WebSocketAcceptKey("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
  EXPECT_EQ(JsonList({}), "[ ]\n\n");
  EXPECT_EQ(EscapeJsonValue("a\"b\\c\n'"), "a_b_c\n'");
}

TEST(InspectorCodec, EncodeUsesTheThreeLengthForms) {
  std::pair<size_t, std::string> cases[] = {{0, std::string("\x81\x00", 2)},
                                            {125, "\x81\x7D"},
                                            {126, std::string("\x81\x7E\x00\x7E", 4)},
                                            {65535, "\x81\x7E\xFF\xFF"},
                                            {65536, std::string("\x81\x7F\0\0\0\0\0\x01\0\0", 10)}};
  for (const auto& [length, head] : cases) {
    std::string payload(length, 'p');
    std::vector<char> frame = EncodeFrame(payload.data(), payload.size());
    EXPECT_EQ(std::string(frame.begin(), frame.end()), head + payload) << length;
  }
}

TEST(InspectorCodec, DecodeWaitsForWholeFramesAndRefusesTheRest) {
  for (size_t n : {0, 125, 126, 65535, 65536}) {
    std::string payload(n, 'x');
    for (size_t i = 0; i < n; ++i) payload[i] = static_cast<char>(i * 7);
    std::string frame = clientFrame(0x81, payload), out;
    int used = 0;
    ASSERT_EQ(decode(frame + "next", &out, &used), FrameResult::kFrameOk) << n;
    EXPECT_EQ(out, payload);
    EXPECT_EQ(static_cast<size_t>(used), frame.size());
    for (size_t cut : {size_t(1), size_t(3), frame.size() - 1}) {
      EXPECT_EQ(decode(frame.substr(0, cut)), FrameResult::kFrameIncomplete) << n << "/" << cut;
    }
  }
  EXPECT_EQ(decode(clientFrame(0x88, "")), FrameResult::kFrameClose);
  std::string unmasked = clientFrame(0x81, "hi");
  unmasked[1] = 2;
  EXPECT_EQ(decode(unmasked), FrameResult::kFrameError);
  // Fragment, binary, continuation, ping, pong, reserved bits, compression.
  for (uint8_t first : {0x01, 0x82, 0x80, 0x89, 0x8A, 0xA1, 0x91, 0xC1}) {
    EXPECT_EQ(decode(clientFrame(first, "hi")), FrameResult::kFrameError) << int(first);
  }
  // Too long: refused as soon as the length field is in, without waiting for the payload.
  EXPECT_EQ(decode(std::string("\x81\xFF\0\0\0\0\x01\0\0\x01", 10)), FrameResult::kFrameError);
  EXPECT_EQ(decode(std::string("\x81\xFF\x80\0\0\0\0\0\0\0", 10)), FrameResult::kFrameError);
}

TEST(InspectorCodec, HostsThatNameAnAddressOrLocalhost) {
  for (const char* host : {"127.0.0.1:9229", " 10.1.2.3 \t", "LocalHost:80", "[::1]",
                           "[fe80::1:2]:1", "[::ffff:127.0.0.1]"}) {
    EXPECT_TRUE(IsAllowedHost(host)) << host;
  }
  for (const char* host :
       {"", "evil.example:9229", "localhost.evil.example", "127.0.0.1.evil.example",
        "localhost:", "localhost:92x9", "localhost:123456", "127.0.0.1:9229:1", "::1", "[::1",
        "[::1]x", "[localhost]", "[127.0.0.1]", "127.1", "0x7f.0.0.1", "localhost\x01"}) {
    EXPECT_FALSE(IsAllowedHost(host)) << host;
  }
  EXPECT_FALSE(IsAllowedHost(std::string("127.0.0.1\0.evil.example", 23)));
}

// The endpoint on a loop of the test's own thread, driven by plain non-blocking TCP clients: the
// loop turns only while a helper waits, so every step is ordered and byte-exact.
const std::string kKeyLine = "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
const std::string kRefusal =
    "HTTP/1.0 400 Bad Request\r\nContent-Type: text/html; charset=UTF-8\r\n\r\n"
    "WebSockets request was expected\r\n";
const std::function<bool()> kNever = [] { return false; };
bool runUntil(uv_loop_t* loop, const std::function<bool()>& done, int ms = 5000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    uv_run(loop, UV_RUN_NOWAIT);
    usleep(100);
  }
  return true;
}

std::string upgrade(const std::string& path, const std::string& keyLines = kKeyLine) {
  return "GET " + path +
         " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" +
         keyLines + "Sec-WebSocket-Version: 13\r\n\r\n";
}

std::string switching(const std::string& accept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=") {
  std::string head = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n";
  return head + "Connection: Upgrade\r\nSec-WebSocket-Accept: " + accept + "\r\n\r\n";
}

std::string answer(const std::string& body) {
  return "HTTP/1.0 200 OK\r\nContent-Type: application/json; charset=UTF-8\r\n"
         "Cache-Control: no-cache\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string kVersion =
    answer("{\n  \"Browser\": \"kesh\",\n  \"Protocol-Version\": \"1.1\"\n} ");

std::string listBody(const std::string& title, const std::string& host, int port, bool free) {
  std::string at = host + ":" + std::to_string(port) + "/T1";
  std::string front =
      "chrome-devtools://devtools/bundled/inspector.html?experiments=true&v8only=true";
  return "[ {\n  \"description\": \"node.js instance\",\n" +
         (free ? "  \"devtoolsFrontendUrl\": \"" + front + "&ws=" + at + "\",\n" : "") +
         "  \"faviconUrl\": \"https://nodejs.org/static/images/favicons/favicon.ico\",\n" +
         "  \"id\": \"T1\",\n  \"title\": \"" + title +
         "\",\n  \"type\": \"node\",\n  \"url\": \"file:///s/main.js\"" +
         (free ? ",\n  \"webSocketDebuggerUrl\": \"ws://" + at + "\"" : "") + "\n} ]\n\n";
}

struct Client {
  uv_loop_t* loop;
  int fd;
  std::string in;
  bool eof = false;

  Client(uv_loop_t* loop, int port, bool v6 = false) : loop(loop) {
    fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in a4{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_in6 a6{AF_INET6, htons(port), 0, in6addr_loopback, 0};
    connect(fd, v6 ? reinterpret_cast<sockaddr*>(&a6) : reinterpret_cast<sockaddr*>(&a4),
            v6 ? sizeof(a6) : sizeof(a4));
    runUntil(loop, [&] {
      pollfd p{fd, POLLOUT, 0};
      return poll(&p, 1, 0) == 1;
    });
    uv_run(loop, UV_RUN_NOWAIT);  // accepted before the next client: a backlog of 1 drops SYNs
  }
  ~Client() { close(fd); }

  void send(const std::string& bytes) {
    size_t sent = 0;
    runUntil(loop, [&] {
      ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      sent += n > 0 ? n : 0;
      return sent == bytes.size() || (n < 0 && errno != EAGAIN);
    });
  }
  void fill(const std::function<bool()>& enough) {
    runUntil(loop, [&] {
      char block[65536];
      ssize_t got;
      while ((got = recv(fd, block, sizeof(block), 0)) > 0) in.append(block, got);
      eof = eof || got == 0;
      return eof || enough();
    });
  }
  std::string take(size_t n) {
    fill([&] { return in.size() >= n; });
    std::string out = in.substr(0, n);
    in.erase(0, out.size());
    return out;
  }
  bool ended() {
    fill(kNever);
    return eof;
  }
  bool hangUp() {
    shutdown(fd, SHUT_WR);
    return ended();
  }
  // One answer: a 200 answer has its length in the head, a refusal ends the stream.
  std::string get(const std::string& path) {
    send("GET " + path + " HTTP/1.1\r\nHost: localhost:9229\r\n\r\n");
    fill([&] { return in.find("\r\n\r\n") != std::string::npos; });
    size_t end = in.find("\r\n\r\n"), field = in.find("Content-Length: ");
    if (end == std::string::npos || field > end) return take(SIZE_MAX);
    return take(end + 4 + std::stoul(in.substr(field + 16)));
  }
  bool attach() {
    send(upgrade("/T1"));
    return take(switching().size()) == switching();
  }
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
  std::vector<std::string> events{""};  // "start id target", "end id", "message id text"
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

class InspectorServer : public testing::Test {
 protected:
  uv_loop_t loop_;
  Delegate delegate_;
  std::unique_ptr<InspectorSocketServer> server_;
  int port_ = 0;

  void SetUp() override { ASSERT_EQ(uv_loop_init(&loop_), 0); }
  void TearDown() override {
    if (server_->state_ == ServerState::kRunning) {
      server_->TerminateConnections();
      server_->Stop();
    }
    // The clients went with the test body: every session ends, then the loop runs dry.
    EXPECT_TRUE(runUntil(&loop_, [&] { return uv_loop_alive(&loop_) == 0; }));
    EXPECT_EQ(delegate_.done, 1);
    EXPECT_EQ(uv_loop_close(&loop_), 0);
  }
  void start(const char* host = "127.0.0.1") {
    server_ = std::make_unique<InspectorSocketServer>(&delegate_, &loop_, host, 0);
    ASSERT_TRUE(server_->Start());
    port_ = server_->Port();
  }
  bool until(const std::string& lastEvent) {
    return runUntil(&loop_, [&] { return delegate_.events.back() == lastEvent; });
  }
  void settle(int ms = 30) { runUntil(&loop_, kNever, ms); }
  // Sends the parts one read each.
  void sendSplit(Client& client, std::initializer_list<std::string> parts) {
    for (const std::string& part : parts) {
      client.send(part);
      settle();
    }
  }
};

TEST_F(InspectorServer, RefusalsAnswer400AndCloseAndOnlyAddressesOrLocalhostAreServed) {
  testing::internal::CaptureStdout();
  start();
  {
    Client quiet(&loop_, port_);
    EXPECT_TRUE(quiet.hangUp());
    EXPECT_EQ(quiet.in, "");
  }
  std::vector<std::string> refused = {
      upgrade("/T1", ""),  // no key
      upgrade("/T1", "Sec-WebSocket-Keys: x\r\n"),
      "POST /T1 HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" + kKeyLine + "\r\n",
      upgrade("/T2"),      // no such target
      upgrade("/T1?x=1"),  // the query is part of the id
      "NONSENSE\r\n\r\n",
      "GET /" + std::string(kMaxHttpHeadBytes, 'a') + " HTTP/1.1\r\n\r\n",
      // Parsed on, the next path would extend this one to "/json/activate/T1".
      "GET /json/activate HTTP/1.1\r\nHost: [::1]\r\n\r\nGET /T1 HTTP/1.1\r\n\r\n",
  };
  for (const char* head :
       {"Host: evil.example\r\n", "", "Host: 127.0.0.1\r\nHost: x.example\r\n"}) {
    refused.push_back("GET /json/list HTTP/1.1\r\n" + std::string(head) + "\r\n");
    refused.push_back("GET /T1 HTTP/1.1\r\n" + std::string(head) +
                      "Upgrade: websocket\r\nConnection: Upgrade\r\n" + kKeyLine + "\r\n");
  }
  for (const std::string& request : refused) {
    Client client(&loop_, port_);
    client.send(request + "GET /json HTTP/1.1\r\n\r\n");  // no answer behind a refusal
    EXPECT_EQ(client.take(1000), kRefusal) << request.substr(0, 60);
    EXPECT_TRUE(client.eof);
  }
  EXPECT_EQ(delegate_.events.size(), 1u);  // no session started
  // Served, also with the header split across reads and a connection that asks twice.
  Client client(&loop_, port_);
  sendSplit(client, {"GET /json/version HTTP/1.1\r\nHo", "st: loc", "alhost\r\n\r\n"});
  EXPECT_EQ(client.take(kVersion.size()), kVersion);
  client.send("GET /json/version HTTP/1.0\r\nHost: 127.0.0.1:" + std::to_string(port_) +
              "\r\n\r\n");
  EXPECT_EQ(client.take(kVersion.size()), kVersion);
  client.send("GET /json/version HTTP/1.1\r\nHost: evil.example\r\n\r\n");
  EXPECT_EQ(client.take(1000), kRefusal);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("[Warning]: KeshInspector - "), std::string::npos) << out;
  for (const char* line : {"refused a request for host \"evil.example\": only an IP address or "
                           "localhost is served\n",
                           "refused a request without a Host header\n",
                           "refused a request with several Host headers\n"}) {
    EXPECT_NE(out.find(line), std::string::npos) << line;
  }
}

TEST_F(InspectorServer, KeyHeaderInAnyCaseSplitOrRepeated) {
  start();
  for (const char* name : {"sec-websocket-key", "SEC-WEBSOCKET-KEY"}) {
    Client client(&loop_, port_);
    std::string request = upgrade("/T1", std::string(name) + ": dGhlIHNhbXBsZSBub25jZQ==\r\n");
    size_t cut = request.find(name) + 5;  // inside the name, then inside the value
    sendSplit(client, {request.substr(0, cut), request.substr(cut, 20), request.substr(cut + 20)});
    EXPECT_EQ(client.take(switching().size()), switching()) << name;
    EXPECT_TRUE(client.hangUp());
    EXPECT_TRUE(runUntil(&loop_, [&] { return !delegate_.connected; }));
  }
  Client twoKeys(&loop_, port_);
  twoKeys.send(upgrade("/T1", kKeyLine + "sec-websocket-key: x3JJHMbDL1EzLkh9GBhXDw==\r\n"));
  std::string both = switching("hXV7YrtQrRxZW0XiHg/+5ajpjIA=");
  EXPECT_EQ(twoKeys.take(both.size()), both);
}

TEST_F(InspectorServer, DiscoveryRoutesAndTheListAnswer) {
  delegate_.title = "C:\\x\\\"q\".js";
  testing::internal::CaptureStdout();
  start();
  std::string free = answer(listBody("C:_x__q_.js", "127.0.0.1", port_, true));
  Client asking(&loop_, port_);
  for (const char* path : {"/json", "/JSON/", "/json/list", "/Json/List/x"}) {
    EXPECT_EQ(asking.get(path), free) << path;
  }
  EXPECT_EQ(asking.get("/json/activate/T1"), answer("Target activated"));
  for (const char* path : {"/jsonx", "/json?a", "/json/activate", "/json/activate/t1", "/"}) {
    EXPECT_EQ(Client(&loop_, port_).get(path), kRefusal) << path;
  }
  {
    Client first(&loop_, port_);
    ASSERT_TRUE(first.attach());
    EXPECT_EQ(asking.get("/json"), answer(listBody("C:_x__q_.js", "127.0.0.1", port_, false)));
    Client second(&loop_, port_);
    second.send(upgrade("/T1"));
    EXPECT_EQ(second.take(1000), kRefusal);
    first.send(clientFrame(0x81, "still here"));
    EXPECT_TRUE(until("message 6 still here"));
  }
  EXPECT_TRUE(until("end 6"));
  std::string out = testing::internal::GetCapturedStdout();
  std::string ready = "Debugger listening on ws://127.0.0.1:" + std::to_string(port_) + "/T1\n";
  EXPECT_NE(out.find(ready, out.find(ready) + 1), std::string::npos) << out;  // twice
}

TEST_F(InspectorServer, FramesBothWays) {
  start();
  Client client(&loop_, port_);
  ASSERT_TRUE(client.attach());
  for (char c : clientFrame(0x81, "byte by byte")) {
    EXPECT_EQ(delegate_.events.back(), "start 0 T1");
    client.send(std::string(1, c));
    settle();
  }
  EXPECT_EQ(delegate_.events.back(), "message 0 byte by byte");
  client.send(clientFrame(0x81, "one") + clientFrame(0x81, "two"));
  EXPECT_TRUE(until("message 0 two"));
  EXPECT_EQ(delegate_.events.end()[-2], "message 0 one");
  for (size_t n : {125, 126, 65535, 65536}) {
    std::string payload(n, static_cast<char>('a' + n % 26));
    client.send(clientFrame(0x81, payload));
    EXPECT_TRUE(until("message 0 " + payload)) << n;
    server_->Send(0, payload);
    EXPECT_EQ(client.frame(), std::make_pair(0x81, payload)) << n;
  }
  // An empty text frame reads like a close: the session ends.
  client.send(clientFrame(0x81, ""));
  EXPECT_EQ(client.frame().first, 0x88);
  client.send(clientFrame(0x88, ""));
  EXPECT_TRUE(client.ended());
  EXPECT_EQ(delegate_.events.back(), "end 0");
  Client other(&loop_, port_);
  ASSERT_TRUE(other.attach());
  std::string unmasked = clientFrame(0x81, "hi");
  unmasked[1] = 2;
  other.send(unmasked);
  EXPECT_TRUE(other.ended());
  EXPECT_TRUE(until("end 1"));
}

TEST_F(InspectorServer, CloseHandshakeAndAPeerThatEndsMeanwhile) {
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
    EXPECT_EQ(delegate_.events, (std::vector<std::string>{"", "start 0 T1", "end 0"}));
  }
  // Our close frame waits behind a message the peer has not read when the peer ends.
  Client client(&loop_, port_);
  ASSERT_TRUE(client.attach());
  std::string big(32 * 1024 * 1024, 'b');  // more than the kernel buffers hold
  server_->Send(1, big);
  server_->TerminateConnections();
  shutdown(client.fd, SHUT_WR);
  settle();
  EXPECT_EQ(client.frame().second.size(), big.size());
  EXPECT_EQ(client.frame().first, 0x88);
  EXPECT_TRUE(client.ended());
  EXPECT_TRUE(until("end 1"));
}

TEST_F(InspectorServer, StopEndsHttpConnectionsAndServerDoneComesOnce) {
  start();
  auto attached = std::make_unique<Client>(&loop_, port_);
  ASSERT_TRUE(attached->attach());
  std::vector<std::unique_ptr<Client>> idle;
  for (int i = 0; i < 3; ++i) idle.push_back(std::make_unique<Client>(&loop_, port_));
  idle[0]->send("GET /json HTTP/1.1\r\n");  // half a request
  server_->Stop();
  for (auto& client : idle) EXPECT_TRUE(client->ended());
  settle();
  EXPECT_EQ(delegate_.done, 0);  // the upgraded session lives on
  attached->send(clientFrame(0x81, "after stop"));
  EXPECT_TRUE(until("message 0 after stop"));
  attached.reset();
  EXPECT_TRUE(until("end 0"));
  EXPECT_EQ(delegate_.done, 1);
}

TEST_F(InspectorServer, ConnectionsThatDoNotCompleteARequestInTimeAreClosed) {
  start();
  server_->http_timeout_ms_ = 1000;
  auto started = std::chrono::steady_clock::now();
  auto elapsedMs = [&] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 started)
        .count();
  };
  std::vector<std::unique_ptr<Client>> idle;
  while (idle.size() < kMaxHttpSessions) idle.push_back(std::make_unique<Client>(&loop_, port_));
  idle[0]->send("GET /json HTTP/1.1\r\nHost: localhost\r\n");  // a head that never ends
  EXPECT_TRUE(Client(&loop_, port_).ended());                  // no place left
  for (auto& client : idle) EXPECT_TRUE(client->ended());
  EXPECT_GE(elapsedMs(), 900);
  EXPECT_LT(elapsedMs(), 3000);
  EXPECT_EQ(idle[1]->in, "");  // closed without an answer
  // Each answer starts the time again: three requests 600 ms apart outlive one time-out.
  Client asking(&loop_, port_);
  for (int i = 0; i < 3; ++i) {
    if (i > 0) settle(600);
    EXPECT_EQ(asking.get("/json/version"), kVersion) << i;
  }
  started = std::chrono::steady_clock::now();
  EXPECT_TRUE(asking.ended());
  EXPECT_GE(elapsedMs(), 900);
  // An upgraded session has no such time-out.
  Client attached(&loop_, port_);
  ASSERT_TRUE(attached.attach());
  settle(1300);
  attached.send(clientFrame(0x81, "late"));
  EXPECT_TRUE(until("message " + std::to_string(server_->next_session_id_ - 1) + " late"));
}

TEST_F(InspectorServer, Ipv6AndTheChosenPort) {
  testing::internal::CaptureStdout();
  start("::1");
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("listening on ws://[::1]:" + std::to_string(port_) + "/T1"),
            std::string::npos);
  EXPECT_EQ(Client(&loop_, port_, true).get("/json"),
            answer(listBody("main.js", "[::1]", port_, true)));
}

}  // namespace
}  // namespace kesh
