#include "network/wireFormat.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <regex>

namespace kesh {

namespace {

const std::regex& headerPattern() {
  // Compiled once per process; the keys match in any case and must stand in this order.
  static const std::regex pattern(
      R"("messageId":\s*(\-?\d+).*?"socketId":\s*"(\-?\w+)?".*?"responseType":\s*(\d+))",
      std::regex::ECMAScript | std::regex::icase | std::regex::optimize);
  return pattern;
}

int32_t headerNumber(const std::string& text, const std::string& line) {
  errno = 0;
  long long value = std::strtoll(text.c_str(), nullptr, 10);
  if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
    throw std::runtime_error("message header number does not fit 32 bits in response: " + line);
  }
  return static_cast<int32_t>(value);
}

}  // namespace

MessageHeader readMessageHeader(const std::string& line) {
  if (line.empty()) throw std::runtime_error("received response is empty");
  std::string head = line.substr(0, kHeaderSearchLength);
  std::smatch match;
  if (!std::regex_search(head, match, headerPattern()) || match.size() <= 1) {
    throw std::runtime_error("no message info found in response");
  }
  MessageHeader header;
  header.message_id_ = headerNumber(match[1].str(), line);
  header.socket_id_ = match[2].str();
  header.response_type_ = headerNumber(match[3].str(), line);
  return header;
}

}  // namespace kesh
