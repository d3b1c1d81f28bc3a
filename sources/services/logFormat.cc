#include "services/logFormat.h"

#include <unistd.h>

namespace kesh {

const char* levelName(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return "Error";
    case LogLevel::kWarning:
      return "Warning";
    case LogLevel::kInfo:
      return "Info";
    case LogLevel::kDebug:
      return "Debug";
    case LogLevel::kTrace:
      return "trace";
  }
  return "BadLogLevel";
}

void expandFormat(std::string& out, std::string_view format, const std::string* args,
                  size_t count) {
  size_t next = 0;
  for (size_t i = 0; i < format.size(); ++i) {
    if (next == count) {
      out.append(format.substr(i));
      return;
    }
    char c = format[i];
    if (c != '%') {
      out.push_back(c);
    } else if (i + 1 < format.size() && format[i + 1] == '%') {
      out.push_back('%');
      ++i;
    } else {
      out.append(args[next++]);
    }
  }
}

void appendLinePrefix(std::string& out, uint64_t threadId, uint32_t vuserId) {
  out.push_back('(');
  out.append(std::to_string(threadId));
  out.append(") ");
  if (vuserId != kNoVuser) {
    out.append("Vuser [");
    out.append(std::to_string(vuserId));
    out.append("] ");
  }
}

std::string displayText(std::string_view component, std::string_view text) {
  std::string out;
  if (!component.empty()) {
    out.reserve(component.size() + 3 + text.size());
    out.append(component);
    out.append(" - ");
  }
  out.append(text);
  return out;
}

uint64_t currentThreadId() {
  thread_local const uint64_t tid = static_cast<uint64_t>(gettid());
  return tid;
}

}  // namespace kesh
