#include "inspector/base64.h"

namespace kesh {

std::string base64Encode(const uint8_t* data, size_t length) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((length + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= length; i += 3) {
    uint32_t group = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
    out.push_back(kAlphabet[(group >> 18) & 0x3F]);
    out.push_back(kAlphabet[(group >> 12) & 0x3F]);
    out.push_back(kAlphabet[(group >> 6) & 0x3F]);
    out.push_back(kAlphabet[group & 0x3F]);
  }
  if (i < length) {
    uint32_t group = data[i] << 16;
    if (i + 1 < length) group |= data[i + 1] << 8;
    out.push_back(kAlphabet[(group >> 18) & 0x3F]);
    out.push_back(kAlphabet[(group >> 12) & 0x3F]);
    out.push_back(i + 1 < length ? kAlphabet[(group >> 6) & 0x3F] : '=');
    out.push_back('=');
  }
  return out;
}

}  // namespace kesh
