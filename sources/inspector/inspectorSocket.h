#pragma once

#include <http_parser.h>
#include <uv.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// One accepted debugger connection on the inspector's own loop: an HTTP phase that answers GET
// requests through a callback and may upgrade to a WebSocket, then text frames both ways up to
// the close handshake. Single-threaded: everything runs on the loop that owns the socket.
namespace kesh {

enum class HandshakeEvent {
  kHandshakeUpgrading,
  kHandshakeUpgraded,
  kHandshakeHttpGet,
  kHandshakeFailed
};

enum class FrameResult { kFrameOk, kFrameIncomplete, kFrameClose, kFrameError };

struct InspectorSocket;

// kHandshakeUpgrading and kHandshakeHttpGet: true accepts or answers, false refuses with 400.
using HandshakeCallback = bool (*)(InspectorSocket* socket, HandshakeEvent event,
                                   const std::string& path);
using SocketCloseCallback = void (*)(InspectorSocket* socket, int status);

// Limits that keep a hostile peer from growing memory without bound.
// Bytes of one request that are kept: the path, the header name being read and the key.
constexpr size_t kMaxHttpHeadBytes = 16 * 1024;
// Largest payload accepted from a client; a larger frame is a protocol error. It also keeps the
// size of a whole frame well inside the signed 32-bit consumed count.
constexpr uint64_t kMaxFramePayload = 16 * 1024 * 1024;
// A write is refused, and the connection ended, while more than this waits for a peer that
// does not read.
constexpr size_t kMaxWriteQueueBytes = 64 * 1024 * 1024;

struct HttpParsingState {
  http_parser parser;
  http_parser_settings parser_settings;
  HandshakeCallback handshake_cb = nullptr;
  bool handshake_done = false;
  bool in_header_value = false;
  std::string websocket_key;
  std::string path;
  std::string header_name;
  std::string host;      // the Host header's value
  int host_headers = 0;  // how many Host headers the request had
  // The 400 answer is on its way: reading has stopped and nothing more is parsed.
  bool refusing = false;
};

struct WebSocketState {
  uv_alloc_cb alloc_cb = nullptr;
  uv_read_cb read_cb = nullptr;
  SocketCloseCallback close_cb = nullptr;
  bool close_sent = false;
  bool close_received = false;
};

struct InspectorSocket {
  // Whoever accepted the connection; callbacks get the socket and find their owner here.
  void* owner = nullptr;
  std::unique_ptr<HttpParsingState> http_parsing_state;
  std::unique_ptr<WebSocketState> websocket_state;
  std::vector<char> read_buffer;
  uv_tcp_t tcp;
  bool ws_mode = false;
  bool shutting_down = false;
  bool peer_eof = false;
  // Set where the one close of `tcp` starts; from then on nothing is read or written.
  bool closing = false;
};

// Gives 0 or a libuv error. After an error the handle is closing and kHandshakeFailed follows,
// so the owner frees the socket there, never at once.
int AcceptSocket(uv_stream_t* server_stream, InspectorSocket* socket,
                 HandshakeCallback handshake_cb);
// HTTP phase: the bytes as they are. WebSocket phase: one text frame; nothing after CloseSocket.
void WriteSocket(InspectorSocket* inspector, const char* data, size_t length);
int StartFrameRead(InspectorSocket* inspector, uv_alloc_cb alloc_cb, uv_read_cb read_cb);
void CloseSocket(InspectorSocket* inspector, SocketCloseCallback close_cb);
// HTTP phase only: ends the connection without an answer; kHandshakeFailed follows.
void AbortHandshake(InspectorSocket* inspector);
// WebSocket phase: ends the connection at once, without waiting for the peer's close frame; the
// close callback of an earlier CloseSocket follows.
void DropConnection(InspectorSocket* inspector);

// The pieces below are pure and exposed for tests.
std::string WebSocketAcceptKey(const std::string& key);
// Whether a Host header's value names an IP address (IPv4, or IPv6 in brackets) or localhost,
// with or without a port. Any other name could be one that a web page's owner points at us.
bool IsAllowedHost(std::string_view value);
// One unmasked, final text frame.
std::vector<char> EncodeFrame(const char* data, size_t length);
// Decodes the client frame at the start of data; consumed is set only for kFrameOk/kFrameClose.
FrameResult DecodeFrame(const char* data, size_t size, bool* compressed, std::vector<char>* output,
                        int* consumed);

}  // namespace kesh
