#include "services/console.h"

#include <cstdio>
#include <string>

#include "services/KeshLogger.h"
#include "services/Utilities.h"

namespace kesh {

namespace {

void writeLine(const std::string& text) {
  std::string line = text + "\n";
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
}

void KeshConsole(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  const char* problem = nullptr;
  if (info.Length() != 2) {
    problem = "keshConsole - Expects 2 arguments: message, LogLevel";
  } else if (!info[0]->IsString() || !info[1]->IsString()) {
    problem = "keshConsole - The arguments are from incorrect type";
  }
  if (problem != nullptr) {
    KeshLogger::log(LogLevel::kError, component::kKeshLogger, problem);
    isolate->ThrowException(v8::Exception::TypeError(ToV8String(isolate, problem)));
    tryCatch.ReThrow();
    return;
  }
  KeshLogger::logRaw(utf8Text(isolate, info[1]), "", utf8Text(isolate, info[0]));
}

void ConsoleLog(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* isolate = info.GetIsolate();
  v8::HandleScope scope(isolate);
  v8::TryCatch tryCatch(isolate);
  if (info.Length() >= 2) {
    writeLine("console.log - Expects only 1 argument.");
    return;
  }
  if (info.Length() == 0) {
    writeLine("");
    return;
  }
  std::string text = utf8Text(isolate, info[0]);
  if (!text.empty()) {
    writeLine(text);
    return;
  }
  static const char kText[] = "can't convert object passed to console log to string";
  KeshLogger::log(LogLevel::kError, component::kConsole, kText);
  tryCatch.Reset();  // a failed conversion is replaced by the plain string below
  isolate->ThrowException(ToV8String(isolate, kText));
  tryCatch.ReThrow();
}

}  // namespace

void InstallConsole(ThreadComponent*, v8::Local<v8::Object> target) {
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  v8::HandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Object> console = v8::Object::New(isolate);
  v8::Local<v8::Function> log;
  if (!v8::FunctionTemplate::New(isolate, ConsoleLog)->GetFunction(context).ToLocal(&log)) {
    writeLine("Failed to install console.");
    return;
  }
  v8::Local<v8::String> name = ToV8String(isolate, "log", StringType::kInternalized);
  log->SetName(name);
  console->Set(context, name, log).IsJust();
  target->Set(context, ToV8String(isolate, "console", StringType::kInternalized), console).IsJust();
}

void InstallKeshConsole(v8::Isolate* isolate) {
  v8::HandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Function> function;
  if (!v8::FunctionTemplate::New(isolate, KeshConsole)->GetFunction(context).ToLocal(&function) ||
      context->Global()
          ->CreateDataProperty(context, ToV8String(isolate, "keshConsole"), function)
          .IsNothing()) {
    isolate->ThrowException(
        v8::Exception::TypeError(ToV8String(isolate, "keshConsole - initialization failed")));
  }
}

}  // namespace kesh
