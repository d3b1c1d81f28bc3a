#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

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
inline constexpr size_t kReadBufferSize = 5000;
inline constexpr size_t kHeaderSearchLength = 300;

struct MessageHeader {
  int32_t message_id_ = 0;
  std::string socket_id_;
  int32_t response_type_ = 0;
};

// Reads the three header fields from the first bytes of a line. Throws std::runtime_error with
// the text the log shows: an empty line, no header, or a header number beyond 32 bits.
MessageHeader readMessageHeader(const std::string& line);

// Cuts every complete line off the front of `accumulated`, in order; a partial line stays.
template <typename OnLine>
void takeCompleteLines(std::string& accumulated, OnLine onLine) {
  size_t start = 0;
  for (size_t end; (end = accumulated.find(kMessageDelimiter, start)) != std::string::npos;
       start = end + 1) {
    onLine(accumulated.substr(start, end - start));
  }
  if (start > 0) {
    accumulated.erase(0, start);
    accumulated.shrink_to_fit();
  }
}

}  // namespace kesh
