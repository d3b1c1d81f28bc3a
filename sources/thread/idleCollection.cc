#include "thread/idleCollection.h"

#include <uv.h>
#include <v8.h>

#include "base/check.h"
#include "vuser/enteredVuser.h"

namespace kesh {

namespace {

void onIdleCheck(uv_timer_t* timer) {
  auto* tc = static_cast<ThreadComponent*>(timer->data);
  bool idle = tc->script_calls_ == tc->script_calls_at_check_;
  tc->script_calls_at_check_ = tc->script_calls_;
  if (!idle) {
    tc->collected_while_idle_ = false;
    return;
  }
  if (tc->collected_while_idle_) return;  // once per quiet stretch
  tc->collected_while_idle_ = true;
  EnteredVuser here(tc->isolate_);
  v8::Isolate* isolate = here.isolate();
  v8::HeapStatistics heap;
  isolate->GetHeapStatistics(&heap);
  if (heap.used_heap_size() < tc->heap_after_collection_ + kHeapGrowthBeforeCollection) return;
  isolate->LowMemoryNotification();
  isolate->GetHeapStatistics(&heap);
  tc->heap_after_collection_ = heap.used_heap_size();
}

}  // namespace

void startIdleCollection(ThreadComponent* tc) {
  tc->script_calls_at_check_ = tc->script_calls_;
  tc->idle_check_timer_.data = tc;
  KESH_CHECK_EQ(uv_timer_init(tc->loop_, &tc->idle_check_timer_), 0);
  uv_timer_start(&tc->idle_check_timer_, onIdleCheck, kFirstIdleCheckMs, kIdleCheckMs);
  uv_unref(reinterpret_cast<uv_handle_t*>(&tc->idle_check_timer_));
}

}  // namespace kesh
