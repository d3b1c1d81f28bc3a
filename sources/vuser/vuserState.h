#pragma once

#include <atomic>
#include <condition_variable>
#include <initializer_list>
#include <mutex>

namespace kesh {

// A Vuser's life. Created -> Starting (main thread, on start) -> Running or Failed (Vuser thread,
// once the script ran or failed; a failed Vuser keeps its loop like a running one) -> Stopping
// (any thread: a stop, process.exit() in the script, a rejected run function) -> Stopped (Vuser
// thread, when everything it owned is released) -> Joined (main thread, after the join). A Vuser
// whose thread could not start goes from Starting straight to Joined.
enum class VuserState : int {
  kCreated,
  kStarting,
  kRunning,
  kFailed,
  kStopping,
  kStopped,
  kJoined
};

const char* stateName(VuserState state);

inline bool isStopping(VuserState state) { return state >= VuserState::kStopping; }

// The one place a Vuser's state changes. Readable from any thread without a lock.
class StateCell {
 public:
  VuserState get() const { return state_.load(std::memory_order_acquire); }
  // Moves to `to` from the state it is in, when that is one of `from`; false when it is not (for
  // example a stop that another thread asked for first). A move the life above does not allow is
  // a programming error and fails a check.
  bool move(std::initializer_list<VuserState> from, VuserState to);
  // Blocks until the state is `until` or later, or `timeout` has passed; true when it is.
  template <typename Duration>
  bool waitFor(VuserState until, Duration timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return get() >= until; });
  }

 private:
  std::atomic<VuserState> state_{VuserState::kCreated};
  std::mutex mutex_;  // only for the waits
  std::condition_variable changed_;
};

}  // namespace kesh
