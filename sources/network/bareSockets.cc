#include "network/bareSockets.h"

#include <node.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "services/KeshLogger.h"
#include "services/Utilities.h"
#include "services/componentNames.h"
#include "services/timers.h"
#include "vuser/threadComponents.h"

namespace kesh {

namespace {

constexpr const char* kComponent = component::kNetworkManager;
constexpr const char kNoSocket[] = "Internal error: cannot find promise pair for websocket id";

uv_timer_t* makeTimer(uv_loop_t* loop, BareSocket* owner) {
  auto* timer = static_cast<uv_timer_t*>(calloc(1, sizeof(uv_timer_t)));
  uv_timer_init(loop, timer);
  timer->data = owner;
  return timer;
}

BareSocket* findSocket(v8::Isolate* isolate, v8::Local<v8::Value> id) {
  v8::String::Utf8Value key(isolate, id);
  if (*key == nullptr) return nullptr;
  auto& sockets = componentOf(isolate)->bare_sockets_;
  auto found = sockets.find(*key);
  return found == sockets.end() ? nullptr : found->second.get();
}

void ResolveBareSocketPromiseCallback(const v8::FunctionCallbackInfo<v8::Value>& info);
void CleanBareSocketConnection(const v8::FunctionCallbackInfo<v8::Value>& info);

v8::MaybeLocal<v8::Function> nativeFunction(v8::Isolate* isolate, v8::FunctionCallback callback,
                                            const char* name) {
  v8::Local<v8::Function> function;
  if (!v8::Function::New(isolate->GetCurrentContext(), callback).ToLocal(&function)) return {};
  function->SetName(ToV8String(isolate, name));
  return function;
}

// Appends a call to the queue; the caller holds async_callbacks_mutex_.
void queueLocked(ThreadComponent* tc, v8::Local<v8::Function> function,
                 v8::Local<v8::Value> argument) {
  tc->async_callbacks_.push_back(makeAsyncCallback(tc->isolate_, function, argument));
}

// Queues a settle request { 0: id, 1: reject, 2: value, 3: closure }. False, with the failure
// logged, when the settling function cannot be made.
bool queueSettle(v8::Isolate* isolate, v8::Local<v8::Value> id, bool reject,
                 v8::Local<v8::Value> value, bool closure) {
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Function> function;
  if (!nativeFunction(isolate, ResolveBareSocketPromiseCallback, "ResolveBareSocketPromiseCallback")
           .ToLocal(&function)) {
    LogAndThrowError(isolate, kComponent,
                     "Failed to create function for ResolveBareSocketPromiseCallback");
    return false;
  }
  v8::Local<v8::Object> request = v8::Object::New(isolate);
  v8::Local<v8::Value> fields[] = {id, v8::Boolean::New(isolate, reject), value,
                                   v8::Boolean::New(isolate, closure)};
  for (uint32_t key = 0; key < 4; ++key) {
    if (request->Set(context, key, fields[key]).IsNothing()) {
      LogAndThrowError(isolate, kComponent, "Object::Set failed");
    }
  }
  queueLocked(componentOf(isolate), function, request);
  return true;
}

void fail(v8::Isolate* isolate, const std::string& text) {
  LogAndThrowError(isolate, kComponent, text);
}

// A timer's expiry: settles through the queue, never here, and runs no script.
void onSocketTimeout(uv_timer_t* timer, const char* text, bool closure) {
  auto* socket = static_cast<BareSocket*>(timer->data);
  EnteredVuser here(socket->isolate_);
  v8::Isolate* isolate = here.isolate();
  {
    v8::TryCatch tryCatch(isolate);
    ThreadComponent* tc = &here.vuser();
    KeshLogger::log(LogLevel::kDebug, kComponent, tc->vuser_id_, text);
    std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
    // No script stands below a timer: a failure ends in the log.
    queueSettle(isolate, ToV8String(isolate, socket->id_), !closure, v8::Undefined(isolate),
                closure);
  }
}

void OnBarrierTimeout(uv_timer_t* timer) {
  onSocketTimeout(timer, "Finished waiting for socket barrier due to timeout", false);
}

void OnClosureTimeout(uv_timer_t* timer) {
  onSocketTimeout(timer, "closing socket due to disconnection timeout", true);
}

void RegisterNewBareSocket(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    v8::String::Utf8Value key(isolate, info[0]);
    if (*key == nullptr || !info[1]->IsFunction()) {
      // Lines would find no key to match, or nothing they could call.
      fail(isolate, "_registerNewBareSocket: expects a callback key and a callback function");
      return;
    }
    ThreadComponent* tc = componentOf(isolate);
    auto socket =
        std::make_shared<BareSocket>(tc->loop_, *key, info[1].As<v8::Function>(), isolate);
    v8::Local<v8::Promise::Resolver> resolver;
    if (!v8::Promise::Resolver::New(isolate->GetCurrentContext()).ToLocal(&resolver)) {
      fail(isolate, "Failed to create a promise resolver");
      return;
    }
    socket->closure_resolver_.Reset(isolate, resolver);
    if (!tc->bare_sockets_.emplace(*key, std::move(socket)).second) {
      fail(isolate, "RegisterBareSocketConnection - you've used this callback key before");
      return;
    }
    info.GetReturnValue().Set(resolver->GetPromise());
  });
}

void UnRegisterNewBareSocket(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    ThreadComponent* tc = componentOf(isolate);
    std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
    v8::Local<v8::Function> function;
    if (!nativeFunction(isolate, CleanBareSocketConnection, "CleanBareSocketConnection")
             .ToLocal(&function)) {
      fail(isolate, "Failed to create function for CleanBareSocketConnection");
      return;
    }
    // Queued, so that a settle request queued before still finds the record.
    queueLocked(tc, function, info[0]);
  });
}

void ClearAllBareSockets(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    componentOf(isolate)->bare_sockets_.clear();
  });
}

void NewWebSocketBarrier(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    v8::Local<v8::Context> context = isolate->GetCurrentContext();
    v8::Maybe<int64_t> timeout = info[1]->IntegerValue(context);
    v8::Local<v8::Promise::Resolver> resolver;
    if (timeout.IsNothing()) return fail(isolate, "The time out is not a invalid number");
    if (!v8::Promise::Resolver::New(context).ToLocal(&resolver)) {
      return fail(isolate, "Failed to create a promise resolver");
    }
    BareSocket* socket = findSocket(isolate, info[0]);
    if (socket == nullptr) return fail(isolate, kNoSocket);
    if (!socket->barrier_resolver_.IsEmpty()) {
      return fail(isolate, "There is already one pending await on this websocket");
    }
    socket->barrier_resolver_.Reset(isolate, resolver);
    // A negative time-out waits for _stopBareSocket or the closure alone.
    if (timeout.FromJust() >= 0) {
      uv_timer_t* timer = socket->BarrierTimer();
      timer->data = socket;
      startFromNow(timer, OnBarrierTimeout, static_cast<uint64_t>(timeout.FromJust()), 0);
      uv_unref(reinterpret_cast<uv_handle_t*>(timer));
    }
    info.GetReturnValue().Set(resolver->GetPromise());
  });
}

void WaitForBareSocketClosure(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    v8::Maybe<int64_t> timeout = info[1]->IntegerValue(isolate->GetCurrentContext());
    if (timeout.IsNothing()) return fail(isolate, "Invalid timeout number value");
    BareSocket* socket = findSocket(isolate, info[0]);
    if (socket == nullptr) return fail(isolate, kNoSocket);
    if (timeout.FromJust() != -1) {
      uv_timer_t* timer = socket->ClosureTimer();
      timer->data = socket;
      startFromNow(timer, OnClosureTimeout, static_cast<uint64_t>(timeout.FromJust()), 0);
    }
    info.GetReturnValue().Set(
        v8::Local<v8::Promise::Resolver>::New(isolate, socket->closure_resolver_)->GetPromise());
  });
}

void DisconnectBareSocket(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    BareSocket* socket = findSocket(isolate, info[0]);
    if (socket == nullptr) return fail(isolate, kNoSocket);
    uv_timer_t* closure = socket->ClosureTimer();
    if (uv_is_active(reinterpret_cast<uv_handle_t*>(closure))) uv_timer_stop(closure);
    ThreadComponent* tc = componentOf(isolate);
    KeshLogger::log(LogLevel::kDebug, kComponent, tc->vuser_id_, "closing socket");
    std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
    if (info.Length() > 2 && info[2]->IsFunction()) {
      queueLocked(tc, info[2].As<v8::Function>(), info[1]);
    }
    if (queueSettle(isolate, info[0], false, info[1], true)) {
      info.GetReturnValue().Set(
          v8::Local<v8::Promise::Resolver>::New(isolate, socket->closure_resolver_)->GetPromise());
    }
  });
}

void StopBareSocket(const v8::FunctionCallbackInfo<v8::Value>& info) {
  scriptFunction(info, [&info](EnteredVuser& here) {
    v8::Isolate* isolate = here.isolate();
    ThreadComponent* tc = componentOf(isolate);
    BareSocket* socket = findSocket(isolate, info[0]);
    std::string id = utf8Text(isolate, info[0]);
    if (socket == nullptr) {
      return fail(isolate,
                  std::to_string(tc->vuser_id_) +
                      ": BreakBareSocketBarrier: cannot find promise pair for websocket id " + id);
    }
    if (socket->barrier_resolver_.IsEmpty()) {
      if (KeshLogger::produces(LogLevel::kDebug)) {
        KeshLogger::log(LogLevel::kDebug, kComponent, tc->vuser_id_,
                        "The barrier of " + id + " has been already released due to timeout");
      }
      return;
    }
    bool isError = info[1]->IsTrue();
    if (isError && info[2]->IsUndefined()) {
      return fail(
          isolate,
          "wrong parameters passed to BreakBareSocketBarrier - error without error message");
    }
    socket->ReleaseBarrierTimer();
    std::lock_guard<std::mutex> lock(tc->async_callbacks_mutex_);
    queueSettle(isolate, info[0], isError,
                isError ? info[2] : v8::Undefined(isolate).As<v8::Value>(), false);
  });
}

void ResolveBareSocketPromiseCallback(const v8::FunctionCallbackInfo<v8::Value>& info) {
  EnteredVuser here(info.GetIsolate());
  v8::Isolate* isolate = here.isolate();
  {
    v8::Local<v8::Context> context = here.context();
    std::string failure;
    {
      // The reactions of the settled promise run when this scope closes.
      node::CallbackScope callbackScope(isolate, here.callbackResource(), {0, 0});
      v8::TryCatch tryCatch(isolate);
      v8::Local<v8::Value> fields[4];
      bool readable = info[0]->IsObject();
      for (uint32_t key = 0; readable && key < 4; ++key) {
        readable = info[0].As<v8::Object>()->Get(context, key).ToLocal(&fields[key]);
      }
      BareSocket* socket = readable ? findSocket(isolate, fields[0]) : nullptr;
      std::string id = readable ? utf8Text(isolate, fields[0]) : "";
      if (!readable) {
        failure = "Error resolving socket promise due to wrong arguments";
      } else if (socket == nullptr) {
        failure = std::string(kNoSocket) + " " + id;
      } else {
        if (KeshLogger::produces(LogLevel::kDebug)) {
          KeshLogger::log(LogLevel::kDebug, kComponent, componentOf(isolate)->vuser_id_,
                          "closing socket with id " + id);
        }
        auto& held = fields[3]->IsTrue() ? socket->closure_resolver_ : socket->barrier_resolver_;
        bool settled = false;
        if (!held.IsEmpty()) {
          auto resolver = v8::Local<v8::Promise::Resolver>::New(isolate, held);
          settled = (fields[1]->IsTrue() ? resolver->Reject(context, fields[2])
                                         : resolver->Resolve(context, fields[2]))
                        .FromMaybe(false);
        }
        if (!settled) {
          failure = "Internal error: cannot resolve/reject the promise for websocket id " + id;
        }
        // A closure also ends a waiting barrier, whose promise then never settles.
        socket->barrier_resolver_.Reset();
        socket->ReleaseBarrierTimer();
      }
    }
    // Thrown outside the callback scope, so that it reaches the queue's own handler.
    if (!failure.empty()) fail(isolate, failure);
  }
}

void CleanBareSocketConnection(const v8::FunctionCallbackInfo<v8::Value>& info) {
  EnteredVuser here(info.GetIsolate());
  v8::Isolate* isolate = here.isolate();
  {
    std::string id = utf8Text(isolate, info[0]);
    ThreadComponent* tc = &here.vuser();
    if (tc->bare_sockets_.erase(id) == 0 && KeshLogger::produces(LogLevel::kTrace)) {
      KeshLogger::log(LogLevel::kTrace, kComponent, tc->vuser_id_,
                      "Internal warning: asked to delete socket with id: " + id + " twice.");
    }
  }
}

}  // namespace

BareSocket::BareSocket(uv_loop_t* loop, std::string id, v8::Local<v8::Function> callback,
                       v8::Isolate* isolate)
    : isolate_(isolate), loop_(loop), id_(std::move(id)) {
  callback_.Reset(isolate, callback);
}

BareSocket::~BareSocket() {
  closure_resolver_.Reset();
  barrier_resolver_.Reset();
  closeHeapTimer(closure_timer_);
  closeHeapTimer(barrier_timer_);
  callback_.Reset();
}

uv_timer_t* BareSocket::BarrierTimer() {
  if (barrier_timer_ == nullptr) barrier_timer_ = makeTimer(loop_, this);
  return barrier_timer_;
}

uv_timer_t* BareSocket::ClosureTimer() {
  if (closure_timer_ == nullptr) closure_timer_ = makeTimer(loop_, this);
  return closure_timer_;
}

void BareSocket::ReleaseBarrierTimer() { closeHeapTimer(barrier_timer_); }

void InstallBareSocketFunctions(v8::Isolate* isolate, v8::Local<v8::Object> target) {
  RegisterFunction(isolate, target, "_registerNewBareSocket", RegisterNewBareSocket);
  RegisterFunction(isolate, target, "_unRegisterNewBareSocket", UnRegisterNewBareSocket);
  RegisterFunction(isolate, target, "_clearAllBareSockets", ClearAllBareSockets);
  RegisterFunction(isolate, target, "_newWebSocketBarrier", NewWebSocketBarrier);
  RegisterFunction(isolate, target, "_waitForBareSocketClosure", WaitForBareSocketClosure);
  RegisterFunction(isolate, target, "_disconnectBareSocket", DisconnectBareSocket);
  RegisterFunction(isolate, target, "_stopBareSocket", StopBareSocket);
}

}  // namespace kesh
