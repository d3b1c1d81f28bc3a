#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kesh {

// What the service's lines carry in their header.
enum class ResponseType : int32_t { kRequestResponse = 0, kSocketMessage = 1 };

// Where a received line goes once classified.
enum class InternalMessageType : int32_t {
  kSyncResponse = 0,
  kAsyncResponse = 1,
  kSocketMessage = 2
};

inline constexpr char kMessageDelimiter = '\n';
inline constexpr size_t kReadBufferSize = 16 * 1024;
inline constexpr size_t kHeaderSearchLength = 300;
// Longer than any real answer; a longer line would hold memory without bound.
inline constexpr size_t kMaxLineLength = 64u << 20;

struct MessageHeader {
  int32_t message_id_ = 0;
  std::string socket_id_;
  int32_t response_type_ = 0;
};

// Reads the three header fields from the first bytes of a line: "messageId", "socketId" and
// "responseType", keys in any case, in this order, as the first match of
//   "messageId":\s*(-?\d+).*?"socketId":\s*"(-?\w+)?".*?"responseType":\s*(\d+)
// where '.' is any byte but a line end. Linear in the head's length, whatever it holds. Throws
// std::runtime_error with the text the log shows: an empty line, no header, a header number
// beyond 32 bits, or one with a fraction or an exponent.
MessageHeader readMessageHeader(std::string_view line);

// Cuts lines out of a byte stream. Each received byte is looked at once, however a line is split
// across reads, and a line longer than kMaxLineLength is skipped up to its end instead of kept.
struct LineFramer {
  std::string pending_;    // the start of a line whose end has not come yet
  size_t discarding_ = 0;  // bytes of an over-long line skipped so far

  // onLine(std::string_view) for each complete line, in order; onOversized(size_t length) for
  // each line that was too long.
  template <typename OnLine, typename OnOversized>
  void feed(std::string_view data, OnLine onLine, OnOversized onOversized) {
    while (!data.empty()) {
      const void* found = memchr(data.data(), kMessageDelimiter, data.size());
      if (found == nullptr) {
        keepPartial(data);
        return;
      }
      size_t length = static_cast<size_t>(static_cast<const char*>(found) - data.data());
      if (discarding_ > 0) {
        onOversized(discarding_ + length);
        discarding_ = 0;
      } else if (pending_.size() + length > kMaxLineLength) {
        onOversized(pending_.size() + length);
        release();
      } else if (pending_.empty()) {
        onLine(data.substr(0, length));  // the common case: no copy
      } else {
        pending_.append(data.data(), length);
        onLine(std::string_view(pending_));
        release();
      }
      data.remove_prefix(length + 1);
    }
  }

  void reset() {
    release();
    discarding_ = 0;
  }

 private:
  void keepPartial(std::string_view data) {
    if (discarding_ > 0) {
      discarding_ += data.size();
    } else if (pending_.size() + data.size() > kMaxLineLength) {
      discarding_ = pending_.size() + data.size();
      release();
    } else {
      pending_.append(data);
    }
  }
  // Empty, and no longer holding the memory of one big line.
  void release() {
    if (pending_.capacity() > kReadBufferSize) {
      std::string().swap(pending_);
    } else {
      pending_.clear();
    }
  }
};

}  // namespace kesh
