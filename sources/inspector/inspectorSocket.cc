#include "inspector/inspectorSocket.h"

#include <arpa/inet.h>

#include <cstring>

#include "base/check.h"
#include "inspector/base64.h"
#include "services/KeshLogger.h"

// The host process exports OpenSSL's digest; the add-on links no libcrypto of its own, and a
// declaration of our own avoids the deprecation markers of the 3.x headers.
extern "C" unsigned char* SHA1(const unsigned char* data, size_t length, unsigned char* digest);

namespace kesh {
namespace {

constexpr char kWebSocketGuid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr char kKeyHeader[] = "Sec-WebSocket-Key";
constexpr char kHostHeader[] = "Host";
// Of a refused host name, the part the log line shows.
constexpr size_t kLoggedHostBytes = 80;
constexpr char kUpgradeHead[] =
    "HTTP/1.1 101 Switching Protocols\r\n"
    "Upgrade: websocket\r\n"
    "Connection: Upgrade\r\n"
    "Sec-WebSocket-Accept: ";
constexpr char kRefusal[] =
    "HTTP/1.0 400 Bad Request\r\n"
    "Content-Type: text/html; charset=UTF-8\r\n\r\n"
    "WebSockets request was expected\r\n";
constexpr char kCloseFrame[] = {'\x88', '\x00'};
constexpr int kOpText = 1;
constexpr int kOpClose = 8;

struct WriteRequest {
  InspectorSocket* socket;
  std::vector<char> storage;
  uv_write_t req;
  uv_buf_t buf;
};

uv_stream_t* streamOf(InspectorSocket* socket) {
  return reinterpret_cast<uv_stream_t*>(&socket->tcp);
}
uv_handle_t* handleOf(InspectorSocket* socket) {
  return reinterpret_cast<uv_handle_t*>(&socket->tcp);
}
InspectorSocket* socketOf(void* handle) {
  return static_cast<InspectorSocket*>(static_cast<uv_handle_t*>(handle)->data);
}

int writeBytes(InspectorSocket* socket, std::vector<char> bytes, uv_write_cb done) {
  auto* request = new WriteRequest{socket, std::move(bytes), {}, {}};
  request->req.data = request;
  request->buf = uv_buf_init(request->storage.data(), request->storage.size());
  int err = uv_write(&request->req, streamOf(socket), &request->buf, 1, done);
  if (err < 0) delete request;
  return err;
}

void freeWriteRequest(uv_write_t* req, int) { delete static_cast<WriteRequest*>(req->data); }

WriteRequest* takeWriteRequest(uv_write_t* req) { return static_cast<WriteRequest*>(req->data); }

// Both phases read into a fresh block per read; the bytes go to read_buffer at once.
void allocateBlock(uv_handle_t*, size_t suggested, uv_buf_t* buf) {
  buf->base = new char[suggested];
  buf->len = suggested;
}

void appendRead(InspectorSocket* socket, ssize_t nread, const uv_buf_t* buf) {
  if (nread > 0)
    socket->read_buffer.insert(socket->read_buffer.end(), buf->base, buf->base + nread);
  delete[] buf->base;
}

bool equalsIgnoringAsciiCase(const std::string& text, const char* word) {
  size_t length = strlen(word);
  if (text.size() != length) return false;
  for (size_t i = 0; i < length; ++i) {
    char a = text[i], b = word[i];
    if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = static_cast<char>(b - 'A' + 'a');
    if (a != b) return false;
  }
  return true;
}

// ---- HTTP phase ----

void onFailureClosed(uv_handle_t* handle) {
  InspectorSocket* socket = socketOf(handle);
  HttpParsingState* state = socket->http_parsing_state.get();
  KESH_CHECK(state != nullptr);
  socket->read_buffer.clear();
  HandshakeCallback handshake_cb = state->handshake_cb;
  socket->http_parsing_state.reset();
  handshake_cb(socket, HandshakeEvent::kHandshakeFailed, std::string());
}

// Later requests of the same read must not be parsed once the connection is ending.
void stopParsing(HttpParsingState* state) {
  if (HTTP_PARSER_ERRNO(&state->parser) == HPE_OK) http_parser_pause(&state->parser, 1);
}

void failureClose(InspectorSocket* socket) {
  if (socket->closing) return;
  socket->closing = true;
  stopParsing(socket->http_parsing_state.get());
  uv_read_stop(streamOf(socket));
  uv_close(handleOf(socket), onFailureClosed);
}

void onRefusalWritten(uv_write_t* req, int) {
  WriteRequest* request = takeWriteRequest(req);
  InspectorSocket* socket = request->socket;
  delete request;
  failureClose(socket);
}

// Reading stops here: input behind a refused request is never looked at, and a stream failure
// can only show in the write's completion, so kHandshakeFailed comes exactly once.
void refuse(InspectorSocket* socket) {
  HttpParsingState* state = socket->http_parsing_state.get();
  if (state->refusing || socket->closing) return;
  state->refusing = true;
  stopParsing(state);
  uv_read_stop(streamOf(socket));
  std::vector<char> bytes(kRefusal, kRefusal + sizeof(kRefusal) - 1);
  if (writeBytes(socket, std::move(bytes), onRefusalWritten) < 0) failureClose(socket);
}

HttpParsingState* parsingStateOf(http_parser* parser) {
  return static_cast<InspectorSocket*>(parser->data)->http_parsing_state.get();
}

bool withinHeadLimit(const HttpParsingState* state, size_t length) {
  return state->path.size() + state->header_name.size() + state->websocket_key.size() +
             state->host.size() + length <=
         kMaxHttpHeadBytes;
}

int onUrl(http_parser* parser, const char* at, size_t length) {
  HttpParsingState* state = parsingStateOf(parser);
  if (!withinHeadLimit(state, length)) return 1;
  state->path.append(at, length);
  return 0;
}

int onHeaderField(http_parser* parser, const char* at, size_t length) {
  HttpParsingState* state = parsingStateOf(parser);
  if (state->in_header_value) {
    state->in_header_value = false;
    state->header_name.clear();
  }
  if (!withinHeadLimit(state, length)) return 1;
  state->header_name.append(at, length);
  return 0;
}

int onHeaderValue(http_parser* parser, const char* at, size_t length) {
  HttpParsingState* state = parsingStateOf(parser);
  bool value_starts = !state->in_header_value;  // a value split across reads comes in pieces
  state->in_header_value = true;
  if (equalsIgnoringAsciiCase(state->header_name, kKeyHeader)) {
    if (!withinHeadLimit(state, length)) return 1;
    // A repeated key header extends the key rather than replacing it.
    state->websocket_key.append(at, length);
  } else if (equalsIgnoringAsciiCase(state->header_name, kHostHeader)) {
    if (value_starts) ++state->host_headers;
    if (!withinHeadLimit(state, length)) return 1;
    state->host.append(at, length);
  }
  return 0;
}

// A browser sends the name that its page used: accepting only addresses and localhost keeps a
// page whose name is made to resolve to us (DNS rebinding) from reading or driving the debugger.
bool hostAllowed(const HttpParsingState* state) {
  if (state->host_headers == 1 && IsAllowedHost(state->host)) return true;
  std::string reason = "without a Host header";
  if (state->host_headers > 1) {
    reason = "with several Host headers";
  } else if (state->host_headers == 1) {
    std::string shown;
    for (char c : state->host.substr(0, kLoggedHostBytes)) shown += c >= ' ' && c <= '~' ? c : '?';
    reason = "for host \"" + shown + "\": only an IP address or localhost is served";
  }
  KeshLogger::log(LogLevel::kWarning, component::kKeshInspector,
                  "debugger endpoint refused a request " + reason);
  return false;
}

int onMessageComplete(http_parser* parser);

void initHandshake(InspectorSocket* socket) {
  HttpParsingState* state = socket->http_parsing_state.get();
  state->header_name.clear();
  state->websocket_key.clear();
  state->path.clear();
  state->host.clear();
  state->host_headers = 0;
  state->handshake_done = false;
  state->in_header_value = false;
  http_parser_init(&state->parser, HTTP_REQUEST);
  state->parser.data = socket;
  http_parser_settings_init(&state->parser_settings);
  state->parser_settings.on_url = onUrl;
  state->parser_settings.on_header_field = onHeaderField;
  state->parser_settings.on_header_value = onHeaderValue;
  state->parser_settings.on_message_complete = onMessageComplete;
}

void onWsRead(uv_stream_t* stream, ssize_t nread, const uv_buf_t* buf);

int onMessageComplete(http_parser* parser) {
  InspectorSocket* socket = static_cast<InspectorSocket*>(parser->data);
  HttpParsingState* state = socket->http_parsing_state.get();
  if (parser->method != HTTP_GET || !hostAllowed(state)) {
    refuse(socket);
    return 0;
  }
  if (!parser->upgrade) {
    // Re-initialising inside the callback is safe: the parser takes its state back from the
    // struct after each callback, so the next request on this connection starts fresh.
    if (state->handshake_cb(socket, HandshakeEvent::kHandshakeHttpGet, state->path)) {
      initHandshake(socket);
      if (socket->closing) stopParsing(state);  // the answer failed
    } else {
      refuse(socket);
    }
    return 0;
  }
  if (state->websocket_key.empty() ||
      !state->handshake_cb(socket, HandshakeEvent::kHandshakeUpgrading, state->path)) {
    refuse(socket);
    return 0;
  }
  std::string answer = kUpgradeHead + WebSocketAcceptKey(state->websocket_key) + "\r\n\r\n";
  if (writeBytes(socket, std::vector<char>(answer.begin(), answer.end()), freeWriteRequest) < 0) {
    failureClose(socket);
    return 0;
  }
  uv_read_stop(streamOf(socket));
  socket->websocket_state = std::make_unique<WebSocketState>();
  socket->ws_mode = true;
  state->handshake_cb(socket, HandshakeEvent::kHandshakeUpgraded, state->path);
  state->handshake_done = true;
  return 0;
}

void onHttpRead(uv_stream_t* stream, ssize_t nread, const uv_buf_t* buf) {
  InspectorSocket* socket = socketOf(stream);
  appendRead(socket, nread, buf);
  if (nread < 0) {
    failureClose(socket);
    return;
  }
  // libuv's "nothing this time" is no end of stream: a length of 0 would tell the parser so.
  if (nread == 0) return;
  HttpParsingState* state = socket->http_parsing_state.get();
  http_parser_execute(&state->parser, &state->parser_settings, socket->read_buffer.data(),
                      static_cast<size_t>(nread));
  // Whatever the parser took: bytes behind an upgrade request are not kept for the frames.
  socket->read_buffer.erase(socket->read_buffer.begin(), socket->read_buffer.begin() + nread);
  if (HTTP_PARSER_ERRNO(&state->parser) != HPE_OK) refuse(socket);
  if (state->handshake_done) socket->http_parsing_state.reset();
}

// ---- WebSocket phase ----

void onConnectionClosed(uv_handle_t* handle) {
  InspectorSocket* socket = socketOf(handle);
  WebSocketState* state = socket->websocket_state.get();
  KESH_CHECK(state != nullptr);
  SocketCloseCallback close_cb = state->close_cb;
  socket->read_buffer.clear();
  socket->websocket_state.reset();
  if (close_cb != nullptr) close_cb(socket, 0);
}

void closeConnection(InspectorSocket* socket) {
  if (socket->closing) return;
  socket->closing = true;
  uv_read_stop(streamOf(socket));
  uv_close(handleOf(socket), onConnectionClosed);
}

void failWebSocket(InspectorSocket* socket, int error) {
  uv_read_cb read_cb = socket->websocket_state->read_cb;
  if (read_cb != nullptr) read_cb(streamOf(socket), error, nullptr);
  closeConnection(socket);
}

void onCloseFrameWritten(uv_write_t* req, int status) {
  WriteRequest* request = takeWriteRequest(req);
  InspectorSocket* socket = request->socket;
  delete request;
  // Write callbacks run before the close callback, so the state is still there.
  WebSocketState* state = socket->websocket_state.get();
  state->close_sent = true;
  // A peer that ended while our close frame was in flight will send no close frame of its own.
  if (state->close_received || socket->peer_eof || status < 0) closeConnection(socket);
}

void writeCloseFrame(InspectorSocket* socket) {
  std::vector<char> bytes(kCloseFrame, kCloseFrame + sizeof(kCloseFrame));
  if (writeBytes(socket, std::move(bytes), onCloseFrameWritten) < 0) closeConnection(socket);
}

void receivedClose(InspectorSocket* socket) {
  WebSocketState* state = socket->websocket_state.get();
  state->close_received = true;
  if (state->close_sent) {
    closeConnection(socket);
    return;
  }
  if (state->read_cb != nullptr) state->read_cb(streamOf(socket), 0, nullptr);
  writeCloseFrame(socket);
}

// Acts on the frame at the start of read_buffer; gives the bytes to drop, 0 to stop the loop.
int processOneFrame(InspectorSocket* socket) {
  bool compressed = false;
  std::vector<char> payload;
  int consumed = 0;
  FrameResult result = DecodeFrame(socket->read_buffer.data(), socket->read_buffer.size(),
                                   &compressed, &payload, &consumed);
  if (compressed || result == FrameResult::kFrameError) {
    failWebSocket(socket, UV_EPROTO);
    return 0;
  }
  if (result == FrameResult::kFrameClose) {
    receivedClose(socket);
    return 0;
  }
  if (result != FrameResult::kFrameOk) return 0;
  WebSocketState* state = socket->websocket_state.get();
  if (state->alloc_cb != nullptr && state->read_cb != nullptr) {
    size_t len = payload.size();
    uv_buf_t buffer = uv_buf_init(nullptr, 0);
    state->alloc_cb(handleOf(socket), len, &buffer);
    KESH_CHECK(buffer.len >= len);
    if (len > 0) memcpy(buffer.base, payload.data(), len);
    if (state->read_cb != nullptr) state->read_cb(streamOf(socket), len, &buffer);
  }
  return consumed;
}

void onWsRead(uv_stream_t* stream, ssize_t nread, const uv_buf_t* buf) {
  InspectorSocket* socket = socketOf(stream);
  appendRead(socket, nread, buf);
  WebSocketState* state = socket->websocket_state.get();
  if (nread < 0) {
    socket->peer_eof = true;
    if (!socket->shutting_down && state->read_cb != nullptr) {
      state->read_cb(stream, nread, nullptr);
    }
    if (state->close_sent && !state->close_received) closeConnection(socket);
    return;
  }
  // Nothing after the peer's close frame is read: it would be the same close frame again and
  // again, with the buffer growing behind it.
  if (state->close_received) {
    socket->read_buffer.clear();
    return;
  }
  while (!socket->read_buffer.empty() && !socket->closing) {
    int consumed = processOneFrame(socket);
    if (consumed == 0) break;
    socket->read_buffer.erase(socket->read_buffer.begin(), socket->read_buffer.begin() + consumed);
  }
}

}  // namespace

std::string WebSocketAcceptKey(const std::string& key) {
  std::string input = key + kWebSocketGuid;
  unsigned char digest[20];
  SHA1(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest);
  return base64Encode(digest, sizeof(digest));
}

bool IsAllowedHost(std::string_view value) {
  auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!value.empty() && blank(value.front())) value.remove_prefix(1);
  while (!value.empty() && blank(value.back())) value.remove_suffix(1);
  // inet_pton reads up to a NUL: an address followed by one must not pass for the address.
  if (value.empty() || value.find('\0') != std::string_view::npos) return false;
  std::string_view name = value;
  std::string_view port;
  int family = AF_INET;
  if (value.front() == '[') {
    size_t close = value.find(']');
    if (close == std::string_view::npos) return false;
    name = value.substr(1, close - 1);
    family = AF_INET6;
    if (close + 1 < value.size()) {
      if (value[close + 1] != ':') return false;
      port = value.substr(close + 2);
      if (port.empty()) return false;
    }
  } else if (size_t colon = value.find(':'); colon != std::string_view::npos) {
    name = value.substr(0, colon);
    port = value.substr(colon + 1);
    if (port.empty()) return false;
  }
  if (port.size() > 5) return false;
  for (char c : port) {
    if (c < '0' || c > '9') return false;
  }
  if (family == AF_INET && equalsIgnoringAsciiCase(std::string(name), "localhost")) return true;
  unsigned char address[sizeof(in6_addr)];
  return inet_pton(family, std::string(name).c_str(), address) == 1;
}

std::vector<char> EncodeFrame(const char* data, size_t length) {
  std::vector<char> frame;
  frame.reserve(length + 10);
  frame.push_back(static_cast<char>(0x81));
  if (length <= 125) {
    frame.push_back(static_cast<char>(length));
  } else if (length <= 65535) {
    frame.push_back(126);
    frame.push_back(static_cast<char>(length >> 8));
    frame.push_back(static_cast<char>(length & 0xFF));
  } else {
    frame.push_back(127);
    char bytes[8];
    uint64_t remaining = length;
    for (int i = 7; i >= 0; --i) {
      bytes[i] = static_cast<char>(remaining & 0xFF);
      remaining >>= 8;
    }
    KESH_CHECK(0 == remaining);
    frame.insert(frame.end(), bytes, bytes + 8);
  }
  frame.insert(frame.end(), data, data + length);
  return frame;
}

FrameResult DecodeFrame(const char* data, size_t size, bool* compressed, std::vector<char>* output,
                        int* consumed) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(data);
  *compressed = false;
  if (size < 2) return FrameResult::kFrameIncomplete;
  *compressed = (bytes[0] & 0x40) != 0;
  if ((bytes[0] & 0x80) == 0 || (bytes[0] & 0x30) != 0) return FrameResult::kFrameError;
  int opcode = bytes[0] & 0x0F;
  if (opcode != kOpText && opcode != kOpClose) return FrameResult::kFrameError;
  if ((bytes[1] & 0x80) == 0) return FrameResult::kFrameError;
  uint64_t length = bytes[1] & 0x7F;
  size_t header = 2;
  if (length == 126 || length == 127) {
    size_t extra = length == 126 ? 2 : 8;
    if (size < header + extra) return FrameResult::kFrameIncomplete;
    length = 0;
    for (size_t i = 0; i < extra; ++i) length = (length << 8) | bytes[header + i];
    header += extra;
  }
  if (length > 0x7FFFFFFFFFFFFFFFull) return FrameResult::kFrameError;
  // Refused before its payload arrives, so read_buffer never holds more than one such frame.
  if (length > kMaxFramePayload) return FrameResult::kFrameError;
  size_t total = header + 4 + static_cast<size_t>(length);
  if (size < total) return FrameResult::kFrameIncomplete;
  const uint8_t* mask = bytes + header;
  const uint8_t* payload = mask + 4;
  output->assign(static_cast<size_t>(length), 0);
  for (size_t i = 0; i < length; ++i) (*output)[i] = static_cast<char>(payload[i] ^ mask[i % 4]);
  *consumed = static_cast<int>(total);
  return opcode == kOpClose ? FrameResult::kFrameClose : FrameResult::kFrameOk;
}

int AcceptSocket(uv_stream_t* server_stream, InspectorSocket* socket,
                 HandshakeCallback handshake_cb) {
  KESH_CHECK(socket->http_parsing_state == nullptr);
  socket->http_parsing_state = std::make_unique<HttpParsingState>();
  // Allocates nothing for a TCP handle without flags; from here on every failure reaches the
  // owner as kHandshakeFailed from the close callback.
  KESH_CHECK(0 == uv_tcp_init(server_stream->loop, &socket->tcp));
  socket->tcp.data = socket;
  socket->http_parsing_state->handshake_cb = handshake_cb;
  initHandshake(socket);
  int err = uv_accept(server_stream, streamOf(socket));
  if (err == 0) err = uv_read_start(streamOf(socket), allocateBlock, onHttpRead);
  if (err < 0) failureClose(socket);
  return err;
}

void WriteSocket(InspectorSocket* inspector, const char* data, size_t length) {
  // Nothing may follow our close frame.
  if (inspector->closing || inspector->shutting_down) return;
  if (uv_stream_get_write_queue_size(streamOf(inspector)) > kMaxWriteQueueBytes) {
    if (inspector->ws_mode) {
      failWebSocket(inspector, UV_ENOBUFS);
    } else {
      failureClose(inspector);
    }
    return;
  }
  if (!inspector->ws_mode) {
    writeBytes(inspector, std::vector<char>(data, data + length), freeWriteRequest);
    return;
  }
  writeBytes(inspector, EncodeFrame(data, length), freeWriteRequest);
}

int StartFrameRead(InspectorSocket* inspector, uv_alloc_cb alloc_cb, uv_read_cb read_cb) {
  KESH_CHECK(inspector->ws_mode);
  KESH_CHECK(!inspector->shutting_down || read_cb == nullptr);
  WebSocketState* state = inspector->websocket_state.get();
  state->close_sent = false;
  state->alloc_cb = alloc_cb;
  state->read_cb = read_cb;
  int err = uv_read_start(streamOf(inspector), allocateBlock, onWsRead);
  if (err < 0) closeConnection(inspector);
  return err;
}

void CloseSocket(InspectorSocket* inspector, SocketCloseCallback close_cb) {
  KESH_CHECK(inspector->ws_mode);
  KESH_CHECK(!inspector->closing);
  KESH_CHECK(!inspector->shutting_down);
  inspector->shutting_down = true;
  WebSocketState* state = inspector->websocket_state.get();
  state->close_cb = close_cb;
  if (inspector->peer_eof) {
    closeConnection(inspector);
    return;
  }
  uv_read_stop(streamOf(inspector));
  state->alloc_cb = nullptr;
  state->read_cb = nullptr;
  writeCloseFrame(inspector);
  // Keeps reading so that the peer's close frame is seen; its text frames are dropped.
  if (!inspector->closing) StartFrameRead(inspector, nullptr, nullptr);
}

void AbortHandshake(InspectorSocket* inspector) {
  if (inspector->http_parsing_state != nullptr) failureClose(inspector);
}

void DropConnection(InspectorSocket* inspector) {
  KESH_CHECK(inspector->ws_mode);
  closeConnection(inspector);
}

}  // namespace kesh
