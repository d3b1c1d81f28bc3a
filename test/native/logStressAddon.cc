// Test-only add-on: native threads that log through the shared logger, so that a node test can
// count what reaches the runner's callback.
#include <node.h>

#include <thread>
#include <vector>

#include "services/KeshLogger.h"

namespace {

std::vector<std::thread> threads;

void startThreads(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Local<v8::Context> context = info.GetIsolate()->GetCurrentContext();
  uint32_t count = info[0]->Uint32Value(context).FromMaybe(0);
  uint32_t lines = info[1]->Uint32Value(context).FromMaybe(0);
  for (uint32_t t = 0; t < count; ++t) {
    threads.emplace_back([t, lines] {
      for (uint32_t n = 0; n < lines; ++n) {
        kesh::KeshLogger::logf(kesh::LogLevel::kInfo, kesh::component::kVuserThread, t, "line %",
                               n);
      }
    });
  }
}

void joinThreads(const v8::FunctionCallbackInfo<v8::Value>&) {
  for (std::thread& thread : threads) thread.join();
  threads.clear();
}

void closeLogger(const v8::FunctionCallbackInfo<v8::Value>&) {
  kesh::KeshLogger::instance()->close();
}

void init(v8::Local<v8::Object> exports) {
  kesh::InstallLoggerExports(exports);
  NODE_SET_METHOD(exports, "startThreads", startThreads);
  NODE_SET_METHOD(exports, "joinThreads", joinThreads);
  NODE_SET_METHOD(exports, "closeLogger", closeLogger);
}

}  // namespace

NODE_MODULE(kesh_log_stress, init)
