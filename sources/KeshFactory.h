#pragma once

#include <node.h>
#include <v8.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "thread/KeshThread.h"

namespace kesh {

// Vuser id to its thread; owns the threads. Main thread only, but for the insertion lock.
extern std::unordered_map<uint32_t, std::unique_ptr<KeshThread>> threadRegistry;
extern std::mutex threadRegistryMutex;
extern node::MultiIsolatePlatform* mainPlatform;

// The registered thread of a Vuser, or null after logging the miss.
KeshThread* findThread(uint32_t vuserId);

void CreateKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info);
void StartKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info);
void InitKeshInspector(const v8::FunctionCallbackInfo<v8::Value>& info);
void DestroyKeshThreads(const v8::FunctionCallbackInfo<v8::Value>& info);
void RunFunctionFromScript(const v8::FunctionCallbackInfo<v8::Value>& info);
void StopKeshThread(const v8::FunctionCallbackInfo<v8::Value>& info);

// Module initialiser: joins every Vuser before the host's environment or process goes away, and
// opens the main loop's handle for start outcomes.
void InstallExitSafety(v8::Local<v8::Context> context);

}  // namespace kesh
