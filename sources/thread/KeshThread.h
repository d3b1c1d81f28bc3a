#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "thread/threadComponents.h"

namespace kesh {

// One Vuser: its components and the operating-system thread that runs its script.
struct NetworkManager;
class Agent;

struct KeshThread {
  uint32_t vuser_id_;
  std::unique_ptr<ThreadComponent> thread_component_;
  std::thread thread_;
  // Made on the Vuser thread, whose thread-local it becomes; freed with the Vuser.
  std::unique_ptr<NetworkManager> network_manager_;
  bool inspector_enabled_ = false;
  std::unique_ptr<Agent> inspector_agent_;  // while a debugger endpoint runs for this Vuser
  std::string inspector_host_;
  uint32_t inspector_port_ = 0;
  // Main-thread bookkeeping of the Vuser's life, so that commands out of order are refused.
  bool started_ = false;
  bool joined_ = false;
  bool start_hook_closed_ = false;
  // Vuser thread: whether thread_start_hook_ has been sent, so that every start is answered.
  bool start_hook_sent_ = false;

  KeshThread(uint32_t vuser_id, std::string script_path, std::string script_args);
  ~KeshThread();

  void start();
  void threadMain();
  void installGlobals(ThreadComponent* component);
  void runEventLoop();
  void stopThread();
  void closeResources();
  void closeLoop();
  void sendStartHook();
};

}  // namespace kesh
