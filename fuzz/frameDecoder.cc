// The debugger endpoint's WebSocket frame decoder, on bytes as a client could send them: frames
// are decoded off the front as the socket does, and whatever is decoded must lie within the
// bytes and agree with its length field. The input's payload, framed the way clients frame it,
// must also decode back to itself.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "inspector/inspectorSocket.h"
#include "wsClientFrame.h"

namespace {

void decodeStream(const char* data, size_t size) {
  size_t at = 0;
  while (at < size) {
    bool compressed = false;
    std::vector<char> payload;
    int consumed = -1;
    kesh::FrameResult result =
        kesh::DecodeFrame(data + at, size - at, &compressed, &payload, &consumed);
    if (result != kesh::FrameResult::kFrameOk && result != kesh::FrameResult::kFrameClose) return;
    if (consumed < 6 || static_cast<size_t>(consumed) > size - at) __builtin_trap();
    // The header is 2, 4 or 10 bytes, then the mask, then the payload.
    size_t header = static_cast<size_t>(consumed) - 4 - payload.size();
    if (header != 2 && header != 4 && header != 10) __builtin_trap();
    if (payload.size() > kesh::kMaxFramePayload) __builtin_trap();
    if (result == kesh::FrameResult::kFrameClose) return;  // nothing after it is read
    at += static_cast<size_t>(consumed);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  decodeStream(bytes, size);

  std::string text(bytes, size);
  std::string frame = clientFrame(0x81, text);
  bool compressed = true;
  std::vector<char> payload;
  int consumed = 0;
  kesh::FrameResult result =
      kesh::DecodeFrame(frame.data(), frame.size(), &compressed, &payload, &consumed);
  if (result != kesh::FrameResult::kFrameOk || compressed ||
      static_cast<size_t>(consumed) != frame.size() ||
      std::string(payload.begin(), payload.end()) != text) {
    __builtin_trap();
  }
  // Every cut of a whole frame is incomplete, never an error or a frame.
  size_t cut = size == 0 ? 1 : data[0] % frame.size();
  if (cut > 0 && kesh::DecodeFrame(frame.data(), cut, &compressed, &payload, &consumed) !=
                     kesh::FrameResult::kFrameIncomplete) {
    __builtin_trap();
  }
  return 0;
}
