#pragma once

#include <uv.h>
#include <v8.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <type_traits>

#include "services/componentNames.h"
#include "services/logFormat.h"

namespace kesh {

// Threshold of logf; read on every thread, written on the main thread.
extern std::atomic<int32_t> currentLogLevel;
// True: lines go straight to standard output. False: they are queued for the runner's callback.
extern std::atomic<bool> directOutput;

// Bounds of the queue between the threads that log and the main thread that delivers: a flood
// must not grow the runner's memory without limit. Lines beyond them are counted, and the count
// is delivered as one Warning line once there is room again.
inline constexpr size_t kMaxQueuedLines = 100000;
inline constexpr size_t kMaxQueuedBytes = 64u << 20;
// One delivery pass gives the runner's event loop back after this long.
inline constexpr uint64_t kDeliverySliceNanos = 5'000'000;

struct LogRecord {
  std::string levelName;
  std::string text;
  std::string component;
};

// Process-wide log channel. Any thread builds lines; only the main thread delivers them.
class KeshLogger {
 public:
  uv_async_t async_;  // first member: the async callback finds the logger through it
  v8::Global<v8::Function> callback_;
  std::mutex mutex_;
  std::deque<std::unique_ptr<LogRecord>> queue_;
  size_t queued_bytes_ = 0;   // under mutex_
  size_t dropped_lines_ = 0;  // under mutex_

  KeshLogger();
  ~KeshLogger();
  KeshLogger(const KeshLogger&) = delete;
  KeshLogger& operator=(const KeshLogger&) = delete;

  // Creates the logger on first use; after close() has released it, the next use makes a new one.
  static KeshLogger* instance();

  // Whether a plain line at this level is produced: Debug and trace lines only at level debug,
  // so that a busy Vuser costs no line, no string and no wake-up of the main thread.
  static bool produces(LogLevel level) {
    return level < LogLevel::kDebug || currentLogLevel.load(std::memory_order_relaxed) >=
                                           static_cast<int32_t>(LogLevel::kDebug);
  }

  static void log(LogLevel level, const char* component, uint32_t vuserId,
                  const std::string& message) {
    if (produces(level)) emitPlain(level, component, vuserId, message);
  }
  static void log(LogLevel level, const char* component, const std::string& message) {
    log(level, component, kNoVuser, message);
  }
  static void log(LogLevel level, const char* component, uint32_t vuserId, const char* message) {
    if (produces(level)) emitPlain(level, component, vuserId, message);
  }
  static void log(LogLevel level, const char* component, const char* message) {
    log(level, component, kNoVuser, message);
  }

  template <typename... Args>
  static void logf(LogLevel level, const char* component, uint32_t vuserId, const char* format,
                   const Args&... args) {
    if (static_cast<int32_t>(level) > currentLogLevel.load(std::memory_order_relaxed)) return;
    const std::string texts[] = {std::string(), toText(args)...};
    emitFormatted(level, component, vuserId, format, texts + 1, sizeof...(Args));
  }
  template <typename... Args>
  static void logf(LogLevel level, const char* component, const char* format, const Args&... args) {
    logf(level, component, kNoVuser, format, args...);
  }

  // No filter and no Vuser prefix; the level name is whatever the script passed.
  static void logRaw(const std::string& levelName, const char* component,
                     const std::string& message);

  // Main thread only: hands every queued line to the runner's callback.
  void drain();
  // Main thread only: last delivery, back to standard output, close of the async handle.
  void close();

  // Any thread, on the way to a fatal exit: what the queue holds goes to standard output.
  static void flushToStandardOutput();

  // Direct write or queue, as directOutput says.
  static void handOver(std::unique_ptr<LogRecord> record);
  // The close callback's end of the logger; the next instance() makes a new one.
  static void release(KeshLogger* logger);

 private:
  static std::atomic<KeshLogger*> current_;

  static void emitPlain(LogLevel level, const char* component, uint32_t vuserId,
                        std::string_view message);
  // Takes a record under mutex_, or counts it as dropped when the queue is full.
  bool enqueue(std::unique_ptr<LogRecord> record);
  // The count of dropped lines as one line, queued behind what is there.
  void reportDropped();

  static void emitFormatted(LogLevel level, const char* component, uint32_t vuserId,
                            const char* format, const std::string* args, size_t count);

  template <typename T>
  static std::string toText(const T& value) {
    if constexpr (std::is_convertible_v<const T&, std::string>) {
      return std::string(value);
    } else if constexpr (std::is_integral_v<T>) {
      return std::to_string(value);
    } else {
      std::ostringstream out;
      out << value;
      return out.str();
    }
  }
};

}  // namespace kesh

namespace kesh {
// Puts setLogLevel and onLogMessage on the add-on's exports.
v8::Local<v8::Object> InstallLoggerExports(v8::Local<v8::Object> exports);
}  // namespace kesh
