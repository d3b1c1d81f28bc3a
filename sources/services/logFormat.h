#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kesh {

enum class LogLevel : int32_t { kError = 0, kWarning = 1, kInfo = 2, kDebug = 3, kTrace = 4 };

// Id of a line logged on nobody's behalf.
constexpr uint32_t kNoVuser = 0xFFFFFFFFu;

const char* levelName(LogLevel level);

// Replaces each single '%' by the next argument and "%%" by '%'. Once the arguments run out the
// rest of the format is copied unchanged; arguments beyond the placeholders are dropped.
void expandFormat(std::string& out, std::string_view format, const std::string* args, size_t count);

// "(tid) " then "Vuser [id] " unless vuserId is kNoVuser.
void appendLinePrefix(std::string& out, uint64_t threadId, uint32_t vuserId);

// "component - text", or the text alone when the component is empty.
std::string displayText(std::string_view component, std::string_view text);

// The kernel's id of the calling thread.
uint64_t currentThreadId();

}  // namespace kesh
