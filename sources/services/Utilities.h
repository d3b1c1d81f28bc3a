#pragma once

#include <v8.h>

#include <cstring>
#include <string>

#include "services/fileRecord.h"

namespace kesh {

// The isolate bracket: leaves the thread entered in the isolate without holding its lock longer
// than the thread already did. Call isolateLeave on every path that called isolateEnter.
void isolateEnter(v8::Isolate* isolate);
void isolateLeave(v8::Isolate* isolate);

// The frame of a script-callable native function: the isolate bracket, a handle scope, and a
// TryCatch whose catch is passed on to the calling script.
template <typename Body>
void scriptEntry(const v8::FunctionCallbackInfo<v8::Value>& info, Body body) {
  v8::Isolate* isolate = info.GetIsolate();
  isolateEnter(isolate);
  {
    v8::HandleScope scope(isolate);
    v8::TryCatch tryCatch(isolate);
    body(isolate);
    if (tryCatch.HasCaught()) tryCatch.ReThrow();
  }
  isolateLeave(isolate);
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
std::string ToStdString(v8::Isolate* isolate, v8::Local<v8::Value> value);

void RegisterFunction(v8::Isolate* isolate, v8::Local<v8::Object> target, const char* name,
                      v8::FunctionCallback callback);
// Logs at error level and throws an Error; the caller rethrows through its own TryCatch.
void LogAndThrowError(v8::Isolate* isolate, const char* component, const std::string& message);

v8::Local<v8::Object> ExceptionToObject(v8::Isolate* isolate, const v8::TryCatch& tryCatch);
std::string ExceptionToString(v8::Isolate* isolate, const v8::TryCatch& tryCatch);
v8::Local<v8::Value> ExceptionStringToObject(v8::Isolate* isolate, const std::string& text);
void PrintObjectProperties(v8::Isolate* isolate, v8::Local<v8::Object> object);
bool IsRejectedPromise(v8::Local<v8::Value> value);

}  // namespace kesh
