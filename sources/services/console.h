#pragma once

#include <v8.h>

namespace kesh {

struct ThreadComponent;

// `console` with its one member `log`, straight to standard output.
void InstallConsole(ThreadComponent* threadComponent, v8::Local<v8::Object> target);
// `keshConsole(message, level)`: a line for the runner's log callback.
void InstallKeshConsole(v8::Isolate* isolate);

}  // namespace kesh
