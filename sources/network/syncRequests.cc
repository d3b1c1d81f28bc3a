#include <cstdio>
#include <cstdlib>
#include <string>

#include "network/NetworkManager.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"
#include "thread/runFunctionQueue.h"
#include "thread/threadComponents.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kNetworkManager;
constexpr const char* kAborted = "Thread aborted during run";

}  // namespace

void SendSyncEventLoopRunner(NetworkManager* manager,
                             const std::shared_ptr<NetworkMessage>& message) {
  ThreadComponent* tc = manager->thread_component_;
  if (tc->sync_request_active_.load()) {
    KeshLogger::log(LogLevel::kError, kComponent, tc->vuser_id_,
                    "tried to send additional sync request during another sync");
    throw std::runtime_error(kAborted);
  }
  tc->sync_request_active_.exchange(true);
  {
    std::lock_guard<std::mutex> lock(manager->pending_mutex_);
    manager->pending_messages_.emplace(message->id, message);
  }
  send_msg(manager, message);
  // No queued script call may run inside the wait.
  auto* prepare = reinterpret_cast<uv_handle_t*>(&tc->async_callbacks_prepare_);
  if (uv_is_active(prepare)) {
    checkUv("SendSyncEventLoopRunner - uv_prepare_stop",
            uv_prepare_stop(&tc->async_callbacks_prepare_));
  }
  KeshLogger::logf(LogLevel::kDebug, kComponent, tc->vuser_id_,
                   "waiting for response from request id: %", message->id);
  // A written-only request whose bytes already left has nothing to wait for.
  if (!message->wait_for_response && message->written) tc->sync_request_active_.store(false);
  while (tc->sync_request_active_.load() && !tc->thread_stopping_.load()) {
    uv_run(tc->loop_, UV_RUN_DEFAULT);
    KeshLogger::logf(LogLevel::kDebug, kComponent, tc->vuser_id_,
                     "finished waiting for response from request %", message->id);
  }
  tc->sync_request_active_.exchange(false);
  if (tc->thread_stopping_.load()) {
    // The nested run used up the stop; the loop that runs this script must see it too.
    uv_stop(tc->loop_);
    KeshLogger::log(LogLevel::kError, kComponent, tc->vuser_id_,
                    "thread aborted during sync request - exiting");
    throw std::runtime_error(kAborted);
  }
  {
    std::lock_guard<std::mutex> lock(manager->pending_mutex_);
    manager->pending_messages_.erase(message->id);
  }
  tc->async_callbacks_prepare_.data = tc;
  uv_prepare_start(&tc->async_callbacks_prepare_, onAsyncCallbacksPrepare);
}

void SendSync(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  isolateEnter(isolate);
  {
    v8::HandleScope scope(isolate);
    v8::TryCatch tryCatch(isolate);
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    NetworkManager* manager = currentNetworkManager();
    int32_t id = 0;
    std::string payload;
    if (!readIdAndPayload(isolate, info, tryCatch,
                          "Couldn't convert SendSync message payload to string", &id, &payload)) {
      // thrown
    } else if (!refuseWithoutConnection(isolate, manager, "_sendSync")) {
      auto message = makeMessage(id, std::move(payload), true);
      try {
        SendSyncEventLoopRunner(manager, message);
        if (!manager->sync_failure_.IsEmpty()) {
          // A line that failed during the wait: the script gets its record as a plain object.
          isolate->ThrowException(v8::Local<v8::Value>::New(isolate, manager->sync_failure_));
          manager->sync_failure_.Reset();
        } else if (!message->response.empty()) {
          v8::MaybeLocal<v8::Value> parsed =
              v8::JSON::Parse(context, ToV8String(isolate, message->response));
          isolate->AdjustAmountOfExternalAllocatedMemory(
              -static_cast<int64_t>(message->response.size()));
          if (tryCatch.HasCaught()) {
            std::string text = "Error parsing response of a SendSync request " +
                               ExceptionToString(isolate, tryCatch);
            tryCatch.Reset();
            LogAndThrowError(isolate, kComponent, text);
          } else {
            v8::Local<v8::Value> result;
            info.GetReturnValue().Set(
                parsed.ToLocal(&result) ? result : v8::Object::New(isolate).As<v8::Value>());
          }
        }
      } catch (const std::exception& e) {
        LogAndThrowError(isolate, kComponent, e.what());
      }
    }
    if (tryCatch.HasCaught()) tryCatch.ReThrow();
  }
  isolateLeave(isolate);
}

void SendSyncNoWait(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  NetworkManager* manager = currentNetworkManager();
  uint32_t vuserId = manager->thread_component_->vuser_id_;
  v8::Maybe<int64_t> id = info[0]->IntegerValue(isolate->GetCurrentContext());
  v8::String::Utf8Value payload(isolate, info[1]);
  std::string failure;
  if (id.IsNothing()) failure = "The message id is not a invalid number";
  if (*payload == nullptr) failure = "Couldn't convert the message payload to string";
  if (failure.empty() && !manager->writable()) {
    failure = std::string("_sendSyncNoWait") + kNotConnected;
  }
  if (failure.empty()) {
    auto message = makeMessage(static_cast<int32_t>(id.FromJust()), *payload, true);
    message->wait_for_response = false;
    try {
      SendSyncEventLoopRunner(manager, message);
      // A line that failed during the wait ends it and nothing more.
      manager->sync_failure_.Reset();
      return;
    } catch (const std::exception& e) {
      failure = e.what();
    }
  }
  tryCatch.Reset();
  KeshLogger::log(LogLevel::kError, kComponent, vuserId, failure);
  isolate->ThrowException(v8::Exception::TypeError(ToV8String(isolate, failure)));
  tryCatch.ReThrow();
}

}  // namespace kesh
