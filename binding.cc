// Module entry: registration at load time and the exports.
#include <node.h>
#include <node_version.h>

#include "KeshFactory.h"
#include "services/KeshLogger.h"
#include "services/Utilities.h"

namespace kesh {
namespace {

void installCommand(v8::Local<v8::Object> exports, const char* name,
                    v8::FunctionCallback callback) {
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  v8::EscapableHandleScope scope(isolate);
  v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::String> key = ToV8String(isolate, name);
  v8::Local<v8::Function> function;
  if (!v8::FunctionTemplate::New(isolate, callback)->GetFunction(context).ToLocal(&function)) {
    isolate->ThrowException(v8::Exception::Error(
        ToV8String(isolate, std::string("failed to register function ") + name)));
    return;
  }
  function->SetName(key);
  exports->Set(context, key, function).IsJust();
}

void initialize(v8::Local<v8::Object> exports, v8::Local<v8::Value>, void*) {
  InstallLoggerExports(exports);
  v8::Isolate* isolate = v8::Isolate::GetCurrent();
  v8::EscapableHandleScope scope(isolate);
  mainPlatform =
      node::GetMultiIsolatePlatform(node::GetCurrentEnvironment(isolate->GetCurrentContext()));
  installCommand(exports, "createKeshThread", CreateKeshThread);
  installCommand(exports, "startKeshThread", StartKeshThread);
  installCommand(exports, "initKeshInspector", InitKeshInspector);
  installCommand(exports, "destroyKeshThreads", DestroyKeshThreads);
  installCommand(exports, "runFunctionFromScript", RunFunctionFromScript);
  installCommand(exports, "stopKeshThread", StopKeshThread);
  InstallExitSafety(isolate->GetCurrentContext());
  scope.Escape(exports);
}

node::node_module keshModule = {
    NODE_MODULE_VERSION,  // must equal the loading host's, or the host refuses the file
    0,
    nullptr,
    "../binding",
    initialize,
    nullptr,
    "kesh",
    nullptr,
    nullptr,
};

void registerKesh() { node_module_register(&keshModule); }

}  // namespace
}  // namespace kesh

// Runs while the host loads the file, before it looks for the module record.
extern "C" {
__attribute__((visibility("default"), used,
               section(".init_array"))) void (*_register_kesh_)() = kesh::registerKesh;
}
