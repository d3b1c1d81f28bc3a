#pragma once

// The part of V8's inspector interface that the agent uses. The host ships no header for it, so
// it is declared here to match the host's binary layout: the order of the virtual functions is
// the order of the vtable slots, and each class must keep every slot up to the last one we call.
// test/inspectorSlots.test.js compares these declarations with the vtables of the running node.

#include <v8-version.h>
#include <v8.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

// One layout per supported V8: KESH_V8_INSPECTOR is major * 100 + minor. Another V8 must not
// compile: a slot off by one calls the wrong function.
#if V8_MAJOR_VERSION == 11 && V8_MINOR_VERSION == 3
#define KESH_V8_INSPECTOR 1103
#elif V8_MAJOR_VERSION == 12 && V8_MINOR_VERSION == 4
#define KESH_V8_INSPECTOR 1204
#elif V8_MAJOR_VERSION == 13 && V8_MINOR_VERSION == 6
#define KESH_V8_INSPECTOR 1306
#else
#error \
    "sources/inspector/v8InspectorInterface.h declares V8 11.3 (Node.js 20), 12.4 (Node.js 22) and 13.6 (Node.js 24) only: add a section for this host's V8 and check it with test/inspectorSlots.test.js"
#endif

namespace v8_inspector {

class V8StackTrace;
class V8StackTraceId;
class V8DebuggerId;

// Never made or read here; complete only so that a null one can be returned.
#if KESH_V8_INSPECTOR == 1103
class WebDriverValue {
 public:
  WebDriverValue() = delete;
};
#else
class DeepSerializationResult {
 public:
  DeepSerializationResult() = delete;
};
#endif

namespace protocol {
namespace Debugger {
namespace API {
class SearchMatch;
}
}  // namespace Debugger
namespace Runtime {
namespace API {
class RemoteObject;
}
}  // namespace Runtime
namespace Schema {
namespace API {
class Domain;
}
}  // namespace Schema
}  // namespace protocol

// Passed by value in registers and on the stack: it must stay trivially copyable and 24 bytes.
class StringView {
 public:
  StringView() : is_8bit_(true), length_(0), characters8_(nullptr) {}
  StringView(const uint8_t* characters, size_t length)
      : is_8bit_(true), length_(length), characters8_(characters) {}
  StringView(const uint16_t* characters, size_t length)
      : is_8bit_(false), length_(length), characters16_(characters) {}

  bool is8Bit() const { return is_8bit_; }
  size_t length() const { return length_; }
  const uint8_t* characters8() const { return characters8_; }
  const uint16_t* characters16() const { return characters16_; }

 private:
  bool is_8bit_;
  size_t length_;
  union {
    const uint8_t* characters8_;
    const uint16_t* characters16_;
  };
};

class StringBuffer {
 public:
  virtual ~StringBuffer() = default;
  virtual StringView string() const = 0;
  // A copy of the characters.
  static std::unique_ptr<StringBuffer> create(StringView view);
};

class V8ContextInfo {
 public:
  V8ContextInfo(v8::Local<v8::Context> context, int contextGroupId, StringView humanReadableName)
      : context(context), contextGroupId(contextGroupId), humanReadableName(humanReadableName) {}
  V8ContextInfo(const V8ContextInfo&) = delete;
  V8ContextInfo& operator=(const V8ContextInfo&) = delete;

  v8::Local<v8::Context> context;
  int contextGroupId;
  StringView humanReadableName;
  StringView origin;
  StringView auxData;
  bool hasMemoryOnConsole = false;

  static int executionContextId(v8::Local<v8::Context> context);
};

// Only created by V8; its destructors follow seven query functions.
class V8StackTrace {
 public:
  virtual StringView firstNonEmptySourceURL() const = 0;
  virtual bool isEmpty() const = 0;
  virtual StringView topSourceURL() const = 0;
  virtual int topLineNumber() const = 0;
  virtual int topColumnNumber() const = 0;
  virtual int topScriptId() const = 0;
  virtual StringView topFunctionName() const = 0;
  virtual ~V8StackTrace() = default;
};

class V8InspectorSession {
 public:
  class Inspectable;

  virtual ~V8InspectorSession() = default;
  virtual void addInspectedObject(std::unique_ptr<Inspectable> object) = 0;
  virtual void dispatchProtocolMessage(StringView message) = 0;
  virtual std::vector<uint8_t> state() = 0;
  virtual std::vector<std::unique_ptr<protocol::Schema::API::Domain>> supportedDomains() = 0;
#if KESH_V8_INSPECTOR == 1103
  virtual void initializeCommandLineAPIScope(int executionContextId) = 0;
#endif
  virtual void schedulePauseOnNextStatement(StringView breakReason, StringView breakDetails) = 0;
  virtual void cancelPauseOnNextStatement() = 0;
  virtual void breakProgram(StringView breakReason, StringView breakDetails) = 0;
  virtual void setSkipAllPauses(bool skip) = 0;
  virtual void resume(bool setTerminateOnResume) = 0;
  virtual void stepOver() = 0;
  virtual std::vector<std::unique_ptr<protocol::Debugger::API::SearchMatch>> searchInTextByLines(
      StringView text, StringView query, bool caseSensitive, bool isRegex) = 0;
  virtual std::unique_ptr<protocol::Runtime::API::RemoteObject> wrapObject(
      v8::Local<v8::Context> context, v8::Local<v8::Value> value, StringView groupName,
      bool generatePreview) = 0;
  virtual bool unwrapObject(std::unique_ptr<StringBuffer>* error, StringView objectId,
                            v8::Local<v8::Value>* value, v8::Local<v8::Context>* context,
                            std::unique_ptr<StringBuffer>* objectGroup) = 0;
  virtual void releaseObjectGroup(StringView groupName) = 0;
  virtual void triggerPreciseCoverageDeltaUpdate(StringView occasion) = 0;
#if KESH_V8_INSPECTOR >= 1204
  struct EvaluateResult;  // never asked for here
  virtual EvaluateResult evaluate(v8::Local<v8::Context> context, StringView expression,
                                  bool includeCommandLineAPI) = 0;
#endif
  virtual void stop() = 0;
};

// The embedder's side. The bodies are the answers V8 works with when an embedder gives none.
class V8InspectorClient {
 public:
  virtual ~V8InspectorClient() = default;
  virtual void runMessageLoopOnPause(int) {}
  virtual void runMessageLoopOnInstrumentationPause(int) {}
  virtual void quitMessageLoopOnPause() {}
  virtual void runIfWaitingForDebugger(int) {}
  virtual void muteMetrics(int) {}
  virtual void unmuteMetrics(int) {}
  virtual void beginUserGesture() {}
  virtual void endUserGesture() {}
#if KESH_V8_INSPECTOR == 1103
  virtual std::unique_ptr<WebDriverValue> serializeToWebDriverValue(v8::Local<v8::Value>, int) {
    return nullptr;
  }
#else
  virtual std::unique_ptr<DeepSerializationResult> deepSerialize(v8::Local<v8::Value>, int,
                                                                 v8::Local<v8::Object>) {
    return nullptr;
  }
#endif
  virtual std::unique_ptr<StringBuffer> valueSubtype(v8::Local<v8::Value>) { return nullptr; }
  virtual std::unique_ptr<StringBuffer> descriptionForValueSubtype(v8::Local<v8::Context>,
                                                                   v8::Local<v8::Value>) {
    return nullptr;
  }
  virtual bool isInspectableHeapObject(v8::Local<v8::Object>) { return true; }
  virtual v8::Local<v8::Context> ensureDefaultContextInGroup(int) {
    return v8::Local<v8::Context>();
  }
  virtual void beginEnsureAllContextsInGroup(int) {}
  virtual void endEnsureAllContextsInGroup(int) {}
  virtual void installAdditionalCommandLineAPI(v8::Local<v8::Context>, v8::Local<v8::Object>) {}
  virtual void consoleAPIMessage(int, v8::Isolate::MessageErrorLevel, const StringView&,
                                 const StringView&, unsigned, unsigned, V8StackTrace*) {}
  virtual v8::MaybeLocal<v8::Value> memoryInfo(v8::Isolate*, v8::Local<v8::Context>) {
    return v8::MaybeLocal<v8::Value>();
  }
#if KESH_V8_INSPECTOR < 1306
  virtual void consoleTime(const StringView&) {}
  virtual void consoleTimeEnd(const StringView&) {}
  virtual void consoleTimeStamp(const StringView&) {}
#else
  virtual void consoleTime(v8::Isolate*, v8::Local<v8::String>) {}
  virtual void consoleTimeEnd(v8::Isolate*, v8::Local<v8::String>) {}
  virtual void consoleTimeStamp(v8::Isolate*, v8::Local<v8::String>) {}
  virtual void consoleTimeStampWithArgs(v8::Isolate*, v8::Local<v8::String>,
                                        const v8::LocalVector<v8::Value>&) {}
#endif
  virtual void consoleClear(int) {}
  virtual double currentTimeMS() { return 0; }
  using TimerCallback = void (*)(void*);
  virtual void startRepeatingTimer(double, TimerCallback, void*) {}
  virtual void cancelTimer(void*) {}
  virtual bool canExecuteScripts(int) { return true; }
  virtual void maxAsyncCallStackDepthChanged(int) {}
  virtual std::unique_ptr<StringBuffer> resourceNameToUrl(const StringView&) { return nullptr; }
  virtual int64_t generateUniqueId() { return 0; }
  virtual void dispatchError(v8::Local<v8::Context>, v8::Local<v8::Message>, v8::Local<v8::Value>) {
  }
};

class V8Inspector {
 public:
  static std::unique_ptr<V8Inspector> create(v8::Isolate* isolate, V8InspectorClient* client);

  class Channel {
   public:
    virtual ~Channel() = default;
    virtual void sendResponse(int callId, std::unique_ptr<StringBuffer> message) = 0;
    virtual void sendNotification(std::unique_ptr<StringBuffer> message) = 0;
    virtual void flushProtocolNotifications() = 0;
  };

  enum ClientTrustLevel { kUntrusted, kFullyTrusted };
  enum SessionPauseState { kWaitingForDebugger, kNotWaitingForDebugger };

  virtual ~V8Inspector() = default;
  virtual void contextCreated(const V8ContextInfo& info) = 0;
  virtual void contextDestroyed(v8::Local<v8::Context> context) = 0;
  virtual void resetContextGroup(int contextGroupId) = 0;
  virtual v8::MaybeLocal<v8::Context> contextById(int contextId) = 0;
  virtual V8DebuggerId uniqueDebuggerId(int contextId) = 0;
#if KESH_V8_INSPECTOR >= 1306
  virtual uint64_t isolateId() = 0;
#endif
  virtual void idleStarted() = 0;
  virtual void idleFinished() = 0;
  virtual void asyncTaskScheduled(StringView taskName, void* task, bool recurring) = 0;
  virtual void asyncTaskCanceled(void* task) = 0;
  virtual void asyncTaskStarted(void* task) = 0;
  virtual void asyncTaskFinished(void* task) = 0;
  virtual void allAsyncTasksCanceled() = 0;
  virtual V8StackTraceId storeCurrentStackTrace(StringView description) = 0;
  virtual void externalAsyncTaskStarted(const V8StackTraceId& parent) = 0;
  virtual void externalAsyncTaskFinished(const V8StackTraceId& parent) = 0;
  virtual unsigned exceptionThrown(v8::Local<v8::Context> context, StringView message,
                                   v8::Local<v8::Value> exception, StringView detailedMessage,
                                   StringView url, unsigned lineNumber, unsigned columnNumber,
                                   std::unique_ptr<V8StackTrace> stackTrace, int scriptId) = 0;
  virtual void exceptionRevoked(v8::Local<v8::Context> context, unsigned exceptionId,
                                StringView message) = 0;
  virtual bool associateExceptionData(v8::Local<v8::Context> context,
                                      v8::Local<v8::Value> exception, v8::Local<v8::Name> key,
                                      v8::Local<v8::Value> value) = 0;
  virtual std::unique_ptr<V8InspectorSession> connect(int contextGroupId, Channel* channel,
                                                      StringView state,
                                                      ClientTrustLevel clientTrustLevel,
                                                      SessionPauseState pauseState) = 0;
  virtual std::unique_ptr<V8StackTrace> createStackTrace(v8::Local<v8::StackTrace> stackTrace) = 0;
  virtual std::unique_ptr<V8StackTrace> captureStackTrace(bool fullStack) = 0;
};

static_assert(std::is_trivially_copyable_v<StringView> && sizeof(StringView) == 24,
              "StringView travels by value: its layout is part of the calling convention");
static_assert(sizeof(V8ContextInfo) == 96 && offsetof(V8ContextInfo, contextGroupId) == 8 &&
                  offsetof(V8ContextInfo, humanReadableName) == 16 &&
                  offsetof(V8ContextInfo, origin) == 40 && offsetof(V8ContextInfo, auxData) == 64 &&
                  offsetof(V8ContextInfo, hasMemoryOnConsole) == 88,
              "V8ContextInfo is read by the host field by field");

}  // namespace v8_inspector
