#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kesh {

// RFC 4648 alphabet, padded with '=', no line breaks.
std::string base64Encode(const uint8_t* data, size_t length);

}  // namespace kesh
