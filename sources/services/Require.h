#pragma once

#include <v8.h>

#include <memory>
#include <string>

#include "services/fileRecord.h"

namespace kesh {

struct ThreadComponent;

namespace Require {
// keshRequire(fileName, dirName[, load]): the module's exports, or the parsed JSON value.
void RequireFunction(const v8::FunctionCallbackInfo<v8::Value>& info);
}  // namespace Require

// Puts keshRequire on target; called while the Vuser's globals are installed.
void InstallRequire(ThreadComponent* threadComponent, v8::Local<v8::Object> target);

// The file that a require of name from dir loads, with its kind taken from the name as asked,
// or null with a JavaScript exception thrown. Needs an entered isolate and context.
std::unique_ptr<FileRecord> ResolveRequiredFile(const std::string& name, const std::string& dir);

}  // namespace kesh
