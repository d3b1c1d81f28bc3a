#pragma once

#include <uv.h>
#include <v8.h>

#include <string>

namespace kesh {

struct ThreadComponent;

// The local half of a socket the service holds for the script: the callback its lines go to,
// the promise that settles when it closes, and an optional barrier a script can await.
struct BareSocket {
  v8::Persistent<v8::Promise::Resolver> closure_resolver_;
  v8::Persistent<v8::Promise::Resolver> barrier_resolver_;  // empty: no barrier waiting
  v8::Persistent<v8::Function> callback_;
  uv_timer_t* barrier_timer_ = nullptr;
  uv_timer_t* closure_timer_ = nullptr;
  v8::Isolate* isolate_;
  uv_loop_t* loop_;
  std::string id_;

  BareSocket(uv_loop_t* loop, std::string id, v8::Local<v8::Function> callback,
             v8::Isolate* isolate);
  BareSocket(const BareSocket&) = delete;
  BareSocket& operator=(const BareSocket&) = delete;
  // Closes the timers and settles nothing; only on the Vuser thread.
  ~BareSocket();

  uv_timer_t* BarrierTimer();
  uv_timer_t* ClosureTimer();
  void ReleaseBarrierTimer();
};

void InstallBareSocketFunctions(v8::Isolate* isolate, v8::Local<v8::Object> target);

}  // namespace kesh
