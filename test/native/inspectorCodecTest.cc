#include <gtest/gtest.h>

#include <cstring>

#include "inspector/base64.h"
#include "inspector/inspectorSocket.h"
#include "inspector/inspectorSocketServer.h"
#include "wsClientFrame.h"

namespace kesh {
namespace {

FrameResult decode(const std::string& bytes, std::string* payload = nullptr, int* used = nullptr) {
  bool compressed = false;
  std::vector<char> out;
  int consumed = 0;
  FrameResult result = DecodeFrame(bytes.data(), bytes.size(), &compressed, &out, &consumed);
  if (payload != nullptr) payload->assign(out.begin(), out.end());
  if (used != nullptr) *used = consumed;
  return compressed ? FrameResult::kFrameError : result;  // the socket treats both alike
}

TEST(InspectorCodec, Base64AcceptKeyAndJson) {
  const char* vectors[][2] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"\xFB\xFF\xBF", "+/+/"}};
  for (auto& v : vectors) {
    EXPECT_EQ(base64Encode(reinterpret_cast<const uint8_t*>(v[0]), strlen(v[0])), v[1]);
  }
  EXPECT_EQ(WebSocketAcceptKey("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
  EXPECT_EQ(JsonList({}), "[ ]\n\n");
  EXPECT_EQ(EscapeJsonValue("a\"b\\c\n'"), "a_b_c\n'");
}

TEST(InspectorCodec, EncodeUsesTheThreeLengthForms) {
  std::pair<size_t, std::string> cases[] = {{0, std::string("\x81\x00", 2)},
                                            {125, "\x81\x7D"},
                                            {126, std::string("\x81\x7E\x00\x7E", 4)},
                                            {65535, "\x81\x7E\xFF\xFF"},
                                            {65536, std::string("\x81\x7F\0\0\0\0\0\x01\0\0", 10)}};
  for (const auto& [length, head] : cases) {
    std::string payload(length, 'p');
    std::vector<char> frame = EncodeFrame(payload.data(), payload.size());
    EXPECT_EQ(std::string(frame.begin(), frame.end()), head + payload) << length;
  }
}

TEST(InspectorCodec, DecodeWaitsForWholeFramesAndRefusesTheRest) {
  for (size_t n : {0, 125, 126, 65535, 65536}) {
    std::string payload(n, 'x');
    for (size_t i = 0; i < n; ++i) payload[i] = static_cast<char>(i * 7);
    std::string frame = clientFrame(0x81, payload), out;
    int used = 0;
    ASSERT_EQ(decode(frame + "next", &out, &used), FrameResult::kFrameOk) << n;
    EXPECT_EQ(out, payload);
    EXPECT_EQ(static_cast<size_t>(used), frame.size());
    for (size_t cut : {size_t(1), size_t(3), frame.size() - 1}) {
      EXPECT_EQ(decode(frame.substr(0, cut)), FrameResult::kFrameIncomplete) << n << "/" << cut;
    }
  }
  EXPECT_EQ(decode(clientFrame(0x88, "")), FrameResult::kFrameClose);
  std::string unmasked = clientFrame(0x81, "hi");
  unmasked[1] = 2;
  EXPECT_EQ(decode(unmasked), FrameResult::kFrameError);
  // Fragment, binary, continuation, ping, pong, reserved bits, compression.
  for (uint8_t first : {0x01, 0x82, 0x80, 0x89, 0x8A, 0xA1, 0x91, 0xC1}) {
    EXPECT_EQ(decode(clientFrame(first, "hi")), FrameResult::kFrameError) << int(first);
  }
  // Too long: refused as soon as the length field is in, without waiting for the payload.
  EXPECT_EQ(decode(std::string("\x81\xFF\0\0\0\0\x01\0\0\x01", 10)), FrameResult::kFrameError);
  EXPECT_EQ(decode(std::string("\x81\xFF\x80\0\0\0\0\0\0\0", 10)), FrameResult::kFrameError);
}

TEST(InspectorCodec, HostsThatNameAnAddressOrLocalhost) {
  for (const char* host : {"127.0.0.1:9229", " 10.1.2.3 \t", "LocalHost:80", "[::1]",
                           "[fe80::1:2]:1", "[::ffff:127.0.0.1]"}) {
    EXPECT_TRUE(IsAllowedHost(host)) << host;
  }
  for (const char* host :
       {"", "evil.example:9229", "localhost.evil.example", "127.0.0.1.evil.example",
        "localhost:", "localhost:92x9", "localhost:123456", "127.0.0.1:9229:1", "::1", "[::1",
        "[::1]x", "[localhost]", "[127.0.0.1]", "127.1", "0x7f.0.0.1", "localhost\x01"}) {
    EXPECT_FALSE(IsAllowedHost(host)) << host;
  }
  EXPECT_FALSE(IsAllowedHost(std::string("127.0.0.1\0.evil.example", 23)));
}

}  // namespace
}  // namespace kesh
