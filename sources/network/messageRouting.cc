#include <node.h>

#include <cstdlib>
#include <string>

#include "network/NetworkManager.h"
#include "network/bareSockets.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"
#include "thread/threadComponents.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kNetworkManager;

// A sent message and the libuv request that writes it; the message lives until the write ends.
struct WriteRequest {
  uv_write_t req{};
  std::shared_ptr<NetworkMessage> message;
};

void OnWriteDone(uv_write_t* req, int status) {
  auto* write = static_cast<WriteRequest*>(req->data);
  NetworkManager* manager = currentNetworkManager();
  if (status != 0) {
    KeshLogger::logf(LogLevel::kError, kComponent, "Error writing message to stream:  %",
                     uv_strerror(status));
  }
  std::string().swap(write->message->payload);
  write->message->written = true;
  // A written-only request waits for this write alone, whatever its outcome.
  if (!write->message->wait_for_response && manager != nullptr) manager->StopSyncWait();
  delete write;
}

void giveBackExternalMemory(v8::Isolate* isolate, std::string_view line) {
  isolate->AdjustAmountOfExternalAllocatedMemory(-static_cast<int64_t>(line.size()));
}

}  // namespace

void send_msg(NetworkManager* manager, const std::shared_ptr<NetworkMessage>& message) {
  std::string& payload = message->payload;
  uv_buf_t whole = uv_buf_init(payload.data(), static_cast<unsigned int>(payload.size()));
  // Most payloads leave at once: then there is no request to allocate and no callback to wait
  // for. libuv refuses this while earlier writes are queued, so the order of writes is kept.
  int written = uv_try_write(manager->stream_, &whole, 1);
  if (written == static_cast<int>(payload.size())) {
    std::string().swap(payload);
    message->written = true;
    return;
  }
  size_t sent = written > 0 ? static_cast<size_t>(written) : 0;
  auto* write = new (std::nothrow) WriteRequest();
  if (write == nullptr) {
    throw std::runtime_error(
        "SendMessage failed sending message since it couldn't get new write req from libuv");
  }
  write->message = message;
  write->req.data = write;
  uv_buf_t rest =
      uv_buf_init(payload.data() + sent, static_cast<unsigned int>(payload.size() - sent));
  checkUv("send_msg", uv_write(&write->req, manager->stream_, &rest, 1, OnWriteDone));
}

bool readIdAndPayload(v8::Isolate* isolate, const v8::FunctionCallbackInfo<v8::Value>& info,
                      v8::TryCatch& tryCatch, const char* payloadError, int32_t* id,
                      std::string* payload) {
  v8::Maybe<int64_t> number = info[0]->IntegerValue(isolate->GetCurrentContext());
  v8::String::Utf8Value text(isolate, info[1]);
  const char* failure = number.IsNothing() ? "The message id is not a invalid number"
                        : *text == nullptr ? payloadError
                                           : nullptr;
  if (failure != nullptr) {
    tryCatch.Reset();
    LogAndThrowError(isolate, kComponent, failure);
    return false;
  }
  *id = static_cast<int32_t>(number.FromJust());
  *payload = *text;  // the payload ends at its first NUL
  return true;
}

// The check every sending function makes first: without a connection a write has no stream,
// and a waiting call would never be answered.
bool refuseWithoutConnection(v8::Isolate* isolate, NetworkManager* manager, const char* function) {
  if (manager->writable()) return false;
  LogAndThrowError(isolate, kComponent, std::string(function) + kNotConnected);
  return true;
}

void Send(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  isolateEnter(isolate);
  {
    v8::HandleScope scope(isolate);
    v8::TryCatch tryCatch(isolate);
    NetworkManager* manager = currentNetworkManager();
    int32_t id = 0;
    std::string payload;
    if (!readIdAndPayload(isolate, info, tryCatch, "Couldn't convert the message payload to string",
                          &id, &payload)) {
      // thrown
    } else if (!info[2]->IsFunction()) {
      // The answer would find nothing it could call.
      LogAndThrowError(isolate, kComponent, "_send: the callback must be a function");
    } else if (!refuseWithoutConnection(isolate, manager, "_send")) {
      auto message = makeMessage(id, std::move(payload), false);
      message->callback.Reset(isolate, info[2].As<v8::Function>());
      {
        std::lock_guard<std::mutex> lock(manager->pending_mutex_);
        manager->pending_messages_.emplace(message->id, message);
      }
      try {
        send_msg(manager, message);
      } catch (const std::exception& e) {
        LogAndThrowError(isolate, kComponent, e.what());
      }
    }
    if (tryCatch.HasCaught()) tryCatch.ReThrow();
  }
  isolateLeave(isolate);
}

void OnMessage(NetworkManager* manager, std::string_view line) {
  ThreadComponent* tc = manager->thread_component_;
  v8::Isolate* isolate = tc->isolate_;
  v8::Locker locker(isolate);
  isolate->Enter();
  {
    v8::HandleScope scope(isolate);
    v8::TryCatch tryCatch(isolate);
    bool counted = false;
    bool queued = false;
    std::string failure;
    try {
      MessageHeader header = readMessageHeader(line);
      isolate->AdjustAmountOfExternalAllocatedMemory(static_cast<int64_t>(line.size()));
      counted = true;
      std::shared_ptr<NetworkMessage> message;
      InternalMessageType type;
      if (header.response_type_ == static_cast<int32_t>(ResponseType::kRequestResponse)) {
        message = manager->FindPendingMessage(header.message_id_);
        message->response = line;
        type = message->is_sync ? InternalMessageType::kSyncResponse
                                : InternalMessageType::kAsyncResponse;
      } else if (header.response_type_ == static_cast<int32_t>(ResponseType::kSocketMessage)) {
        message = std::make_shared<NetworkMessage>();
        message->socket_id = header.socket_id_;
        message->response = line;
        type = InternalMessageType::kSocketMessage;
      } else {
        throw std::runtime_error("received message with unknown message type found in response: " +
                                 std::string(line));
      }
      if (type == InternalMessageType::kSyncResponse) {
        manager->StopSyncWait();
      } else {
        std::lock_guard<std::mutex> lock(tc->network_queue_mutex_);
        tc->network_queue_.push_back(
            std::make_shared<NetworkQueueEntry>(NetworkQueueEntry{message, type}));
      }
      queued = true;
    } catch (const no_match_exception& e) {
      KeshLogger::log(LogLevel::kDebug, kComponent, tc->vuser_id_, e.what());
    } catch (const std::exception& e) {
      failure = e.what();
    }
    if (counted && !queued) giveBackExternalMemory(isolate, line);
    if (!failure.empty()) {
      std::string text;
      appendLinePrefix(text, currentThreadId(), tc->vuser_id_);
      text += failure;
      LogAndThrowError(isolate, kComponent, text);
      // No script stands below a read: a waiting synchronous request throws the failure, and
      // otherwise it ends in the log.
      if (tc->sync_request_active_.load()) {
        manager->sync_failure_.Reset(isolate, ExceptionToObject(isolate, tryCatch));
      }
      manager->StopSyncWait();
    }
  }
  isolate->Exit();
  v8::Unlocker unlocker(isolate);
}

void ProcessNetworkMessages(ThreadComponent* tc) {
  v8::Isolate* isolate = tc->isolate_;
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  NetworkManager* manager = currentNetworkManager();
  while (!tc->network_queue_.empty()) {
    std::shared_ptr<NetworkQueueEntry> entry;
    {
      std::lock_guard<std::mutex> lock(tc->network_queue_mutex_);
      entry = std::move(tc->network_queue_.front());
      tc->network_queue_.pop_front();
    }
    NetworkMessage* message = entry->message.get();
    v8::HandleScope scope(isolate);
    AsyncCallbackEntry callback;
    if (entry->type == InternalMessageType::kAsyncResponse) {
      v8::Local<v8::Value> parsed;
      if (!v8::JSON::Parse(context, ToV8String(isolate, message->response)).ToLocal(&parsed)) {
        parsed = v8::Undefined(isolate);
      }
      callback = makeAsyncCallback(
          isolate, v8::Local<v8::Function>::New(isolate, message->callback), parsed);
      std::lock_guard<std::mutex> lock(manager->pending_mutex_);
      manager->pending_messages_.erase(message->id);
    } else if (entry->type == InternalMessageType::kSocketMessage) {
      auto found = tc->bare_sockets_.find(message->socket_id);
      if (found != tc->bare_sockets_.end()) {
        // A socket line that is no JSON reaches the callback as its text.
        v8::Local<v8::String> text = ToV8String(isolate, message->response);
        v8::Local<v8::Value> parsed;
        if (!v8::JSON::Parse(context, text).ToLocal(&parsed)) parsed = text;
        callback = makeAsyncCallback(
            isolate, v8::Local<v8::Function>::New(isolate, found->second->callback_), parsed);
      } else {
        KeshLogger::logf(LogLevel::kWarning, kComponent, tc->vuser_id_,
                         "No callback found for socket message for ws_id: % : % (probably because "
                         "socket was already closed when message was received)\n",
                         message->socket_id, message->response);
      }
    } else {
      throw std::runtime_error("Encountered unknown network message: ");
    }
    giveBackExternalMemory(isolate, message->response);
    if (callback) {
      std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
      tc->async_callbacks_.push_back(std::move(callback));
    }
  }
}

void ClearResponsePendingMessages(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  isolateEnter(isolate);
  {
    v8::HandleScope scope(isolate);
    v8::TryCatch tryCatch(isolate);
    NetworkManager* manager = currentNetworkManager();
    uint32_t vuserId = manager->thread_component_->vuser_id_;
    KeshLogger::log(LogLevel::kTrace, kComponent, vuserId,
                    "entering clear response pending messages section");
    std::string report;
    std::unordered_map<int32_t, std::shared_ptr<NetworkMessage>> dropped;
    {
      std::lock_guard<std::mutex> lock(manager->pending_mutex_);
      if (!KeshLogger::produces(LogLevel::kDebug)) {
        // nobody reads the report
      } else if (manager->pending_messages_.empty()) {
        report = "no pending messages left to clear";
      } else {
        report = "clearing the next pending message(s): [ ";
        for (const auto& [id, message] : manager->pending_messages_) {
          report += std::to_string(static_cast<uint32_t>(id)) + " ";
        }
        report += "]";
      }
      dropped.swap(manager->pending_messages_);
    }
    KeshLogger::log(LogLevel::kDebug, kComponent, vuserId, report);
  }
  isolateLeave(isolate);
}

}  // namespace kesh
