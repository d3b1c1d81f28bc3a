#include <cstdio>
#include <cstdlib>
#include <string>

#include "network/NetworkManager.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kNetworkManager;
constexpr const char* kAborted = "Thread aborted during run";

// The answer of a blocking request, parsed; or what ended the wait, thrown.
v8::Local<v8::Value> takeAnswer(EnteredVuser& here, NetworkManager& manager,
                                NetworkMessage& message) {
  v8::Isolate* isolate = here.isolate();
  if (!manager.sync_failure_.IsEmpty()) {
    // A line that failed during the wait: the script gets its record as a plain object.
    isolate->ThrowException(manager.sync_failure_.Get(isolate));
    manager.sync_failure_.Reset();
    return {};
  }
  if (message.response.empty()) return {};
  v8::TryCatch tryCatch(isolate);
  v8::MaybeLocal<v8::Value> parsed =
      v8::JSON::Parse(here.context(), ToV8String(isolate, message.response));
  giveBackCharge(isolate, message);
  if (tryCatch.HasCaught()) {
    std::string text =
        "Error parsing response of a SendSync request " + ExceptionToString(isolate, tryCatch);
    tryCatch.Reset();
    throw ScriptError(kComponent, text);
  }
  v8::Local<v8::Value> result;
  return parsed.ToLocal(&result) ? result : v8::Object::New(isolate).As<v8::Value>();
}

}  // namespace

void SendSyncEventLoopRunner(EnteredVuser& here, NetworkManager& manager,
                             const std::shared_ptr<NetworkMessage>& message) {
  ThreadComponent& vuser = here.vuser();
  if (manager.sync_waiting_) {
    KeshLogger::log(LogLevel::kError, kComponent, vuser.vuser_id_,
                    "tried to send additional sync request during another sync");
    throw std::runtime_error(kAborted);
  }
  manager.sync_closed_.clear();
  {
    std::lock_guard<std::mutex> lock(manager.pending_mutex_);
    manager.pending_messages_.emplace(message->id, message);
  }
  if (!send_msg(&manager, message)) throw std::runtime_error(manager.sync_closed_);
  // No queued script call may run inside the wait.
  pauseQueueDrain(vuser);
  KeshLogger::logf(LogLevel::kDebug, kComponent, vuser.vuser_id_,
                   "waiting for response from request id: %", message->id);
  // A written-only request whose bytes already left has nothing to wait for.
  manager.sync_waiting_ = message->wait_for_response || !message->written;
  while (manager.sync_waiting_ && !isStopping(vuser.state_.get())) {
    uv_run(vuser.loop_, UV_RUN_DEFAULT);
    KeshLogger::logf(LogLevel::kDebug, kComponent, vuser.vuser_id_,
                     "finished waiting for response from request %", message->id);
  }
  manager.sync_waiting_ = false;
  {
    std::lock_guard<std::mutex> lock(manager.pending_mutex_);
    manager.pending_messages_.erase(message->id);
  }
  if (isStopping(vuser.state_.get())) {
    // The nested run used up the stop; the loop that runs this script must see it too.
    uv_stop(vuser.loop_);
    KeshLogger::log(LogLevel::kError, kComponent, vuser.vuser_id_,
                    "thread aborted during sync request - exiting");
    throw std::runtime_error(kAborted);
  }
  // Queued calls run again whatever ended the wait.
  resumeQueueDrain(vuser);
  bool answered = message->wait_for_response ? !message->response.empty() : message->written;
  if (!answered && !manager.sync_closed_.empty()) throw std::runtime_error(manager.sync_closed_);
}

void SendSync(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    int32_t id = 0;
    std::string payload;
    readIdAndPayload(here, info, "Couldn't convert SendSync message payload to string", &id,
                     &payload);
    NetworkManager& manager = connectedManager(here, "_sendSync");
    auto message = makeMessage(id, std::move(payload), true);
    try {
      SendSyncEventLoopRunner(here, manager, message);
    } catch (const std::runtime_error& e) {
      throw ScriptError(kComponent, e.what());
    }
    v8::Local<v8::Value> answer = takeAnswer(here, manager, *message);
    if (!answer.IsEmpty()) info.GetReturnValue().Set(answer);
  });
}

void SendSyncNoWait(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    NetworkManager& manager = *here.vuser().network_;
    v8::Maybe<int64_t> id = info[0]->IntegerValue(here.context());
    std::string payload;
    bool readable = readPayload(here, info[1], &payload);
    std::string failure;
    if (id.IsNothing()) failure = "The message id is not a invalid number";
    if (!readable) failure = "Couldn't convert the message payload to string";
    if (failure.empty() && !manager.writable()) {
      failure = std::string("_sendSyncNoWait") + kNotConnected;
    }
    if (failure.empty()) {
      auto message = makeMessage(static_cast<int32_t>(id.FromJust()), std::move(payload), true);
      message->wait_for_response = false;
      try {
        SendSyncEventLoopRunner(here, manager, message);
        // A line that failed during the wait ends it and nothing more.
        manager.sync_failure_.Reset();
        return;
      } catch (const std::exception& e) {
        failure = e.what();
      }
    }
    throw ScriptError(kComponent, failure, ErrorKind::kTypeError, here.vuser().vuser_id_);
  });
}

}  // namespace kesh
