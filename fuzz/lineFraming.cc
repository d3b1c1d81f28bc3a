// Received bytes as the service's socket hands them over: cut into reads of sizes the input
// chooses, framed into lines, each line's header read. The lines must be exactly the input's
// lines, and each head must read as the regular expression the reader replaced reads it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "headerReference.h"
#include "network/wireFormat.h"

namespace {

// Heads compared with the regular expression per input: it is far slower than the reader.
constexpr size_t kComparedHeads = 4;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks the read size: 1 to 255 bytes, or 0 for one read of everything.
  size_t readSize = data[0] == 0 ? size : data[0];
  std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

  kesh::LineFramer framer;
  std::vector<std::string> lines;
  size_t oversized = 0;
  for (size_t at = 0; at < bytes.size(); at += readSize) {
    framer.feed(
        bytes.substr(at, readSize),
        [&](std::string_view line) {
          if (lines.size() < kComparedHeads) {
            std::string text(line);
            if (kesh::reference::reading(text) !=
                kesh::reference::normalised(kesh::reference::referenceReading(text))) {
              __builtin_trap();
            }
          } else {
            try {
              kesh::readMessageHeader(line);
            } catch (const std::runtime_error&) {
            }
          }
          lines.emplace_back(line);
        },
        [&](size_t) { ++oversized; });
  }
  // Inputs stay far below the bound, so every line comes out, and what is left waits whole.
  if (oversized != 0) __builtin_trap();
  std::string joined;
  for (const std::string& line : lines) joined += line + '\n';
  if (joined + framer.pending_ != bytes) __builtin_trap();
  return 0;
}
