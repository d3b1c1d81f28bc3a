#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "network/wireFormat.h"

namespace kesh {
namespace {

MessageHeader header(const std::string& line) { return readMessageHeader(line); }

std::string failure(const std::string& line) {
  try {
    readMessageHeader(line);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

TEST(MessageHeader, ReadsTheThreeFieldsAnywhereInTheFirst300Bytes) {
  MessageHeader h = header(R"({"x":1, "messageId": -7,"a":2,"socketId":"ws_1","responseType": 1})");
  EXPECT_EQ(h.message_id_, -7);
  EXPECT_EQ(h.socket_id_, "ws_1");
  EXPECT_EQ(h.response_type_, 1);
  // Keys in another case match; an empty socket id is valid.
  h = header(R"({"MESSAGEID":12,"SocketId":"","responsetype":0})");
  EXPECT_EQ(h.message_id_, 12);
  EXPECT_EQ(h.socket_id_, "");
  EXPECT_EQ(h.response_type_, 0);
  // Only the first 300 bytes are searched, whatever follows.
  std::string padded =
      R"({"messageId":1,"socketId":"","pad":")" + std::string(300, 'p') + R"(","responseType":0})";
  EXPECT_EQ(failure(padded), "no message info found in response");
  EXPECT_EQ(header(R"({"messageId":1,"socketId":"","responseType":0,"tail":")" +
                   std::string(10000, 't') + "\"}")
                .message_id_,
            1);
}

TEST(MessageHeader, RefusesLinesItCannotRoute) {
  EXPECT_EQ(failure(""), "received response is empty");
  EXPECT_EQ(failure(R"({"socketId":"","messageId":1,"responseType":0})"),
            "no message info found in response");  // keys out of order
  EXPECT_EQ(failure("not json at all"), "no message info found in response");
  EXPECT_EQ(failure(R"({"messageId":4294967296,"socketId":"","responseType":0})")
                .rfind("message header number does not fit 32 bits", 0),
            0u);
  EXPECT_EQ(failure(R"({"messageId":1,"socketId":"","responseType":99999999999})")
                .rfind("message header number does not fit 32 bits", 0),
            0u);
  EXPECT_EQ(header(R"({"messageId":-2147483648,"socketId":"","responseType":2})").message_id_,
            INT32_MIN);
}

TEST(LineFraming, CutsCompleteLinesAndKeepsThePartialOne) {
  std::vector<std::string> lines;
  std::string acc;
  auto feed = [&](const std::string& bytes) {
    acc += bytes;
    takeCompleteLines(acc, [&](const std::string& line) { lines.push_back(line); });
  };
  for (char c : std::string("ab\r\ncd")) feed(std::string(1, c));  // one byte a read
  feed("\nx\n\ny");
  EXPECT_EQ(lines, (std::vector<std::string>{"ab\r", "cd", "x", ""}));
  EXPECT_EQ(acc, "y");
  std::string big(12000, 'b');
  feed(big.substr(0, 5000));
  feed(big.substr(5000) + "\n");
  EXPECT_EQ(lines.back(), "y" + big);
  EXPECT_TRUE(acc.empty());
}

}  // namespace
}  // namespace kesh
