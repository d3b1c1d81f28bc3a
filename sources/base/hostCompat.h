#pragma once

// The host interfaces that differ between the Node.js lines we build for (20, 22 and 24), each
// behind one function, so the rest of the add-on reads the same on every line.
// docs/host-notes.md ("Node.js lines") says what each line offers and why we chose as we did.

#include <node.h>
#include <v8-version.h>
#include <v8.h>

#include <string>

namespace kesh {

// The host is not built for ThreadSanitizer, which therefore never sees what V8 writes. Under
// that sanitizer, this tells it that the host wrote `size` bytes at `at` on this thread, so
// that an object V8 writes from several threads shows up as the race it is.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_write_range(void* at, unsigned long size);  // NOLINT
inline void hostWrote(const void* at, size_t size) {
  __tsan_write_range(const_cast<void*>(at), size);
}
#else
inline void hostWrote(const void*, size_t) {}
#endif

// The origin of a script named `resourceName`. V8 12 added a form without the isolate and V8 13
// dropped the old one.
inline v8::ScriptOrigin scriptOrigin([[maybe_unused]] v8::Isolate* isolate,
                                     v8::Local<v8::Value> resourceName) {
#if V8_MAJOR_VERSION >= 12
  return v8::ScriptOrigin(resourceName);
#else
  return v8::ScriptOrigin(isolate, resourceName);
#endif
}

// Replaces `out` with the UTF-8 text of `text`, written once, in place. V8 13 renamed both calls.
inline void utf8Into(v8::Isolate* isolate, v8::Local<v8::String> text, std::string* out) {
#if V8_MAJOR_VERSION >= 13
  out->resize(text->Utf8LengthV2(isolate));
  text->WriteUtf8V2(isolate, out->data(), out->size());
#else
  out->resize(static_cast<size_t>(text->Utf8Length(isolate)));
  text->WriteUtf8(isolate, out->data(), static_cast<int>(out->size()), nullptr,
                  v8::String::NO_NULL_TERMINATION);
#endif
}

// Tells V8 that this isolate values a small heap over speed: Vusers mostly wait. Each V8 has its
// own word for it; the old one names the next as its replacement.
inline void preferMemoryOverSpeed(v8::Isolate* isolate) {
#if V8_MAJOR_VERSION >= 13
  isolate->SetPriority(v8::Isolate::Priority::kBestEffort);
#elif V8_MAJOR_VERSION == 12
  isolate->IsolateInBackgroundNotification();
#else
  isolate->EnableMemorySavingsMode();
#endif
}

// A full collection now, for a script that asks for one, and whether V8 has nothing left to do
// in idle time. V8 13 has no idle-time collection: the collection the notification makes at once
// is all there is, so the answer is always "done".
inline bool collectNow(v8::Isolate* isolate, [[maybe_unused]] double idleSeconds) {
  isolate->MemoryPressureNotification(v8::MemoryPressureLevel::kCritical);
#if V8_MAJOR_VERSION >= 13
  return true;
#else
  return isolate->IdleNotificationDeadline(idleSeconds);
#endif
}

// Releases an isolate made by node::NewIsolate once its environment and isolate data are freed.
// From Node.js 24 the platform does it in its own order (tear down, unregister, free the memory),
// so no other isolate is made at the same address while the platform still knows the old one.
inline void releaseIsolate(node::MultiIsolatePlatform* platform, v8::Isolate* isolate) {
#if NODE_MAJOR_VERSION >= 24
  platform->DisposeIsolate(isolate);
#else
  platform->UnregisterIsolate(isolate);
  isolate->Dispose();
#endif
}

}  // namespace kesh
