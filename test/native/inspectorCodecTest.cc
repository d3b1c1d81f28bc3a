#include <gtest/gtest.h>

#include "inspector/base64.h"
#include "inspector/inspectorSocket.h"
#include "inspector/inspectorSocketServer.h"
#include "wsClientFrame.h"

namespace kesh {
namespace {

std::string b64(const std::string& text) {
  return base64Encode(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

FrameResult decode(const std::string& bytes, std::string* payload = nullptr,
                   int* consumed = nullptr, bool* compressed = nullptr) {
  bool flag = false;
  std::vector<char> out;
  int used = -1;
  FrameResult result = DecodeFrame(bytes.data(), bytes.size(), &flag, &out, &used);
  if (payload) payload->assign(out.begin(), out.end());
  if (consumed) *consumed = used;
  if (compressed) *compressed = flag;
  return result;
}

TEST(InspectorCodec, Base64AndAcceptKey) {
  // RFC 4648 test vectors, then bytes that use the last two letters of the alphabet.
  const char* vectors[][2] = {{"", ""},
                              {"f", "Zg=="},
                              {"fo", "Zm8="},
                              {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="},
                              {"fooba", "Zm9vYmE="},
                              {"foobar", "Zm9vYmFy"}};
  for (auto& v : vectors) EXPECT_EQ(b64(v[0]), v[1]);
  EXPECT_EQ(b64("\xFB\xFF\xBF"), "+/+/");
  EXPECT_EQ(WebSocketAcceptKey("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
}

TEST(InspectorCodec, EncodeUsesTheThreeLengthForms) {
  struct Case {
    size_t length;
    std::string head;
  } cases[] = {{0, std::string("\x81\x00", 2)},
               {125, "\x81\x7D"},
               {126, std::string("\x81\x7E\x00\x7E", 4)},
               {65535, "\x81\x7E\xFF\xFF"},
               {65536, std::string("\x81\x7F\0\0\0\0\0\x01\0\0", 10)}};
  for (const Case& c : cases) {
    std::string payload(c.length, 'p');
    std::vector<char> frame = EncodeFrame(payload.data(), payload.size());
    const std::string& head = c.head;
    ASSERT_EQ(frame.size(), head.size() + c.length) << c.length;
    EXPECT_EQ(std::string(frame.begin(), frame.begin() + head.size()), head) << c.length;
    EXPECT_EQ(std::string(frame.begin() + head.size(), frame.end()), payload);
  }
}

TEST(InspectorCodec, DecodeUnmasksAndWaitsForWholeFrames) {
  for (size_t n : {0, 5, 125, 126, 65535, 65536}) {
    std::string payload(n, 'x');
    for (size_t i = 0; i < n; ++i) payload[i] = static_cast<char>(i * 7);
    std::string frame = clientFrame(0x81, payload) + "tail";
    std::string out;
    int consumed = 0;
    ASSERT_EQ(decode(frame, &out, &consumed), FrameResult::kFrameOk) << n;
    EXPECT_EQ(out, payload);
    EXPECT_EQ(static_cast<size_t>(consumed), frame.size() - 4);
    // Every prefix of the frame is incomplete, none an error.
    for (size_t cut : {size_t(0), size_t(1), size_t(2), size_t(3), frame.size() - 5}) {
      EXPECT_EQ(decode(frame.substr(0, cut)), FrameResult::kFrameIncomplete) << n << " " << cut;
    }
  }
  EXPECT_EQ(decode(clientFrame(0x88, "")), FrameResult::kFrameClose);
}

TEST(InspectorCodec, DecodeRefusesWhatTheEndpointDoesNotSpeak) {
  std::string ok = clientFrame(0x81, "hi");
  std::string unmasked = ok;
  unmasked[1] = static_cast<char>(unmasked[1] & 0x7F);
  EXPECT_EQ(decode(unmasked), FrameResult::kFrameError);
  for (uint8_t first : {0x01, 0x82, 0x80, 0x89, 0x8A, 0xA1, 0x91}) {  // fragment, binary, ...
    EXPECT_EQ(decode(clientFrame(first, "hi")), FrameResult::kFrameError) << int(first);
  }
  bool compressed = false;
  decode(clientFrame(0xC1, "hi"), nullptr, nullptr, &compressed);
  EXPECT_TRUE(compressed);
  // Lengths beyond the limit fail as soon as the length field is in, the payload never waited for.
  std::string huge("\x81\xFF\0\0\0\0\x01\0\0\x01", 10);
  EXPECT_EQ(decode(huge), FrameResult::kFrameError);
  std::string top("\x81\xFF\x80\0\0\0\0\0\0\0", 10);
  EXPECT_EQ(decode(top), FrameResult::kFrameError);
}

TEST(InspectorCodec, JsonTextAndAddresses) {
  EXPECT_EQ(JsonList({}), "[ ]\n\n");
  EXPECT_EQ(JsonObject({{"b", "2"}, {"a", "1"}}), "{\n  \"a\": \"1\",\n  \"b\": \"2\"\n} ");
  EXPECT_EQ(JsonList({{{"k", "v"}}, {{"k", "w"}}}),
            "[ {\n  \"k\": \"v\"\n} , {\n  \"k\": \"w\"\n} ]\n\n");
  EXPECT_EQ(EscapeJsonValue("a\"b\\c\n'"), "a_b_c\n'");
  EXPECT_EQ(FormatWsAddress("::1", 9229, "id", true), "ws://[::1]:9229/id");
  EXPECT_EQ(FormatWsAddress("127.0.0.1", 1, "", false), "127.0.0.1:1/");
}

TEST(InspectorCodec, PathSegments) {
  EXPECT_STREQ(MatchPathSegment("/json", "/json"), "");
  EXPECT_STREQ(MatchPathSegment("/JSON/list/x", "/json"), "list/x");
  EXPECT_STREQ(MatchPathSegment("list/x", "list"), "x");
  EXPECT_EQ(MatchPathSegment("/jsonx", "/json"), nullptr);
  EXPECT_EQ(MatchPathSegment("/json?a=1", "/json"), nullptr);
  EXPECT_EQ(MatchPathSegment("/js", "/json"), nullptr);
  EXPECT_STREQ(MatchPathSegment("VerSion", "version"), "");
}

}  // namespace
}  // namespace kesh
