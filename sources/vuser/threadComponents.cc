#include "vuser/threadComponents.h"

#include <cstdlib>

#include "base/check.h"

namespace kesh {

AsyncCallbackEntry makeAsyncCallback(v8::Isolate* isolate, v8::Local<v8::Function> function,
                                     v8::Local<v8::Value> argument) {
  auto callback = std::make_unique<AsyncCallback>();
  callback->function_.Reset(isolate, function);
  callback->argument_.Reset(isolate, argument);
  return callback;
}

void wakeVuser(ThreadComponent& vuser) {
  std::lock_guard<std::mutex> lock(vuser.wake_mutex_);
  if (vuser.wake_open_) uv_async_send(&vuser.wake_);
}

void openWake(ThreadComponent& vuser, uv_async_cb callback) {
  std::lock_guard<std::mutex> lock(vuser.wake_mutex_);
  KESH_CHECK(!vuser.wake_open_);
  vuser.wake_.data = &vuser;
  KESH_CHECK_EQ(uv_async_init(vuser.loop_, &vuser.wake_, callback), 0);
  vuser.wake_open_ = true;
  uv_async_send(&vuser.wake_);
}

void closeWake(ThreadComponent& vuser) {
  std::lock_guard<std::mutex> lock(vuser.wake_mutex_);
  if (!vuser.wake_open_) return;
  vuser.wake_open_ = false;
  uv_close(reinterpret_cast<uv_handle_t*>(&vuser.wake_), nullptr);
}

bool terminateScript(ThreadComponent& vuser) {
  std::lock_guard<std::mutex> lock(vuser.wake_mutex_);
  if (!vuser.isolate_alive_) return false;
  vuser.isolate_->TerminateExecution();
  return true;
}

void closeHeapTimer(uv_timer_t*& timer) {
  if (timer == nullptr) return;
  uv_close(reinterpret_cast<uv_handle_t*>(timer), [](uv_handle_t* closed) { free(closed); });
  timer = nullptr;
}

void resumeQueueDrain(ThreadComponent& vuser) {
  // A stopping Vuser has closed its hook for good.
  if (isStopping(vuser.state_.get()) || vuser.drain_callback_ == nullptr) return;
  vuser.async_callbacks_prepare_.data = &vuser;
  uv_prepare_start(&vuser.async_callbacks_prepare_, vuser.drain_callback_);
}

void pauseQueueDrain(ThreadComponent& vuser) { uv_prepare_stop(&vuser.async_callbacks_prepare_); }

}  // namespace kesh
