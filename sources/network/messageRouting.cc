#include <node.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/hostCompat.h"
#include "network/NetworkManager.h"
#include "network/bareSockets.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kNetworkManager;

// A sent message and the libuv request that writes it; the message lives until the write ends.
struct WriteRequest {
  uv_write_t req{};
  NetworkManager* manager;
  std::shared_ptr<NetworkMessage> message;
};

void OnWriteDone(uv_write_t* req, int status) {
  auto* write = static_cast<WriteRequest*>(req->data);
  NetworkManager* manager = write->manager;
  std::string().swap(write->message->payload);
  write->message->written = status == 0;
  // A written-only request waits for this write alone, whatever its outcome.
  if (!write->message->wait_for_response) manager->StopSyncWait();
  if (status != 0 && status != UV_ECANCELED) {
    manager->closeConnection(std::string("write failed: ") + uv_strerror(status));
  }
  delete write;
}

// Where a line read from the service goes; throws what makes it unroutable.
void routeLine(EnteredVuser& here, NetworkManager& manager, std::string_view line) {
  ThreadComponent& vuser = here.vuser();
  MessageHeader header = readMessageHeader(line);
  std::shared_ptr<NetworkMessage> message;
  InternalMessageType type;
  if (header.response_type_ == static_cast<int32_t>(ResponseType::kRequestResponse)) {
    message = manager.FindPendingMessage(header.message_id_);
    type =
        message->is_sync ? InternalMessageType::kSyncResponse : InternalMessageType::kAsyncResponse;
  } else if (header.response_type_ == static_cast<int32_t>(ResponseType::kSocketMessage)) {
    message = std::make_shared<NetworkMessage>();
    message->socket_id = header.socket_id_;
    type = InternalMessageType::kSocketMessage;
  } else {
    throw std::runtime_error("received message with unknown message type found in response: " +
                             std::string(line));
  }
  message->response = line;
  message->charged += static_cast<int64_t>(line.size());
  here.isolate()->AdjustAmountOfExternalAllocatedMemory(static_cast<int64_t>(line.size()));
  if (type == InternalMessageType::kSyncResponse) {
    manager.StopSyncWait();
    return;
  }
  std::lock_guard<std::mutex> lock(vuser.network_queue_mutex_);
  vuser.network_queue_.push_back(NetworkQueueEntry{std::move(message), type});
}

}  // namespace

bool send_msg(NetworkManager* manager, const std::shared_ptr<NetworkMessage>& message) {
  std::string& payload = message->payload;
  auto* stream = reinterpret_cast<uv_stream_t*>(&manager->tcp_);
  uv_buf_t whole = uv_buf_init(payload.data(), static_cast<unsigned int>(payload.size()));
  // Most payloads leave at once: then there is no request to allocate and no callback to wait
  // for. libuv refuses this while earlier writes are queued, so the order of writes is kept.
  int written = uv_try_write(stream, &whole, 1);
  if (written == static_cast<int>(payload.size())) {
    std::string().swap(payload);
    message->written = true;
    return true;
  }
  if (written < 0 && written != UV_EAGAIN) {
    manager->closeConnection(std::string("write failed: ") + uv_strerror(written));
    return false;
  }
  size_t sent = written > 0 ? static_cast<size_t>(written) : 0;
  auto* write = new WriteRequest{{}, manager, message};
  write->req.data = write;
  uv_buf_t rest =
      uv_buf_init(payload.data() + sent, static_cast<unsigned int>(payload.size() - sent));
  int result = uv_write(&write->req, stream, &rest, 1, OnWriteDone);
  if (result == 0) return true;
  delete write;
  manager->closeConnection(std::string("write failed: ") + uv_strerror(result));
  return false;
}

bool readPayload(EnteredVuser& here, v8::Local<v8::Value> value, std::string* payload) {
  v8::Local<v8::String> text;
  if (!value->ToString(here.context()).ToLocal(&text)) return false;
  utf8Into(here.isolate(), text, payload);
  payload->resize(std::strlen(payload->c_str()));  // the payload ends at its first NUL
  return true;
}

void readIdAndPayload(EnteredVuser& here, const v8::FunctionCallbackInfo<v8::Value>& info,
                      const char* payloadError, int32_t* id, std::string* payload) {
  v8::Maybe<int64_t> number = info[0]->IntegerValue(here.context());
  bool readable = readPayload(here, info[1], payload);
  if (number.IsNothing()) throw ScriptError(kComponent, "The message id is not a invalid number");
  if (!readable) throw ScriptError(kComponent, payloadError);
  *id = static_cast<int32_t>(number.FromJust());
}

// The check every sending function makes first: without a connection a write has no stream,
// and a waiting call would never be answered.
NetworkManager& connectedManager(EnteredVuser& here, const char* function) {
  NetworkManager& manager = *here.vuser().network_;
  if (!manager.writable()) throw ScriptError(kComponent, std::string(function) + kNotConnected);
  return manager;
}

void Send(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    int32_t id = 0;
    std::string payload;
    readIdAndPayload(here, info, "Couldn't convert the message payload to string", &id, &payload);
    // The answer would find nothing it could call.
    if (!info[2]->IsFunction()) {
      throw ScriptError(kComponent, "_send: the callback must be a function");
    }
    NetworkManager& manager = connectedManager(here, "_send");
    auto message = makeMessage(id, std::move(payload), false);
    message->callback.Reset(here.isolate(), info[2].As<v8::Function>());
    {
      std::lock_guard<std::mutex> lock(manager.pending_mutex_);
      manager.pending_messages_.emplace(message->id, message);
    }
    if (!send_msg(&manager, message))
      throw ScriptError(kComponent, std::string("_send") + kNotConnected);
  });
}

void OnMessage(NetworkManager* manager, std::string_view line) {
  ThreadComponent& vuser = *manager->thread_component_;
  EnteredVuser here(vuser.isolate_);
  v8::Isolate* isolate = here.isolate();
  v8::TryCatch tryCatch(isolate);
  std::string failure;
  try {
    routeLine(here, *manager, line);
  } catch (const no_match_exception& e) {
    KeshLogger::log(LogLevel::kDebug, kComponent, vuser.vuser_id_, e.what());
  } catch (const std::exception& e) {
    failure = e.what();
  }
  if (failure.empty()) return;
  std::string text;
  appendLinePrefix(text, currentThreadId(), vuser.vuser_id_);
  text += failure;
  LogAndThrowError(isolate, kComponent, text);
  // No script stands below a read: a waiting blocking request throws the failure, and otherwise
  // it ends in the log.
  if (manager->sync_waiting_)
    manager->sync_failure_.Reset(isolate, ExceptionToObject(isolate, tryCatch));
  manager->StopSyncWait();
}

void ProcessNetworkMessages(ThreadComponent* tc) {
  v8::Isolate* isolate = tc->isolate_;
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  NetworkManager* manager = tc->network_;
  while (!tc->network_queue_.empty()) {
    NetworkQueueEntry entry;
    {
      std::lock_guard<std::mutex> lock(tc->network_queue_mutex_);
      entry = std::move(tc->network_queue_.front());
      tc->network_queue_.pop_front();
    }
    NetworkMessage* message = entry.message.get();
    v8::HandleScope scope(isolate);
    AsyncCallbackEntry callback;
    if (entry.type == InternalMessageType::kAsyncResponse) {
      v8::Local<v8::Value> parsed;
      if (!v8::JSON::Parse(context, ToV8String(isolate, message->response)).ToLocal(&parsed)) {
        parsed = v8::Undefined(isolate);
      }
      callback = makeAsyncCallback(
          isolate, v8::Local<v8::Function>::New(isolate, message->callback), parsed);
      std::lock_guard<std::mutex> lock(manager->pending_mutex_);
      manager->pending_messages_.erase(message->id);
    } else {
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
    }
    giveBackCharge(isolate, *message);
    if (callback) {
      std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
      tc->async_callbacks_.push_back(std::move(callback));
    }
  }
}

void ClearResponsePendingMessages(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [](EnteredVuser& here) {
    NetworkManager& manager = *here.vuser().network_;
    uint32_t vuserId = here.vuser().vuser_id_;
    KeshLogger::log(LogLevel::kTrace, kComponent, vuserId,
                    "entering clear response pending messages section");
    std::string report;
    std::unordered_map<int32_t, std::shared_ptr<NetworkMessage>> dropped;
    {
      std::lock_guard<std::mutex> lock(manager.pending_mutex_);
      if (!KeshLogger::produces(LogLevel::kDebug)) {
        // nobody reads the report
      } else if (manager.pending_messages_.empty()) {
        report = "no pending messages left to clear";
      } else {
        report = "clearing the next pending message(s): [ ";
        for (const auto& [id, message] : manager.pending_messages_) {
          report += std::to_string(static_cast<uint32_t>(id)) + " ";
        }
        report += "]";
      }
      dropped.swap(manager.pending_messages_);
    }
    KeshLogger::log(LogLevel::kDebug, kComponent, vuserId, report);
  });
}

}  // namespace kesh
