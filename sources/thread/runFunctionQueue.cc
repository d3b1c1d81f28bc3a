#include "thread/runFunctionQueue.h"

#include <node.h>

#include <stdexcept>
#include <utility>

#include "base/hostCompat.h"
#include "network/NetworkManager.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"
#include "thread/KeshThread.h"
#include "vuser/enteredVuser.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kVuserThread;

std::string rejectionText(v8::Isolate* isolate, v8::Local<v8::Value> promise) {
  v8::Local<v8::Value> reason = promise.As<v8::Promise>()->Result();
  return utf8Text(isolate, v8::Exception::CreateMessage(isolate, reason)->Get());
}

void ClearPendingRunFunctions(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [](EnteredVuser& here) {
    KeshLogger::log(LogLevel::kTrace, kComponent, here.vuser().vuser_id_,
                    "clearing functions pending run");
    clearAsyncCallbacks(&here.vuser());
  });
}

void RunPendingAsyncCallbacks(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [](EnteredVuser& here) { runAsyncCallbacks(&here.vuser(), true); });
}

void DisableRunningAsyncCallbacks(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [](EnteredVuser& here) { pauseQueueDrain(here.vuser()); });
}

void EnableRunningAsyncCallbacks(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [](EnteredVuser& here) { resumeQueueDrain(here.vuser()); });
}

void RunTimeLimitedGc(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    v8::Local<v8::Integer> deadline;
    if (!info[0]->ToInteger(here.context()).ToLocal(&deadline)) {
      throw ScriptError(kComponent, "The first argument is not a invalid number");
    }
    KeshLogger::log(LogLevel::kTrace, kComponent, here.vuser().vuser_id_, "running GC");
    auto seconds = static_cast<double>(static_cast<uint32_t>(deadline->Value()));
    info.GetReturnValue().Set(collectNow(isolate, seconds));
  });
}

// Calls the named global function with the parameter, as JSON when it parses; the failure text,
// or empty. A rejected promise sets *rejected.
std::string callRunFunction(EnteredVuser& here, const std::string& name, const std::string& param,
                            bool* rejected) {
  v8::Isolate* isolate = here.isolate();
  v8::Local<v8::Context> context = here.context();
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
  KeshLogger::logf(LogLevel::kDebug, kComponent, here.vuser().vuser_id_,
                   "starting pending function call for % with param %", name, param);
  if (!found || property->IsNullOrUndefined()) {
    return "Can't find the requested function " + name + " in user script";
  }
  if (outer.HasCaught()) {
    return "Can't run the requested function due to error: " + ExceptionToString(isolate, outer);
  }
  // Reports are made only once the callback scope has closed: an exception that reaches the
  // scope's own handler takes Node's uncaught-exception road, which ends the Vuser.
  node::CallbackScope callbackScope(isolate, here.callbackResource(), {0, 0});
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
    if (inner.HasTerminated()) return "Error calling Vuser function: terminated by the stop";
    return "Error calling Vuser function: " + ExceptionToString(isolate, inner);
  }
  if (IsRejectedPromise(result)) {
    *rejected = true;
    return "Error calling Vuser function (promise rejected): " + rejectionText(isolate, result);
  }
  return std::string();
}

}  // namespace

void requestRunFunction(ThreadComponent& vuser, std::string name, std::string param) {
  {
    std::lock_guard<std::mutex> lock(vuser.wake_mutex_);
    vuser.pending_function_name_ = std::move(name);
    vuser.pending_function_param_ = std::move(param);
    vuser.run_function_pending_ = true;
  }
  wakeVuser(vuser);
}

void runPendingFunction(ThreadComponent& vuser) {
  std::string name;
  std::string param;
  {
    std::lock_guard<std::mutex> lock(vuser.wake_mutex_);
    if (!vuser.run_function_pending_ || vuser.run_function_depth_ > 0) return;
    vuser.run_function_pending_ = false;
    name = std::move(vuser.pending_function_name_);
    param = std::move(vuser.pending_function_param_);
  }
  ++vuser.script_calls_;
  ++vuser.run_function_depth_;
  bool rejected = false;
  std::string failure;
  {
    EnteredVuser here(vuser.isolate_);
    failure = callRunFunction(here, name, param, &rejected);
  }
  --vuser.run_function_depth_;
  if (rejected) {
    // A rejected promise ends the Vuser; an exception does not.
    KeshLogger::log(LogLevel::kError, kComponent, vuser.vuser_id_, failure);
    requestStop(vuser);
  } else if (!failure.empty()) {
    // No script stands below a run function: the report ends in the log.
    KeshLogger::log(LogLevel::kError, kComponent, failure);
  }
  // A request that came in while this one ran was left for now; only then is another turn due.
  bool pending;
  {
    std::lock_guard<std::mutex> lock(vuser.wake_mutex_);
    pending = vuser.run_function_pending_;
  }
  if (pending) wakeVuser(vuser);
}

void runAsyncCallbacks(ThreadComponent* tc, bool fromScript) {
  EnteredVuser here(tc->isolate_);
  v8::Isolate* isolate = here.isolate();
  v8::Local<v8::Context> context = here.context();
  v8::TryCatch outer(isolate);
  try {
    // Lines read from the service become queued calls first, ahead of this drain.
    if (tc->network_ != nullptr) ProcessNetworkMessages(tc);
    KeshLogger::log(LogLevel::kTrace, kComponent, tc->vuser_id_,
                    "execute async callbacks function");
    v8::Local<v8::Object> global = context->Global();
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
      node::CallbackScope callbackScope(isolate, here.callbackResource(), {0, 0});
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
      entry.reset();
      KeshLogger::log(LogLevel::kDebug, kComponent, tc->vuser_id_,
                      "finished running async callback");
    }
    // Lines that a blocking request inside a call read are waiting: another turn, without
    // blocking in the poll, takes them. Otherwise the loop may sleep until its next event.
    if (!tc->network_queue_.empty()) wakeVuser(*tc);
  } catch (const std::exception& e) {
    if (fromScript) {
      LogAndThrowError(isolate, kComponent, e.what());
      outer.ReThrow();
    } else {
      KeshLogger::log(LogLevel::kError, kComponent, e.what());
    }
    wakeVuser(*tc);
  }
}

void onAsyncCallbacksPrepare(uv_prepare_t* handle) {
  runAsyncCallbacks(static_cast<ThreadComponent*>(handle->data));
}

void clearAsyncCallbacks(ThreadComponent* tc) {
  std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
  tc->async_callbacks_.clear();
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
