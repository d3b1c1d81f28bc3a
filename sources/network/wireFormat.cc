#include "network/wireFormat.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>

namespace kesh {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isWord(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

// Whether `key` (lower case) stands at `at`, in any case.
bool keyAt(std::string_view head, size_t at, std::string_view key) {
  if (head.size() - at < key.size()) return false;
  for (size_t i = 0; i < key.size(); ++i) {
    char c = head[at + i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != key[i]) return false;
  }
  return true;
}

size_t skipSpaces(std::string_view head, size_t at) {
  while (at < head.size() && isSpace(head[at])) ++at;
  return at;
}

struct Span {
  size_t begin = 0;
  size_t end = 0;
};

constexpr std::string_view kMessageIdKey = "\"messageid\":";
constexpr std::string_view kSocketIdKey = "\"socketid\":";
constexpr std::string_view kResponseTypeKey = "\"responsetype\":";
constexpr size_t kNone = SIZE_MAX;

// "messageId":\s*(-?\d+) at `at`: the number's span, or an empty span.
Span messageIdAt(std::string_view head, size_t at) {
  if (!keyAt(head, at, kMessageIdKey)) return {};
  size_t begin = skipSpaces(head, at + kMessageIdKey.size());
  size_t p = begin;
  if (p < head.size() && head[p] == '-') ++p;
  size_t digits = p;
  while (p < head.size() && isDigit(head[p])) ++p;
  return p > digits ? Span{begin, p} : Span{};
}

// "socketId":\s*"(-?\w+)?" at `at`: the value's span, ending just before the closing quote.
bool socketIdAt(std::string_view head, size_t at, Span* value) {
  if (!keyAt(head, at, kSocketIdKey)) return false;
  size_t p = skipSpaces(head, at + kSocketIdKey.size());
  if (p >= head.size() || head[p] != '"') return false;
  size_t begin = ++p;
  if (p < head.size() && head[p] == '-') ++p;
  size_t word = p;
  while (p < head.size() && isWord(head[p])) ++p;
  // Without word characters the optional group matches nothing and the quote must close at once.
  if (p == word) p = begin;
  if (p >= head.size() || head[p] != '"') return false;
  *value = {begin, p};
  return true;
}

// "responseType":\s*(\d+) at `at`: the number's span, or an empty span.
Span responseTypeAt(std::string_view head, size_t at) {
  if (!keyAt(head, at, kResponseTypeKey)) return {};
  size_t p = skipSpaces(head, at + kResponseTypeKey.size());
  size_t begin = p;
  while (p < head.size() && isDigit(head[p])) ++p;
  return p > begin ? Span{begin, p} : Span{};
}

struct HeaderSpans {
  Span id;
  Span socket;
  Span type;
};

// The first match of a part at or after `from`, before the next line end; kNone without one.
template <typename Matches>
size_t firstBeforeLineEnd(std::string_view head, size_t from, Matches matches) {
  for (size_t at = from; at < head.size() && !isLineEnd(head[at]); ++at) {
    if (head[at] == '"' && matches(at)) return at;
  }
  return kNone;
}

// The answer when the first messageId, the first socketId after it and the first responseType
// after that complete one another, which is what a well-formed line gives: one pass, no tables.
// A backtracking matcher takes this same path first, so an answer here is its answer too.
bool readFirstPath(std::string_view head, HeaderSpans* spans) {
  size_t i = 0;
  while (i < head.size() && (spans->id = messageIdAt(head, i)).end == 0) ++i;
  if (i == head.size()) return false;
  size_t j = firstBeforeLineEnd(head, spans->id.end,
                                [&](size_t at) { return socketIdAt(head, at, &spans->socket); });
  if (j == kNone) return false;
  size_t k = firstBeforeLineEnd(head, spans->socket.end + 1, [&](size_t at) {
    spans->type = responseTypeAt(head, at);
    return spans->type.end != 0;
  });
  return k != kNone;
}

// JSON writes an integer without a fraction or an exponent. Read up to its first non-digit,
// 7.9 would route to request 7 and 1e309 to request 1: such a number is no id of ours.
bool hasFractionOrExponent(std::string_view line, size_t end) {
  return end < line.size() && (line[end] == '.' || line[end] == 'e' || line[end] == 'E');
}

int32_t headerNumber(std::string_view digits, std::string_view line) {
  errno = 0;
  long long value = std::strtoll(std::string(digits).c_str(), nullptr, 10);
  if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
    throw std::runtime_error("message header number does not fit 32 bits in response: " +
                             std::string(line));
  }
  return static_cast<int32_t>(value);
}

MessageHeader headerOf(const HeaderSpans& spans, std::string_view line) {
  if (hasFractionOrExponent(line, spans.id.end) || hasFractionOrExponent(line, spans.type.end)) {
    throw std::runtime_error("message header number is not an integer in response: " +
                             std::string(line));
  }
  auto text = [&](Span span) { return line.substr(span.begin, span.end - span.begin); };
  MessageHeader header;
  header.message_id_ = headerNumber(text(spans.id), line);
  header.socket_id_.assign(text(spans.socket));
  header.response_type_ = headerNumber(text(spans.type), line);
  return header;
}

}  // namespace

MessageHeader readMessageHeader(std::string_view line) {
  if (line.empty()) throw std::runtime_error("received response is empty");
  std::string_view head = line.substr(0, kHeaderSearchLength);
  HeaderSpans first;
  if (readFirstPath(head, &first)) return headerOf(first, line);
  const size_t n = head.size();
  // One pass from the end tells, for every position, where the next line end is and where the
  // next match of each later part begins that can still complete; the first messageId whose
  // continuation completes is then found in one pass from the front. This is the order in which
  // a backtracking matcher would accept, in linear time.
  std::array<size_t, kHeaderSearchLength + 1> lineEnd;
  std::array<size_t, kHeaderSearchLength + 1> typeAt;  // next complete responseType
  std::array<Span, kHeaderSearchLength + 1> typeSpan;
  std::array<size_t, kHeaderSearchLength + 1> socketAt;  // next socketId that completes
  std::array<Span, kHeaderSearchLength + 1> socketSpan;
  lineEnd[n] = typeAt[n] = socketAt[n] = kNone;
  // `.*?` from `from` reaches `to` when no line end lies between them.
  auto reaches = [&](size_t from, size_t to) { return to != kNone && lineEnd[from] >= to; };
  for (size_t i = n; i-- > 0;) {
    lineEnd[i] = isLineEnd(head[i]) ? i : lineEnd[i + 1];
    Span type = responseTypeAt(head, i);
    if (type.end > type.begin) {
      typeAt[i] = i;
      typeSpan[i] = type;
    } else {
      typeAt[i] = typeAt[i + 1];
      typeSpan[i] = typeSpan[i + 1];
    }
    Span socket;
    size_t after = kNone;
    if (socketIdAt(head, i, &socket)) after = socket.end + 1;
    if (after != kNone && after <= n && reaches(after, typeAt[after])) {
      socketAt[i] = i;
      socketSpan[i] = socket;
    } else {
      socketAt[i] = socketAt[i + 1];
      socketSpan[i] = socketSpan[i + 1];
    }
  }
  for (size_t i = 0; i < n; ++i) {
    Span id = messageIdAt(head, i);
    if (id.end == id.begin || !reaches(id.end, socketAt[id.end])) continue;
    Span socket = socketSpan[id.end];
    return headerOf({id, socket, typeSpan[socket.end + 1]}, line);
  }
  throw std::runtime_error("no message info found in response");
}

}  // namespace kesh
