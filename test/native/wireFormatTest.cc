#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "headerReference.h"
#include "network/wireFormat.h"

namespace kesh {
namespace {

using reference::normalised;
using reference::reading;
using reference::referenceReading;

// The fields as "id|socket|type", or the error's text without the line it quotes.
std::string outcome(const std::string& line) {
  try {
    MessageHeader h = readMessageHeader(line);
    return std::to_string(h.message_id_) + "|" + h.socket_id_ + "|" +
           std::to_string(h.response_type_);
  } catch (const std::runtime_error& e) {
    std::string text = e.what();
    size_t at = line.empty() ? std::string::npos : text.rfind(": " + line);
    return at == std::string::npos ? text : text.erase(at, line.size() + 2);
  }
}

TEST(MessageHeader, ReadsTheFieldsInTheFirst300BytesAndRefusesLinesItCannotRoute) {
  const std::string noInfo = "no message info found in response";
  const std::string range = "message header number does not fit 32 bits in response";
  const std::string fraction = "message header number is not an integer in response";
  std::pair<std::string, std::string> cases[] = {
      {R"({"x":1, "messageId": -7,"a":2,"socketId":"ws_1","responseType": 1})", "-7|ws_1|1"},
      {R"({"MESSAGEID":12,"SocketId":"","responsetype":0})", "12||0"},  // keys in any case
      {R"({"messageId":1,"socketId":"","pad":")" + std::string(300, 'p') + R"(","responseType":0})",
       noInfo},
      {R"({"messageId":1,"socketId":"","responseType":0,"tail":")" + std::string(10000, 't') +
           "\"}",
       "1||0"},
      {"", "received response is empty"},
      {R"({"socketId":"","messageId":1,"responseType":0})", noInfo},  // keys out of order
      {R"({"messageId":4294967296,"socketId":"","responseType":0})", range},
      {R"({"messageId":1,"socketId":"","responseType":99999999999})", range},
      {R"({"messageId":-2147483648,"socketId":"","responseType":2})", "-2147483648||2"},
      // Leading zeros do not make a number long: the value decides.
      {R"({"messageId":000000741064605,"socketId":"","responseType":000000000002})",
       "741064605||2"},
      // Read up to the first non-digit these would route to requests 1, 0, 7 and type 1.
      {R"({"messageId":1e309,"socketId":"","responseType":0})", fraction},
      {R"({"messageId":-0.5,"socketId":"","responseType":0})", fraction},
      {R"({"messageId":7E2,"socketId":"","responseType":0})", fraction},
      {R"({"messageId":7,"socketId":"","responseType":1.0})", fraction},
      // A fraction elsewhere in the head is no header number.
      {R"({"messageId":7,"x":0.5,"socketId":"e","responseType":1,"y":1e3})", "7|e|1"},
  };
  for (const auto& [line, expected] : cases) EXPECT_EQ(outcome(line), expected) << line;
}

TEST(MessageHeader, AgreesWithTheRegularExpressionOnRandomAndMutatedHeads) {
  // Pieces split at '|'; the zero byte is added after.
  std::vector<std::string> pieces;
  std::istringstream all(
      "\"messageId\":|\"MessageID\":|\"socketId\":|\"SOCKETID\":|\"responseType\":|"
      "\"responsetype\": |\"|-|7|42|0|ws_1|a| |\t|\r|,|{|}|:|x|\"\"|-x|_|\xc3\xa9|\n|.|e|E|1e309|"
      "7.9|-0.5");
  for (std::string piece; std::getline(all, piece, '|');) pieces.push_back(piece);
  pieces.emplace_back(1, '\0');
  const std::string valid = R"({"messageId":12,"socketId":"ws-1","responseType":1,"d":"x"})";
  std::mt19937 random(20261123);
  for (int round = 0; round < 200000; ++round) {
    std::string line;
    if (round % 2 == 0) {
      int count = 1 + static_cast<int>(random() % 24);
      for (int i = 0; i < count; ++i) line += pieces[random() % pieces.size()];
    } else {
      line = valid;
      for (int edits = 1 + static_cast<int>(random() % 4); edits > 0; --edits) {
        size_t at = random() % (line.size() + 1);
        switch (random() % 3) {
          case 0:
            line.insert(at, pieces[random() % pieces.size()]);
            break;
          case 1:
            if (at < line.size()) line.erase(at, 1 + random() % 6);
            break;
          default:
            if (at < line.size()) line[at] = static_cast<char>(random() % 128);
        }
      }
    }
    ASSERT_EQ(reading(line), normalised(referenceReading(line))) << "line: " << line;
  }
}

TEST(MessageHeader, StaysFastOnHeadsBuiltToBacktrack) {
  std::string crafted;
  while (crafted.size() < kHeaderSearchLength) crafted += "\"messageId\":1\"socketId\":\"a\"";
  auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(reading(crafted), "none");
  auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                    std::chrono::steady_clock::now() - started)
                    .count();
  EXPECT_LT(micros / 1000.0, 50.0) << "microseconds per crafted head";
}

TEST(LineFraming, CutsLinesWhateverTheReadsAndSkipsOnesBeyondTheBound) {
  std::vector<std::string> lines;
  std::vector<size_t> oversized;
  LineFramer framer;
  auto feed = [&](std::string_view bytes) {
    framer.feed(
        bytes, [&](std::string_view line) { lines.emplace_back(line); },
        [&](size_t length) { oversized.push_back(length); });
  };
  for (char c : std::string("ab\r\ncd")) feed(std::string(1, c));  // one byte a read
  feed(std::string("\nx\n\nn\0l\ny", 9));
  EXPECT_EQ(lines, (std::vector<std::string>{"ab\r", "cd", "x", "", std::string("n\0l", 3)}));
  std::string big(12000, 'b');
  feed(big.substr(0, 5000));
  feed(big.substr(5000) + "\n");
  EXPECT_EQ(lines.back(), "y" + big);
  EXPECT_TRUE(oversized.empty());

  const std::string chunk(1 << 20, 'z');
  feed("ok\nhead");
  for (size_t sent = 4; sent <= kMaxLineLength; sent += chunk.size()) feed(chunk);
  EXPECT_LT(framer.pending_.capacity(), 2 * kReadBufferSize);  // memory stays bounded
  feed("tail\nnext\n");
  ASSERT_EQ(oversized.size(), 1u);
  EXPECT_EQ(oversized[0], 4 + 64 * chunk.size() + 4);
  EXPECT_EQ(lines.end()[-2], "ok");
  EXPECT_EQ(lines.back(), "next");
  // One read that holds a whole over-long line.
  feed(std::string(kMaxLineLength + 1, 'q') + "\nlast\n");
  EXPECT_EQ(oversized.back(), kMaxLineLength + 1);
  EXPECT_EQ(lines.back(), "last");
}

}  // namespace
}  // namespace kesh
