// The part of the logger that builds and routes lines; it touches neither V8 nor the callback.
#include "services/KeshLogger.h"

#include <cstdio>

namespace kesh {

std::atomic<int32_t> currentLogLevel{static_cast<int32_t>(LogLevel::kInfo)};
std::atomic<bool> directOutput{true};

std::atomic<KeshLogger*> KeshLogger::current_{nullptr};

namespace {

void writeDirect(const LogRecord& record) {
  std::string line;
  line.reserve(record.levelName.size() + record.component.size() + record.text.size() + 8);
  line.push_back('[');
  line.append(record.levelName);
  line.append("]: ");
  line.append(displayText(record.component, record.text));
  line.push_back('\n');
  // One write per line keeps lines of different threads from mixing inside a line.
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
}
}  // namespace

void KeshLogger::handOver(std::unique_ptr<LogRecord> record) {
  if (directOutput.load(std::memory_order_acquire)) {
    writeDirect(*record);
    return;
  }
  KeshLogger* logger = current_.load(std::memory_order_acquire);
  if (logger == nullptr) {  // released by close(): nobody left to deliver to
    writeDirect(*record);
    return;
  }
  if (logger->enqueue(std::move(record))) uv_async_send(&logger->async_);
}

void KeshLogger::flushToStandardOutput() {
  directOutput.store(true);
  KeshLogger* logger = current_.load(std::memory_order_acquire);
  if (logger == nullptr) return;
  // A fatal check may fire while this thread holds the queue's lock: then the lines stay.
  std::unique_lock<std::mutex> lock(logger->mutex_, std::try_to_lock);
  if (!lock.owns_lock()) return;
  for (const auto& record : logger->queue_) writeDirect(*record);
  logger->queue_.clear();
}

bool KeshLogger::enqueue(std::unique_ptr<LogRecord> record) {
  size_t bytes = record->text.size() + record->component.size() + record->levelName.size();
  std::lock_guard<std::mutex> lock(mutex_);
  if (queue_.size() >= kMaxQueuedLines || queued_bytes_ + bytes > kMaxQueuedBytes) {
    // The wake-up for what is queued is already on its way.
    ++dropped_lines_;
    return false;
  }
  queued_bytes_ += bytes;
  queue_.push_back(std::move(record));
  return true;
}

void KeshLogger::reportDropped() {
  size_t dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    dropped = dropped_lines_;
    dropped_lines_ = 0;
  }
  if (dropped == 0) return;
  logf(LogLevel::kWarning, component::kKeshLogger,
       "% log lines were dropped: they came faster than the runner's callback took them", dropped);
}

void KeshLogger::emitPlain(LogLevel level, const char* component, uint32_t vuserId,
                           std::string_view message) {
  auto record = std::make_unique<LogRecord>();
  record->levelName = levelName(level);
  record->text.reserve(32 + message.size());
  appendLinePrefix(record->text, currentThreadId(), vuserId);
  record->text.append(message);
  record->component = component;
  handOver(std::move(record));
}

void KeshLogger::emitFormatted(LogLevel level, const char* component, uint32_t vuserId,
                               const char* format, const std::string* args, size_t count) {
  auto record = std::make_unique<LogRecord>();
  record->levelName = levelName(level);
  appendLinePrefix(record->text, currentThreadId(), vuserId);
  expandFormat(record->text, format, args, count);
  record->component = component;
  handOver(std::move(record));
}

void KeshLogger::logRaw(const std::string& levelName, const char* component,
                        const std::string& message) {
  auto record = std::make_unique<LogRecord>();
  record->levelName = levelName;
  appendLinePrefix(record->text, currentThreadId(), kNoVuser);
  record->text.append(message);
  record->component = component;
  handOver(std::move(record));
}

}  // namespace kesh
