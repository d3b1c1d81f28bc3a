#pragma once

#include <v8.h>

#include <cstddef>

#include "base/check.h"
#include "vuser/threadComponents.h"

namespace kesh {

// Inside one Vuser's isolate, on the stack only: the isolate locked and entered, a handle scope,
// and the Vuser's context entered, given up in reverse order when it goes out of scope. The first
// line of every native function a script or a libuv callback of the Vuser calls; helpers that
// need the isolate take an EnteredVuser&, so the compiler proves that their caller is inside.
// The Vuser thread also holds the lock for as long as its script may run, since Node's own
// handles on the Vuser's loop expect it held; the lock here is then the same, taken again.
class EnteredVuser {
 public:
  explicit EnteredVuser(v8::Isolate* isolate)
      : locker_(isolate),
        isolate_scope_(isolate),
        handle_scope_(isolate),
        vuser_(componentOf(isolate)),
        context_(contextOf(isolate, vuser_)),
        context_scope_(context_) {}
  EnteredVuser(const EnteredVuser&) = delete;
  EnteredVuser& operator=(const EnteredVuser&) = delete;
  static void* operator new(size_t) = delete;

  v8::Isolate* isolate() const { return context_->GetIsolate(); }
  v8::Local<v8::Context> context() const { return context_; }
  ThreadComponent& vuser() const { return *vuser_; }
  // The resource a node::CallbackScope of this Vuser names: the same object for every call, so a
  // call allocates none.
  v8::Local<v8::Object> callbackResource() const {
    v8::Isolate* isolate = context_->GetIsolate();
    if (vuser_->callback_resource_.IsEmpty()) {
      vuser_->callback_resource_.Reset(isolate, v8::Object::New(isolate));
    }
    return vuser_->callback_resource_.Get(isolate);
  }

 private:
  static v8::Local<v8::Context> contextOf(v8::Isolate* isolate, ThreadComponent* vuser) {
    KESH_CHECK(vuser != nullptr);
    return vuser->context_.IsEmpty() ? isolate->GetCurrentContext() : vuser->context_.Get(isolate);
  }

  v8::Locker locker_;
  v8::Isolate::Scope isolate_scope_;
  v8::HandleScope handle_scope_;
  ThreadComponent* vuser_;
  v8::Local<v8::Context> context_;
  v8::Context::Scope context_scope_;
};

// The isolate's lock given up on purpose while this thread blocks on something that is not the
// Vuser's loop: the debugger's messages, which come from the endpoint's socket on another thread.
// Never around a run of the Vuser's loop: Node's own handles there expect the lock held. The
// caller holds the lock.
class ReleasedVuser {
 public:
  explicit ReleasedVuser(v8::Isolate* isolate) : unlocker_(isolate) {}
  ReleasedVuser(const ReleasedVuser&) = delete;
  ReleasedVuser& operator=(const ReleasedVuser&) = delete;
  static void* operator new(size_t) = delete;

 private:
  v8::Unlocker unlocker_;
};

}  // namespace kesh
