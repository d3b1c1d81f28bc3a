#pragma once

#include <node.h>
#include <v8.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "vuser/threadComponents.h"

namespace kesh {

struct NetworkManager;
class Agent;
class VuserRuntime;

// How long a stop waits for a script to come back to its loop before it terminates the script.
inline constexpr int kStopGraceMs = 2000;

// Called on the Vuser thread once its script ran (true) or failed to start (false).
using StartReport = void (*)(uint32_t vuserId, bool started);

// One Vuser: its record, and the operating-system thread that runs its script.
struct KeshThread {
  uint32_t vuser_id_;
  std::unique_ptr<ThreadComponent> thread_component_;
  node::MultiIsolatePlatform* platform_;
  StartReport start_report_;
  std::thread thread_;
  std::unique_ptr<NetworkManager> network_manager_;  // made and used on the Vuser thread
  std::unique_ptr<Agent> inspector_agent_;           // while a debugger endpoint runs
  bool inspector_enabled_ = false;
  std::string inspector_host_;
  uint32_t inspector_port_ = 0;
  v8::Global<v8::Promise::Resolver> start_resolver_;  // main thread only

  KeshThread(uint32_t vuser_id, std::string script_path, std::string script_args,
             FileRecord* script, node::MultiIsolatePlatform* platform, StartReport report);
  ~KeshThread();
  KeshThread(const KeshThread&) = delete;
  KeshThread& operator=(const KeshThread&) = delete;

  // Main thread: starts the thread. False, with the cause in *error, when the system cannot.
  bool start(std::string* error);
  // Main thread: asks for the stop and joins the thread; a script that does not come back to its
  // loop within kStopGraceMs is terminated. A Vuser stopped before gets "blocked another closing
  // request" and is only joined.
  void stop();

 private:
  void threadMain();
  bool runScript();
  void installGlobals();
  bool compileAndRun();
  void releaseScriptValues();
};

// Any thread of the Vuser: ends its loop and moves it to stopping.
void requestStop(ThreadComponent& vuser);

}  // namespace kesh
