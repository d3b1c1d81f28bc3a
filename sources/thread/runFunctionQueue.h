#pragma once

#include <uv.h>
#include <v8.h>

#include <string>

namespace kesh {

struct ThreadComponent;

// Main thread: leaves the request in the Vuser's one-slot hand-over and wakes its loop. A later
// request before the Vuser took this one replaces it.
void requestRunFunction(ThreadComponent& vuser, std::string name, std::string param);

// Vuser thread, from the wake-up handle: runs the requested function, unless one is running
// already further up the stack; that one asks again once it returns.
void runPendingFunction(ThreadComponent& vuser);

// Vuser thread: makes the queued script calls, first in, first out. A failing call is logged,
// and passed on as an exception when a script called for the drain.
void runAsyncCallbacks(ThreadComponent* component, bool fromScript = false);

// The prepare hook that drains the queue once per loop turn.
void onAsyncCallbacksPrepare(uv_prepare_t* handle);

// Releases every queued call without making it.
void clearAsyncCallbacks(ThreadComponent* component);

void InstallRunFunctions(ThreadComponent* component, v8::Local<v8::Object> target);

}  // namespace kesh
