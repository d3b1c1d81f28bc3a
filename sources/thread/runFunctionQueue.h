#pragma once

#include <uv.h>
#include <v8.h>

#include <string>

namespace kesh {

struct KeshThread;
struct ThreadComponent;

// Main thread: leaves the request in the Vuser's one-slot hand-over and wakes its loop. A Vuser
// that is stopping or stopped is left alone.
void requestRunFunction(KeshThread* thread, std::string name, std::string param);

// Vuser thread: the callback of run_function_hook_.
void runPendingFunction(KeshThread* thread);

// Vuser thread: makes the queued script calls, first in, first out. A failing call is logged,
// and passed on as an exception when a script called for the drain.
void runAsyncCallbacks(ThreadComponent* component, bool fromScript = false);

// The prepare hook that drains the queue once per loop turn.
void onAsyncCallbacksPrepare(uv_prepare_t* handle);

// Releases every queued call without making it.
void clearAsyncCallbacks(ThreadComponent* component);

void InstallRunFunctions(ThreadComponent* component, v8::Local<v8::Object> target);

}  // namespace kesh
