// Prints where the compiler puts each virtual function of our declaration of V8's inspector
// interface: class, slot, name and the member's type. test/inspectorSlots.test.js compares the
// list with the vtables of the node that runs the tests.
#include <cstdio>
#include <cstring>
#include <string>

#include "inspector/v8InspectorInterface.h"

namespace {

// The compiler's own spelling of a type, from "... [with T = <type>; ...]".
template <typename T>
std::string typeText() {
  std::string text = __PRETTY_FUNCTION__;
  size_t start = text.find("T = ") + 4;
  size_t end = text.find("; ", start);
  return text.substr(start, (end == std::string::npos ? text.rfind(']') : end) - start);
}

// A pointer to a virtual member holds 1 + the slot's byte offset in the vtable (Itanium ABI).
template <typename Member>
void print(const char* owner, const char* name, Member member) {
  struct {
    uintptr_t ptr;
    ptrdiff_t adjustment;
  } raw;
  static_assert(sizeof(raw) == sizeof(member), "not an Itanium member pointer");
  memcpy(&raw, &member, sizeof(raw));
  long slot = (raw.ptr & 1) != 0 ? static_cast<long>((raw.ptr - 1) / sizeof(void*)) : -1;
  printf("%s\t%ld\t%s\t%s\n", owner, slot, name, typeText<Member>().c_str());
}

}  // namespace

#define SLOT(owner, name) print(#owner, #name, &v8_inspector::owner::name)

int main() {
  SLOT(V8InspectorClient, runMessageLoopOnPause);
  SLOT(V8InspectorClient, runMessageLoopOnInstrumentationPause);
  SLOT(V8InspectorClient, quitMessageLoopOnPause);
  SLOT(V8InspectorClient, runIfWaitingForDebugger);
  SLOT(V8InspectorClient, muteMetrics);
  SLOT(V8InspectorClient, unmuteMetrics);
  SLOT(V8InspectorClient, beginUserGesture);
  SLOT(V8InspectorClient, endUserGesture);
#if KESH_V8_INSPECTOR == 1103
  SLOT(V8InspectorClient, serializeToWebDriverValue);
#else
  SLOT(V8InspectorClient, deepSerialize);
#endif
  SLOT(V8InspectorClient, valueSubtype);
  SLOT(V8InspectorClient, descriptionForValueSubtype);
  SLOT(V8InspectorClient, isInspectableHeapObject);
  SLOT(V8InspectorClient, ensureDefaultContextInGroup);
  SLOT(V8InspectorClient, beginEnsureAllContextsInGroup);
  SLOT(V8InspectorClient, endEnsureAllContextsInGroup);
  SLOT(V8InspectorClient, installAdditionalCommandLineAPI);
  SLOT(V8InspectorClient, consoleAPIMessage);
  SLOT(V8InspectorClient, memoryInfo);
  SLOT(V8InspectorClient, consoleTime);
  SLOT(V8InspectorClient, consoleTimeEnd);
  SLOT(V8InspectorClient, consoleTimeStamp);
#if KESH_V8_INSPECTOR >= 1306
  SLOT(V8InspectorClient, consoleTimeStampWithArgs);
#endif
  SLOT(V8InspectorClient, consoleClear);
  SLOT(V8InspectorClient, currentTimeMS);
  SLOT(V8InspectorClient, startRepeatingTimer);
  SLOT(V8InspectorClient, cancelTimer);
  SLOT(V8InspectorClient, canExecuteScripts);
  SLOT(V8InspectorClient, maxAsyncCallStackDepthChanged);
  SLOT(V8InspectorClient, resourceNameToUrl);
  SLOT(V8InspectorClient, generateUniqueId);
  SLOT(V8InspectorClient, dispatchError);

  SLOT(V8Inspector, contextCreated);
  SLOT(V8Inspector, contextDestroyed);
  SLOT(V8Inspector, resetContextGroup);
  SLOT(V8Inspector, contextById);
  SLOT(V8Inspector, uniqueDebuggerId);
#if KESH_V8_INSPECTOR >= 1306
  SLOT(V8Inspector, isolateId);
#endif
  SLOT(V8Inspector, idleStarted);
  SLOT(V8Inspector, idleFinished);
  SLOT(V8Inspector, asyncTaskScheduled);
  SLOT(V8Inspector, asyncTaskCanceled);
  SLOT(V8Inspector, asyncTaskStarted);
  SLOT(V8Inspector, asyncTaskFinished);
  SLOT(V8Inspector, allAsyncTasksCanceled);
  SLOT(V8Inspector, storeCurrentStackTrace);
  SLOT(V8Inspector, externalAsyncTaskStarted);
  SLOT(V8Inspector, externalAsyncTaskFinished);
  SLOT(V8Inspector, exceptionThrown);
  SLOT(V8Inspector, exceptionRevoked);
  SLOT(V8Inspector, associateExceptionData);
  SLOT(V8Inspector, connect);
  SLOT(V8Inspector, createStackTrace);
  SLOT(V8Inspector, captureStackTrace);

  SLOT(V8Inspector::Channel, sendResponse);
  SLOT(V8Inspector::Channel, sendNotification);
  SLOT(V8Inspector::Channel, flushProtocolNotifications);

  SLOT(V8InspectorSession, addInspectedObject);
  SLOT(V8InspectorSession, dispatchProtocolMessage);
  SLOT(V8InspectorSession, state);
  SLOT(V8InspectorSession, supportedDomains);
#if KESH_V8_INSPECTOR == 1103
  SLOT(V8InspectorSession, initializeCommandLineAPIScope);
#endif
  SLOT(V8InspectorSession, schedulePauseOnNextStatement);
  SLOT(V8InspectorSession, cancelPauseOnNextStatement);
  SLOT(V8InspectorSession, breakProgram);
  SLOT(V8InspectorSession, setSkipAllPauses);
  SLOT(V8InspectorSession, resume);
  SLOT(V8InspectorSession, stepOver);
  SLOT(V8InspectorSession, searchInTextByLines);
  SLOT(V8InspectorSession, wrapObject);
  SLOT(V8InspectorSession, unwrapObject);
  SLOT(V8InspectorSession, releaseObjectGroup);
  SLOT(V8InspectorSession, triggerPreciseCoverageDeltaUpdate);
#if KESH_V8_INSPECTOR >= 1204
  SLOT(V8InspectorSession, evaluate);
#endif
  SLOT(V8InspectorSession, stop);

  SLOT(StringBuffer, string);

  SLOT(V8StackTrace, firstNonEmptySourceURL);
  SLOT(V8StackTrace, isEmpty);
  SLOT(V8StackTrace, topSourceURL);
  SLOT(V8StackTrace, topLineNumber);
  SLOT(V8StackTrace, topColumnNumber);
  SLOT(V8StackTrace, topScriptId);
  SLOT(V8StackTrace, topFunctionName);
  return 0;
}
