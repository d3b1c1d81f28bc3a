#include "services/timers.h"

#include <node.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <mutex>
#include <string>

#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"
#include "services/numberChecks.h"
#include "vuser/threadComponents.h"

namespace kesh {

void startFromNow(uv_timer_t* timer, uv_timer_cb callback, uint64_t ms, uint64_t repeat) {
  uv_update_time(timer->loop);
  uv_timer_start(timer, callback, ms != 0 && ms != UINT64_MAX ? ms + 1 : ms, repeat);
}

namespace {

constexpr const char* kComponent = component::kTimers;

void SettleTimerPromise(const v8::FunctionCallbackInfo<v8::Value>& info);

// A queued call of SettleTimerPromise with { 0: id, 1: false }; null if it cannot be made.
AsyncCallbackEntry makeSettleCallback(v8::Isolate* isolate, uint32_t id) {
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Function> function;
  if (!v8::Function::New(context, SettleTimerPromise).ToLocal(&function)) return nullptr;
  v8::Local<v8::Object> argument = v8::Object::New(isolate);
  if (argument->Set(context, 0, v8::Integer::NewFromUnsigned(isolate, id)).IsNothing() ||
      argument->Set(context, 1, v8::False(isolate)).IsNothing()) {
    return nullptr;
  }
  return makeAsyncCallback(isolate, function, argument);
}

void onTimerFired(uv_timer_t* timer) {
  auto* handle = static_cast<TimerHandle*>(timer->data);
  EnteredVuser here(handle->isolate_);
  v8::Isolate* isolate = here.isolate();
  {
    ThreadComponent* tc = &here.vuser();
    KeshLogger::logf(LogLevel::kDebug, kComponent, tc->vuser_id_, "calling timer [%] callback",
                     handle->id_);
    std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
    if (!handle->callback_.IsEmpty()) {
      tc->async_callbacks_.push_back(
          makeAsyncCallback(isolate, v8::Local<v8::Function>::New(isolate, handle->callback_),
                            v8::Object::New(isolate)));
    }
    // The script's function runs before the promise of a one-shot timer settles.
    if (uv_timer_get_repeat(timer) == 0) {
      if (AsyncCallbackEntry settle = makeSettleCallback(isolate, handle->id_)) {
        tc->async_callbacks_.push_back(std::move(settle));
      }
    }
  }
}

void SettleTimerPromise(const v8::FunctionCallbackInfo<v8::Value>& info) {
  EnteredVuser here(info.GetIsolate());
  v8::Isolate* isolate = here.isolate();
  {
    v8::Local<v8::Context> context = here.context();
    ThreadComponent* tc = &here.vuser();
    const char* failure = nullptr;
    {
      node::CallbackScope callbackScope(isolate, here.callbackResource(), {0, 0});
      v8::TryCatch tryCatch(isolate);
      v8::Local<v8::Value> idValue;
      v8::Local<v8::Value> rejectValue;
      if (!info[0]->IsObject()) {
        failure = "Cannot resolve timer promise due to wrong arguments";
      } else if (!info[0].As<v8::Object>()->Get(context, 0).ToLocal(&idValue) ||
                 !info[0].As<v8::Object>()->Get(context, 1).ToLocal(&rejectValue)) {
        failure = "Cannot resolve timer promise due to error";
      } else {
        auto id = static_cast<int32_t>(idValue->Uint32Value(context).FromMaybe(0));
        auto found = tc->timers_.find(id);
        bool settled = false;
        if (found != tc->timers_.end() && !found->second->resolver_.IsEmpty()) {
          TimerHandle* handle = found->second.get();
          auto resolver = v8::Local<v8::Promise::Resolver>::New(isolate, handle->resolver_);
          v8::Local<v8::Value> undefined = v8::Undefined(isolate);
          settled = (rejectValue->BooleanValue(isolate) ? resolver->Reject(context, undefined)
                                                        : resolver->Resolve(context, undefined))
                        .FromMaybe(false);
          handle->resolver_.Reset();
          // Settled for good: the record goes, so that a Vuser that sleeps a million times holds
          // no million timers. Its id still reads as a stopped timer.
          tc->timers_.erase(found);
        }
        if (!settled || tryCatch.HasCaught()) failure = "Cannot resolve timer promise due to error";
      }
    }
    // Thrown outside the callback scope, so that it reaches the queue's own handler.
    if (failure != nullptr) LogAndThrowError(isolate, kComponent, failure);
  }
}

// The timer named by the first argument. Ids are handed out from 0 upwards and shown unsigned;
// a number outside that range names no timer. A value that is not a number is refused. An id
// handed out before whose timer has settled gives null with *settled set, and no error.
TimerHandle* findTimer(v8::Isolate* isolate, const v8::FunctionCallbackInfo<v8::Value>& info,
                       const char* function, int64_t* shownId, bool* settled) {
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  if (!info[0]->IsNumber()) {
    std::string text = std::string(function) + ": the timer id must be a number";
    KeshLogger::log(LogLevel::kError, kComponent, text);
    isolate->ThrowException(v8::Exception::TypeError(ToV8String(isolate, text)));
    return nullptr;
  }
  int64_t value = info[0]->IntegerValue(context).FromMaybe(-1);
  *shownId = static_cast<uint32_t>(value);
  TimerHandle* handle = nullptr;
  if (value >= 0 && value <= std::numeric_limits<uint32_t>::max()) {
    ThreadComponent* tc = componentOf(isolate);
    auto found = tc->timers_.find(static_cast<int32_t>(static_cast<uint32_t>(value)));
    if (found != tc->timers_.end()) handle = found->second.get();
    *settled = handle == nullptr && value < static_cast<uint32_t>(tc->next_timer_id_);
  }
  if (handle == nullptr && !*settled) {
    LogAndThrowError(isolate, kComponent,
                     "Cannot find timer [" + std::to_string(*shownId) + "] to clear");
  }
  return handle;
}

void SetTimer(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    ThreadComponent* tc = componentOf(isolate);
    bool repeat = info[0]->BooleanValue(isolate);
    v8::Local<v8::Number> timeout;
    v8::Local<v8::Promise::Resolver> resolver;
    if (!info[1]->IsFunction()) {
      // Firing would call a value that cannot be called: refuse the timer at once instead.
      static const char kText[] = "_setTimer: the callback must be a function";
      KeshLogger::log(LogLevel::kError, kComponent, kText);
      isolate->ThrowException(v8::Exception::TypeError(ToV8String(isolate, kText)));
      return;
    }
    uint64_t ms = 0;
    if (!info[2]->ToNumber(context).ToLocal(&timeout)) return;
    if (!timerDelayFromNumber(timeout->Value(), &ms)) {
      std::string text =
          "_setTimer: the delay must be a finite number of milliseconds below 2^64, "
          "not " +
          numberText(timeout->Value());
      KeshLogger::log(LogLevel::kError, kComponent, text);
      isolate->ThrowException(v8::Exception::RangeError(ToV8String(isolate, text)));
      return;
    }
    if (!v8::Promise::Resolver::New(context).ToLocal(&resolver)) return;
    auto id = static_cast<uint32_t>(tc->next_timer_id_);
    tc->next_timer_id_ = static_cast<int32_t>(id + 1);
    auto handle = std::make_shared<TimerHandle>();
    handle->timer_ = static_cast<uv_timer_t*>(calloc(1, sizeof(uv_timer_t)));
    handle->callback_.Reset(isolate, info[1].As<v8::Function>());
    handle->extra_.Reset(isolate, info[3]);
    handle->resolver_.Reset(isolate, resolver);
    handle->isolate_ = isolate;
    handle->id_ = id;
    uv_timer_init(tc->loop_, handle->timer_);
    handle->timer_->data = handle.get();
    startFromNow(handle->timer_, onTimerFired, ms, repeat ? ms : 0);
    uv_unref(reinterpret_cast<uv_handle_t*>(handle->timer_));
    tc->timers_[static_cast<int32_t>(id)] = std::move(handle);
    info.GetReturnValue().Set(v8::Integer::NewFromUnsigned(isolate, id));
  });
}

void ClearTimer(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    int64_t id = 0;
    bool settled = false;
    TimerHandle* handle = findTimer(isolate, info, "_clearTimer", &id, &settled);
    if (handle == nullptr && !settled) return;
    if (handle != nullptr && handle->timer_ != nullptr) uv_timer_stop(handle->timer_);
    if (handle == nullptr || handle->resolver_.IsEmpty()) {
      LogAndThrowError(isolate, kComponent,
                       "timer [" + std::to_string(id) + "] is already stopped");
      return;
    }
    ThreadComponent* tc = componentOf(isolate);
    std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
    if (AsyncCallbackEntry settle = makeSettleCallback(isolate, handle->id_)) {
      tc->async_callbacks_.push_back(std::move(settle));
    }
  });
}

void ClearTimers(const v8::FunctionCallbackInfo<v8::Value>& info) {
  EnteredVuser here(info.GetIsolate());
  closeAllTimers(&here.vuser());
}

void WaitForTimer(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    int64_t id = 0;
    bool settled = false;
    TimerHandle* handle = findTimer(isolate, info, "_waitForTimer", &id, &settled);
    if (handle != nullptr && !handle->resolver_.IsEmpty()) {
      info.GetReturnValue().Set(
          v8::Local<v8::Promise::Resolver>::New(isolate, handle->resolver_)->GetPromise());
    }
  });
}

// Node's own timer globals lean on parts of the host that a Vuser's environment never sets up:
// setTimeout and setInterval throw an unrelated TypeError, and setImmediate crashes the process.
// They are replaced by functions that say what to use instead.
void RefuseNodeTimer(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  isolate->ThrowException(v8::Exception::Error(info.Data().As<v8::String>()));
}

void InstallNodeTimerGuards(v8::Isolate* isolate, v8::Local<v8::Object> target) {
  static const char* const kGuards[][2] = {
      {"setTimeout", "_setTimer(false, callback, ms), or sleep(ms) of lib/vuser.js"},
      {"setInterval", "_setTimer(true, callback, ms)"},
      {"setImmediate", "_setTimer(false, callback, 0)"},
  };
  v8::HandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  for (const auto& guard : kGuards) {
    std::string text = std::string(guard[0]) + " is not available in a Vuser: use " + guard[1];
    v8::Local<v8::String> name = ToV8String(isolate, guard[0]);
    v8::Local<v8::Function> function;
    if (!v8::Function::New(context, RefuseNodeTimer, ToV8String(isolate, text), 0,
                           v8::ConstructorBehavior::kThrow)
             .ToLocal(&function)) {
      continue;
    }
    function->SetName(name);
    target->CreateDataProperty(context, name, function).IsJust();
  }
}

}  // namespace

TimerHandle::~TimerHandle() { closeTimer(this); }

void closeTimer(TimerHandle* handle) {
  // Unlike a bare stop, a close also takes in a fired one-shot timer, so the loop can close.
  closeHeapTimer(handle->timer_);
  handle->callback_.Reset();
  handle->extra_.Reset();
  handle->resolver_.Reset();
}

void closeAllTimers(ThreadComponent* tc) {
  for (auto& entry : tc->timers_) closeTimer(entry.second.get());
}

void InstallTimerFunctions(ThreadComponent* tc, v8::Local<v8::Object> target) {
  v8::Isolate* isolate = tc->isolate_;
  RegisterFunction(isolate, target, "_setTimer", SetTimer);
  RegisterFunction(isolate, target, "_clearTimers", ClearTimers);
  RegisterFunction(isolate, target, "_clearTimer", ClearTimer);
  RegisterFunction(isolate, target, "_waitForTimer", WaitForTimer);
  InstallNodeTimerGuards(isolate, target);
}

}  // namespace kesh
