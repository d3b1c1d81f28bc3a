#include "thread/runFunctionQueue.h"

#include <node.h>

#include <stdexcept>
#include <utility>

#include "network/NetworkManager.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"
#include "thread/KeshThread.h"
#include "thread/threadComponents.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kVuserThread;

std::string rejectionText(v8::Isolate* isolate, v8::Local<v8::Value> promise) {
  v8::Local<v8::Value> reason = promise.As<v8::Promise>()->Result();
  return utf8Text(isolate, v8::Exception::CreateMessage(isolate, reason)->Get());
}

ThreadComponent* componentOrExit(v8::Isolate* isolate) {
  ThreadComponent* tc = componentOf(isolate);
  if (tc == nullptr) {
    fprintf(stderr, "VuserThread: no Vuser instance tied to isolate\n");
    exit(1);
  }
  return tc;
}

void ClearPendingRunFunctions(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptEntry(info, [](v8::Isolate* isolate) {
    ThreadComponent* tc = componentOf(isolate);
    if (tc == nullptr) {
      LogAndThrowError(isolate, kComponent, "Internal error: no Vuser instance tied to isolate");
      return;
    }
    KeshLogger::log(LogLevel::kTrace, kComponent, tc->vuser_id_, "clearing functions pending run");
    clearAsyncCallbacks(tc);
  });
}

void RunPendingAsyncCallbacks(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptEntry(info,
              [](v8::Isolate* isolate) { runAsyncCallbacks(componentOrExit(isolate), true); });
}

void DisableRunningAsyncCallbacks(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptEntry(info, [](v8::Isolate* isolate) {
    ThreadComponent* tc = componentOrExit(isolate);
    if (uv_is_active(reinterpret_cast<uv_handle_t*>(&tc->async_callbacks_prepare_))) {
      uv_prepare_stop(&tc->async_callbacks_prepare_);
    }
  });
}

void EnableRunningAsyncCallbacks(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptEntry(info, [](v8::Isolate* isolate) {
    ThreadComponent* tc = componentOrExit(isolate);
    // A stopping Vuser has stopped its hook for good.
    if (tc->thread_stopping_.load()) return;
    tc->async_callbacks_prepare_.data = tc;
    uv_prepare_start(&tc->async_callbacks_prepare_, onAsyncCallbacksPrepare);
  });
}

void RunTimeLimitedGc(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptEntry(info, [&info](v8::Isolate* isolate) {
    v8::Local<v8::Integer> deadline;
    if (!info[0]->ToInteger(isolate->GetCurrentContext()).ToLocal(&deadline)) {
      LogAndThrowError(isolate, kComponent, "The first argument is not a invalid number");
      return;
    }
    ThreadComponent* tc = componentOf(isolate);
    if (tc == nullptr) {
      LogAndThrowError(isolate, kComponent, "Internal error: no Vuser instance tied to isolate");
      return;
    }
    KeshLogger::log(LogLevel::kTrace, kComponent, tc->vuser_id_, "running GC");
    isolate->MemoryPressureNotification(v8::MemoryPressureLevel::kCritical);
    auto seconds = static_cast<double>(static_cast<uint32_t>(deadline->Value()));
    info.GetReturnValue().Set(isolate->IdleNotificationDeadline(seconds));
  });
}

}  // namespace

void requestRunFunction(KeshThread* thread, std::string name, std::string param) {
  ThreadComponent* tc = thread->thread_component_.get();
  {
    std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
    tc->setPendingFunction(std::move(name), std::move(param));
  }
  // The hooks of a stopped Vuser are closed, and libuv ignores a send to a closed async handle;
  // the checks only spare the work.
  if (thread->joined_ || tc->thread_stopping_.load()) return;
  if (uv_is_closing(reinterpret_cast<uv_handle_t*>(&tc->loop_stop_hook_))) return;
  uv_async_send(&tc->run_function_hook_);
  uv_async_send(&tc->loop_stop_hook_);
}

void runPendingFunction(KeshThread* thread) {
  ThreadComponent* tc = thread->thread_component_.get();
  v8::Isolate* isolate = tc->isolate_;
  uint32_t vuserId = thread->vuser_id_;
  // A copy under the writer's lock: the main thread may be storing the next request meanwhile.
  std::string name;
  std::string param;
  {
    std::lock_guard<std::mutex> lock(tc->pending_function_mutex_);
    name = tc->pending_function_name_;
    param = tc->pending_function_param_;
  }
  bool stop = false;
  ++tc->script_calls_;
  isolateEnter(isolate);
  {
    v8::Isolate::Scope isolateScope(isolate);
    v8::HandleScope handleScope(isolate);
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    v8::Context::Scope contextScope(context);
    v8::TryCatch outer(isolate);
    v8::Local<v8::Object> global = context->Global();

    v8::Local<v8::String> paramText = ToV8String(isolate, param);
    v8::Local<v8::Value> argument;
    if (!v8::JSON::Parse(context, paramText).ToLocal(&argument)) {
      outer.Reset();
      argument = paramText;
    }
    v8::Local<v8::String> nameText = ToV8String(isolate, name);
    v8::Local<v8::Value> property;
    bool found = global->Get(context, nameText).ToLocal(&property);
    KeshLogger::logf(LogLevel::kDebug, kComponent, vuserId,
                     "starting pending function call for % with param %", name, param);

    std::string failure;
    if (!found || property->IsNullOrUndefined()) {
      failure = "Can't find the requested function " + name + " in user script";
    } else if (outer.HasCaught()) {
      failure =
          "Can't run the requested function due to error: " + ExceptionToString(isolate, outer);
    } else {
      // Reports are thrown only once the callback scope has closed: an exception that reaches
      // the scope's own handler takes Node's uncaught-exception road, which ends the Vuser.
      std::string rejection;
      {
        node::CallbackScope callbackScope(isolate, v8::Object::New(isolate), {0, 0});
        v8::TryCatch inner(isolate);
        v8::Local<v8::Value> result;
        bool called = false;
        if (property->IsFunction()) {
          v8::Local<v8::Function> function = property.As<v8::Function>();
          function->SetName(nameText);
          function->Set(context, ToV8String(isolate, "displayName"), nameText).IsJust();
          called = function->Call(context, global, 1, &argument).ToLocal(&result);
        } else {
          isolate->ThrowException(
              v8::Exception::TypeError(ToV8String(isolate, name + " is not a function")));
        }
        if (!called || inner.HasCaught()) {
          failure = "Error calling Vuser function: " + ExceptionToString(isolate, inner);
        } else if (IsRejectedPromise(result)) {
          rejection =
              "Error calling Vuser function (promise rejected): " + rejectionText(isolate, result);
        }
      }
      if (!rejection.empty()) {
        // A rejected promise ends the Vuser; an exception does not.
        KeshLogger::log(LogLevel::kError, kComponent, vuserId, rejection);
        stop = true;
      }
    }
    // No script stands below a run function: a rethrown error would stay pending in the
    // isolate and fail the next call, so the report ends in the log.
    if (!failure.empty()) KeshLogger::log(LogLevel::kError, kComponent, failure);
  }
  isolateLeave(isolate);
  if (stop) thread->stopThread();
}

void runAsyncCallbacks(ThreadComponent* tc, bool fromScript) {
  v8::Isolate* isolate = tc->isolate_;
  isolateEnter(isolate);
  {
    v8::Isolate::Scope isolateScope(isolate);
    v8::HandleScope handleScope(isolate);
    v8::TryCatch outer(isolate);
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    try {
      // Lines read from the service become queued calls first, ahead of this drain.
      if (currentNetworkManager() != nullptr) ProcessNetworkMessages(tc);
      KeshLogger::log(LogLevel::kTrace, kComponent, tc->vuser_id_,
                      "execute async callbacks function");
      v8::Local<v8::Object> global = context->Global();
      // Only this thread appends to or takes from the queue; the lock orders the moves with
      // _clearPendingRunFunctions and the main thread's hand-over.
      while (!tc->async_callbacks_.empty()) {
        AsyncCallbackEntry entry;
        {
          std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
          entry = std::move(tc->async_callbacks_.front());
          tc->async_callbacks_.pop_front();
        }
        if (!entry || entry->function_.IsEmpty()) continue;
        ++tc->script_calls_;
        v8::HandleScope callScope(isolate);
        node::CallbackScope callbackScope(isolate, v8::Object::New(isolate), {0, 0});
        v8::TryCatch inner(isolate);
        v8::Local<v8::Value> argument = entry->argument_.IsEmpty()
                                            ? v8::Object::New(isolate).As<v8::Value>()
                                            : v8::Local<v8::Value>::New(isolate, entry->argument_);
        v8::Local<v8::Function> function = v8::Local<v8::Function>::New(isolate, entry->function_);
        v8::Local<v8::Value> result;
        if (!function->Call(context, global, 1, &argument).ToLocal(&result) || inner.HasCaught()) {
          throw std::runtime_error("Exception during async callback: " +
                                   ExceptionToString(isolate, inner));
        }
        if (IsRejectedPromise(result)) {
          throw std::runtime_error("Exception during async callback: " +
                                   rejectionText(isolate, result));
        }
        entry->function_.Reset();
        entry.reset();
        KeshLogger::log(LogLevel::kDebug, kComponent, tc->vuser_id_,
                        "finished running async callback");
      }
      // Lines that a blocking request inside a call read are waiting: another turn, without
      // blocking in the poll, takes them. Otherwise the loop may sleep until its next event.
      if (!tc->network_queue_.empty()) uv_async_send(&tc->loop_stop_hook_);
    } catch (const std::exception& e) {
      if (fromScript) {
        LogAndThrowError(isolate, kComponent, e.what());
        outer.ReThrow();
      } else {
        KeshLogger::log(LogLevel::kError, kComponent, e.what());
      }
      uv_async_send(&tc->loop_stop_hook_);
    }
  }
  isolateLeave(isolate);
}

void onAsyncCallbacksPrepare(uv_prepare_t* handle) {
  runAsyncCallbacks(static_cast<ThreadComponent*>(handle->data));
}

void clearAsyncCallbacks(ThreadComponent* tc) {
  std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
  while (!tc->async_callbacks_.empty()) {
    AsyncCallbackEntry& entry = tc->async_callbacks_.front();
    if (entry) entry->function_.Reset();
    tc->async_callbacks_.pop_front();
  }
}

void InstallRunFunctions(ThreadComponent* tc, v8::Local<v8::Object> target) {
  v8::Isolate* isolate = tc->isolate_;
  RegisterFunction(isolate, target, "_clearPendingRunFunctions", ClearPendingRunFunctions);
  RegisterFunction(isolate, target, "_disableRunningAsyncCallbacks", DisableRunningAsyncCallbacks);
  RegisterFunction(isolate, target, "_enableRunningAsyncCallbacks", EnableRunningAsyncCallbacks);
  RegisterFunction(isolate, target, "_runPendingAsyncCallbacks", RunPendingAsyncCallbacks);
  RegisterFunction(isolate, target, "_runTimeLimitedGc", RunTimeLimitedGc);
}

}  // namespace kesh
