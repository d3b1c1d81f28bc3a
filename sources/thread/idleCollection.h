#pragma once

#include <cstdint>

namespace kesh {

struct ThreadComponent;

// When a Vuser's garbage is given back. A full collection costs milliseconds, and a forced one
// after every call made busy Vusers slow; so a busy Vuser is left to V8's own heuristics, and one
// that has gone quiet is collected once, if its heap has grown since its last such collection.
inline constexpr uint64_t kFirstIdleCheckMs = 200;  // the start's garbage goes early
inline constexpr uint64_t kIdleCheckMs = 500;
inline constexpr uint64_t kHeapGrowthBeforeCollection = 1u << 20;

// Vuser thread: arms the check on the Vuser's loop. The timer keeps no loop alive.
void startIdleCollection(ThreadComponent* component);

}  // namespace kesh
