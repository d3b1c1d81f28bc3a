#include "services/Utilities.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <memory>

#include "services/KeshLogger.h"

namespace kesh {

std::string utf8Text(v8::Isolate* isolate, v8::Local<v8::Value> value) {
  v8::String::Utf8Value utf8(isolate, value);
  return *utf8 ? std::string(*utf8, utf8.length()) : std::string();
}

v8::Local<v8::String> ToV8String(v8::Isolate* isolate, const char* text, size_t length,
                                 StringType type) {
  v8::Local<v8::String> result;
  if (length <= static_cast<size_t>(INT_MAX) &&
      v8::String::NewFromUtf8(isolate, text,
                              type == StringType::kInternalized ? v8::NewStringType::kInternalized
                                                                : v8::NewStringType::kNormal,
                              static_cast<int>(length))
          .ToLocal(&result)) {
    return result;
  }
  // The message is built without ToV8String: a text too long for V8 would fail again, and the
  // quoted text is cut so that the message itself always converts.
  std::string quoted(text, std::min<size_t>(length, 257));
  if (quoted.size() > 256) quoted = quoted.substr(0, 256) + "...";
  std::string message = "Failed converting [" + quoted + "] to v8 string";
  KeshLogger::log(LogLevel::kError, "", message);
  v8::Local<v8::String> messageText;
  if (v8::String::NewFromUtf8(isolate, message.c_str()).ToLocal(&messageText)) {
    isolate->ThrowException(v8::Exception::Error(messageText));
  }
  return v8::String::Empty(isolate);
}

namespace {
class SharedText : public v8::String::ExternalOneByteStringResource {
 public:
  SharedText(const char* data, size_t length) : data_(data), length_(length) {}
  const char* data() const override { return data_; }
  size_t length() const override { return length_; }

 private:
  const char* data_;
  size_t length_;
};

constexpr size_t kSmallestSharedText = 1024;  // below this a copy costs less than a resource
}  // namespace

v8::Local<v8::String> SourceText(v8::Isolate* isolate, const FileRecord& record) {
  const char* text = record.source;
  size_t length = record.size > 0 ? static_cast<size_t>(record.size) : 0;
  bool ascii =
      std::all_of(text, text + length, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii && length >= kSmallestSharedText) {
    auto resource = std::make_unique<SharedText>(text, length);
    v8::Local<v8::String> shared;
    if (v8::String::NewExternalOneByte(isolate, resource.get()).ToLocal(&shared)) {
      resource.release();  // the string's now; V8 disposes of it with the string
      return shared;
    }
  }
  return ToV8String(isolate, text, length);
}

void RegisterFunction(v8::Isolate* isolate, v8::Local<v8::Object> target, const char* name,
                      v8::FunctionCallback callback) {
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::FunctionTemplate> tmpl = v8::FunctionTemplate::New(isolate, callback);
  v8::Local<v8::String> key = ToV8String(isolate, name);
  tmpl->SetClassName(key);
  v8::Local<v8::Function> function;
  if (tmpl->GetFunction(context).ToLocal(&function) &&
      target->CreateDataProperty(context, key, function).IsJust()) {
    return;
  }
  std::string message = std::string("Failed to register function [") + name + "]";
  KeshLogger::log(LogLevel::kError, "", message);
  isolate->ThrowException(v8::Exception::Error(ToV8String(isolate, message)));
  tryCatch.ReThrow();
}

void raise(v8::Isolate* isolate, const ScriptError& error) {
  KeshLogger::log(LogLevel::kError, error.component, error.vuserId, error.text);
  v8::Local<v8::String> text = ToV8String(isolate, error.text);
  switch (error.kind) {
    case ErrorKind::kTypeError:
      isolate->ThrowException(v8::Exception::TypeError(text));
      return;
    case ErrorKind::kRangeError:
      isolate->ThrowException(v8::Exception::RangeError(text));
      return;
    case ErrorKind::kError:
      isolate->ThrowException(v8::Exception::Error(text));
      return;
  }
}

void LogAndThrowError(v8::Isolate* isolate, const char* component, const std::string& message) {
  raise(isolate, ScriptError(component, message));
}

v8::Local<v8::Object> ExceptionToObject(v8::Isolate* isolate, const v8::TryCatch& tryCatch) {
  v8::EscapableHandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Message> message = tryCatch.Message();
  v8::Local<v8::Object> object = v8::Object::New(isolate);
  auto set = [&](const char* key, v8::Local<v8::Value> value) {
    object->Set(context, ToV8String(isolate, key), value).IsJust();
  };
  auto textOr = [&](v8::MaybeLocal<v8::Value> maybe, const char* fallback) {
    v8::Local<v8::Value> value;
    return maybe.ToLocal(&value) ? value : ToV8String(isolate, fallback).As<v8::Value>();
  };
  if (message.IsEmpty()) {
    set("message", tryCatch.Exception());
    return scope.Escape(object);
  }
  set("ErrorLevel", v8::Integer::New(isolate, message->ErrorLevel()));
  set("fileName", message->GetScriptResourceName());
  set("message", message->Get());
  set("exception", tryCatch.Exception());
  set("lineNumber", v8::Integer::New(isolate, message->GetLineNumber(context).FromMaybe(-1)));
  v8::MaybeLocal<v8::String> sourceLine = message->GetSourceLine(context);
  set("sourceLine", sourceLine.IsEmpty()
                        ? ToV8String(isolate, "No source line found in error").As<v8::Value>()
                        : sourceLine.ToLocalChecked().As<v8::Value>());
  set("columnNumber", v8::Integer::New(isolate, message->GetStartColumn()));
  set("StackTrace", textOr(tryCatch.StackTrace(context), "No stacktrace found in error"));
  set("stack", textOr(tryCatch.StackTrace(context), "No stacktrace line found in error"));
  return scope.Escape(object);
}

std::string ExceptionToString(v8::Isolate* isolate, const v8::TryCatch& tryCatch) {
  v8::HandleScope scope(isolate);
  if (!tryCatch.HasCaught()) return std::string();
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Object> object = ExceptionToObject(isolate, tryCatch);
  v8::Local<v8::String> json;
  if (object.IsEmpty() || !v8::JSON::Stringify(context, object).ToLocal(&json)) {
    return std::string();
  }
  return utf8Text(isolate, json);
}

bool IsRejectedPromise(v8::Local<v8::Value> value) {
  return value->IsPromise() && value.As<v8::Promise>()->State() == v8::Promise::kRejected;
}

}  // namespace kesh
