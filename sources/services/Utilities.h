#pragma once

#include <v8.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <string>

#include "services/fileRecord.h"
#include "services/logFormat.h"
#include "vuser/enteredVuser.h"

namespace kesh {

// What kind of JavaScript error a failure reaches its script as.
enum class ErrorKind { kError, kTypeError, kRangeError };

// The one way a native function fails towards its script: thrown anywhere below the function's
// frame, logged there as an Error line and thrown to the script as a JavaScript error of `kind`
// with the same text.
struct ScriptError : std::exception {
  const char* component;
  std::string text;
  ErrorKind kind;
  uint32_t vuserId;  // the line's Vuser, kNoVuser for most failures
  ScriptError(const char* component_name, std::string message,
              ErrorKind error_kind = ErrorKind::kError, uint32_t vuser_id = kNoVuser)
      : component(component_name), text(std::move(message)), kind(error_kind), vuserId(vuser_id) {}
  const char* what() const noexcept override { return text.c_str(); }
};

// Logs the failure and leaves the JavaScript error pending on the isolate.
void raise(v8::Isolate* isolate, const ScriptError& error);

// The frame of every script-callable native function: enters the Vuser, runs body(here), and
// passes a ScriptError or an exception that the body left pending on to the calling script.
template <typename Body>
void scriptFunction(const v8::FunctionCallbackInfo<v8::Value>& info, Body body) {
  EnteredVuser here(info.GetIsolate());
  v8::TryCatch tryCatch(here.isolate());
  try {
    body(here);
  } catch (const ScriptError& error) {
    tryCatch.Reset();
    raise(here.isolate(), error);
  }
  if (tryCatch.HasCaught()) tryCatch.ReThrow();
}

enum class StringType : int { kNormal = 0, kInternalized = 1 };

// Never empty: on failure the empty string comes back with a JavaScript exception pending.
// The caller is inside the isolate.
v8::Local<v8::String> ToV8String(v8::Isolate* isolate, const char* text, size_t length,
                                 StringType type = StringType::kNormal);
inline v8::Local<v8::String> ToV8String(v8::Isolate* isolate, const char* text,
                                        StringType type = StringType::kNormal) {
  return ToV8String(isolate, text, strlen(text), type);
}
// By length: a NUL inside the text stays in the string.
inline v8::Local<v8::String> ToV8String(v8::Isolate* isolate, const std::string& text,
                                        StringType type = StringType::kNormal) {
  return ToV8String(isolate, text.data(), text.size(), type);
}
// The text of a cached file as a V8 string. An ASCII text of some size becomes an external string
// over the file cache's one copy, which lives as long as the process: every Vuser of a script
// then holds no copy of its own.
v8::Local<v8::String> SourceText(v8::Isolate* isolate, const FileRecord& record);
// The UTF-8 text of a value as String() would give it, empty when the conversion fails.
std::string utf8Text(v8::Isolate* isolate, v8::Local<v8::Value> value);

void RegisterFunction(v8::Isolate* isolate, v8::Local<v8::Object> target, const char* name,
                      v8::FunctionCallback callback);
// The same report as a ScriptError of kind Error, for code that cannot throw through a frame;
// the caller rethrows through its own TryCatch.
void LogAndThrowError(v8::Isolate* isolate, const char* component, const std::string& message);

v8::Local<v8::Object> ExceptionToObject(v8::Isolate* isolate, const v8::TryCatch& tryCatch);
std::string ExceptionToString(v8::Isolate* isolate, const v8::TryCatch& tryCatch);
bool IsRejectedPromise(v8::Local<v8::Value> value);

}  // namespace kesh
