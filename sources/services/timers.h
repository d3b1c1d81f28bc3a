#pragma once

#include <uv.h>
#include <v8.h>

#include <cstdint>

namespace kesh {

struct ThreadComponent;

// One script timer. Its firing only queues calls; the queue runs them where a script may run.
struct TimerHandle {
  uv_timer_t* timer_ = nullptr;  // owned until its close starts; freed by the close callback
  v8::Persistent<v8::Function> callback_;
  v8::Persistent<v8::Value> extra_;                 // kept alive with the timer, never passed on
  v8::Persistent<v8::Promise::Resolver> resolver_;  // empty once settled or given up
  v8::Isolate* isolate_ = nullptr;
  uint32_t id_ = 0;

  TimerHandle() = default;
  TimerHandle(const TimerHandle&) = delete;
  TimerHandle& operator=(const TimerHandle&) = delete;
  ~TimerHandle();
};

// Starts a timer a script asked for, counted from this moment. The loop's clock stands still while
// JavaScript runs, so after a long synchronous stretch it lags behind; and it counts whole
// milliseconds, cut down, so a nonzero delay gets one more. Together: never a firing before the
// delay has passed.
void startFromNow(uv_timer_t* timer, uv_timer_cb callback, uint64_t ms, uint64_t repeat);

// Stops and closes the timer's handle in any state and releases its script values.
void closeTimer(TimerHandle* handle);

// Closes every timer of a Vuser that is ending; the records stay in the map.
void closeAllTimers(ThreadComponent* component);

void InstallTimerFunctions(ThreadComponent* component, v8::Local<v8::Object> target);

}  // namespace kesh
