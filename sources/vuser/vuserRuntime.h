#pragma once

#include <node.h>
#include <uv.h>
#include <v8.h>

#include <memory>
#include <string>

#include "vuser/threadComponents.h"

namespace kesh {

// What V8 and Node need to run one Vuser's script: its loop, array-buffer allocator, isolate,
// isolate data and environment. Made on the Vuser's thread in one place, and torn down there in
// reverse order by the destructor, which leaves the loop closed and its descriptors given back.
class VuserRuntime {
 public:
  // The runtime of `vuser`, whose record it fills in (loop_, isolate_, environment_, context_,
  // platform_); null with `*error` set when a part cannot be made, what was made being released.
  static std::unique_ptr<VuserRuntime> create(ThreadComponent& vuser,
                                              node::MultiIsolatePlatform* platform,
                                              const node::IsolateSettings& settings,
                                              std::string* error);
  ~VuserRuntime();
  VuserRuntime(const VuserRuntime&) = delete;
  VuserRuntime& operator=(const VuserRuntime&) = delete;

  uv_loop_t* loop() { return &loop_; }
  v8::Isolate* isolate() { return isolate_; }
  node::Environment* environment() { return environment_; }

  // Runs the loop until the Vuser stops, running the platform's tasks for the isolate between
  // passes.
  void spin();

 private:
  VuserRuntime(ThreadComponent& vuser, node::MultiIsolatePlatform* platform);
  void freeIsolate();
  void closeLoop();

  ThreadComponent& vuser_;
  node::MultiIsolatePlatform* platform_;
  uv_loop_t loop_{};
  bool loop_open_ = false;
  std::unique_ptr<node::ArrayBufferAllocator> allocator_;
  v8::Isolate* isolate_ = nullptr;
  node::IsolateData* isolate_data_ = nullptr;
  node::Environment* environment_ = nullptr;
};

}  // namespace kesh
