#include <gtest/gtest.h>
#include <uv.h>

// The suite runs the logger in direct mode only; the queued path and its wake-up are exercised
// by the node tests, inside a real host.
extern "C" int uv_async_send(uv_async_t*) { return 0; }

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
