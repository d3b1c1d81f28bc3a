#pragma once

#include <cstdint>
#include <string>

// A frame as a client sends it: final bit and opcode in `first`, masked with 1 2 3 4.
inline std::string clientFrame(uint8_t first, const std::string& payload) {
  std::string frame(1, static_cast<char>(first));
  size_t n = payload.size();
  if (n <= 125) {
    frame += static_cast<char>(0x80 | n);
  } else if (n <= 65535) {
    frame += {'\xFE', static_cast<char>(n >> 8), static_cast<char>(n)};
  } else {
    frame += '\xFF';
    for (int i = 7; i >= 0; --i) frame += static_cast<char>(uint64_t(n) >> (8 * i));
  }
  const char mask[4] = {1, 2, 3, 4};
  frame.append(mask, 4);
  for (size_t i = 0; i < n; ++i) frame += static_cast<char>(payload[i] ^ mask[i % 4]);
  return frame;
}
