#pragma once

#include <cstdint>
#include <string>

namespace kesh {

// One Vuser as the registry sees it. The thread body and its components join it as they are built.
struct KeshThread {
  uint32_t vuser_id_ = 0;
  std::string script_path_;
  std::string script_args_;
  bool inspector_enabled_ = false;
  std::string inspector_host_;
  uint32_t inspector_port_ = 0;
};

}  // namespace kesh
