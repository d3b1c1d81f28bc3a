#include "vuser/vuserState.h"

#include "base/check.h"

namespace kesh {

namespace {

bool allowed(VuserState from, VuserState to) {
  using S = VuserState;
  switch (to) {
    case S::kStarting:
      return from == S::kCreated;
    case S::kRunning:
    case S::kFailed:
      return from == S::kStarting;
    case S::kStopping:
      return from == S::kStarting || from == S::kRunning || from == S::kFailed;
    case S::kStopped:
      return from == S::kStopping;
    case S::kJoined:
      return from == S::kStopped || from == S::kStarting;
    case S::kCreated:
      return false;
  }
  return false;
}

}  // namespace

const char* stateName(VuserState state) {
  static const char* const kNames[] = {"created",  "starting", "running", "failed",
                                       "stopping", "stopped",  "joined"};
  return kNames[static_cast<int>(state)];
}

bool StateCell::move(std::initializer_list<VuserState> from, VuserState to) {
  VuserState current = get();
  for (;;) {
    bool listed = false;
    for (VuserState candidate : from) listed = listed || candidate == current;
    if (!listed) return false;
    KESH_CHECK(allowed(current, to));
    if (state_.compare_exchange_weak(current, to, std::memory_order_acq_rel)) break;
  }
  // Taken once so that a waiter between its check and its wait cannot miss the change.
  { std::lock_guard<std::mutex> lock(mutex_); }
  changed_.notify_all();
  return true;
}

}  // namespace kesh
