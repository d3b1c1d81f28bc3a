#pragma once
// The header reader's reference, shared by its GoogleTest and its fuzz target: the regular
// expression the reader replaced, and the reader's answer in the same shape.
#include <climits>
#include <cstdlib>
#include <regex>
#include <stdexcept>
#include <string>

#include "network/wireFormat.h"

namespace kesh {
namespace reference {

// The reader this one replaced, kept as the reference of which heads are accepted and what they
// give: the same pattern through std::regex, and a header number that goes on with a fraction
// or an exponent in the line refused.
inline std::string referenceReading(const std::string& line) {
  static const std::regex pattern(
      R"("messageId":\s*(\-?\d+).*?"socketId":\s*"(\-?\w+)?".*?"responseType":\s*(\d+))",
      std::regex::ECMAScript | std::regex::icase);
  std::string head = line.substr(0, kHeaderSearchLength);
  std::smatch match;
  if (line.empty() || !std::regex_search(head, match, pattern)) return "none";
  for (int group : {1, 3}) {
    size_t end = static_cast<size_t>(match.position(group) + match.length(group));
    if (end < line.size() && (line[end] == '.' || line[end] == 'e' || line[end] == 'E')) {
      return "fraction";
    }
  }
  return match[1].str() + "|" + match[2].str() + "|" + match[3].str();
}

inline std::string reading(const std::string& line) {
  try {
    MessageHeader h = readMessageHeader(line);
    return std::to_string(h.message_id_) + "|" + h.socket_id_ + "|" +
           std::to_string(h.response_type_);
  } catch (const std::runtime_error& e) {
    std::string text = e.what();
    if (text.rfind("message header number is not an integer", 0) == 0) return "fraction";
    return text.rfind("message header number does not fit", 0) == 0 ? "range" : "none";
  }
}

// The reference gives the digits as written; compare them as numbers where they fit.
inline std::string normalised(const std::string& reference) {
  if (reference == "none" || reference == "fraction") return reference;
  size_t a = reference.find('|');
  size_t b = reference.rfind('|');
  // strtoll saturates beyond 64 bits, which is beyond 32 bits too; leading zeros count for nothing.
  long long id = std::strtoll(reference.substr(0, a).c_str(), nullptr, 10);
  long long type = std::strtoll(reference.substr(b + 1).c_str(), nullptr, 10);
  if (id < INT32_MIN || id > INT32_MAX || type > INT32_MAX) return "range";
  return std::to_string(id) + reference.substr(a, b - a + 1) + std::to_string(type);
}

}  // namespace reference
}  // namespace kesh
