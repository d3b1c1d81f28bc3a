#include "inspector/inspectorAgent.h"

#include <cstdio>

#include "base/check.h"
#include "inspector/inspectorIO.h"
#include "services/KeshLogger.h"
#include "services/fileRecord.h"
#include "vuser/threadComponents.h"

namespace kesh {
namespace {

std::unique_ptr<v8_inspector::StringBuffer> utf16Buffer(const std::string& text) {
  std::u16string converted;
  if (!Utf8ToUtf16(text, &converted)) converted.clear();
  return v8_inspector::StringBuffer::create(ViewOf(converted));
}

}  // namespace

InspectorChannel::InspectorChannel(v8_inspector::V8Inspector* inspector,
                                   InspectorSessionDelegate* delegate)
    : delegate_(delegate) {
  // Fully trusted, and not held back by V8: the release at start is ours.
  session_ = inspector->connect(kContextGroupId, this, v8_inspector::StringView(),
                                v8_inspector::V8Inspector::kFullyTrusted,
                                v8_inspector::V8Inspector::kNotWaitingForDebugger);
}

InspectorChannel::~InspectorChannel() = default;

void InspectorChannel::sendResponse(int, std::unique_ptr<v8_inspector::StringBuffer> message) {
  delegate_->SendMessageToFrontend(message->string());
}

void InspectorChannel::sendNotification(std::unique_ptr<v8_inspector::StringBuffer> message) {
  delegate_->SendMessageToFrontend(message->string());
}

void InspectorChannel::flushProtocolNotifications() {}

InspectorClient::InspectorClient(v8::Isolate* isolate, node::MultiIsolatePlatform* platform)
    : isolate_(isolate), platform_(platform) {
  inspector_ = v8_inspector::V8Inspector::create(isolate, this);
  ReportContext(isolate->GetCurrentContext(), "thread Context");
}

// The session goes before the inspector it belongs to.
InspectorClient::~InspectorClient() { channel_.reset(); }

void InspectorClient::ReportContext(v8::Local<v8::Context> context, const std::string& name) {
  std::unique_ptr<v8_inspector::StringBuffer> text = utf16Buffer(name);
  v8_inspector::V8ContextInfo info(context, kContextGroupId, text->string());
  inspector_->contextCreated(info);
}

void InspectorClient::runMessageLoopOnPause(int) {
  KESH_CHECK(channel_ != nullptr);
  if (running_nested_loop_) return;
  terminated_ = false;
  running_nested_loop_ = true;
  // Messages come in as foreground tasks of the isolate; the Vuser's own loop stands still.
  // A client that leaves ends the pause: its disconnect sets terminated_ before the channel goes.
  while (!terminated_ && channel_->delegate_->WaitForFrontendMessage()) {
    platform_->FlushForegroundTasks(isolate_);
  }
  terminated_ = false;
  running_nested_loop_ = false;
}

void InspectorClient::quitMessageLoopOnPause() { terminated_ = true; }

v8::Local<v8::Context> InspectorClient::ensureDefaultContextInGroup(int) {
  // Messages may be dispatched from the loop, outside any entered context.
  ThreadComponent* vuser = componentOf(isolate_);
  if (vuser == nullptr || vuser->context_.IsEmpty()) return isolate_->GetCurrentContext();
  return vuser->context_.Get(isolate_);
}

Agent::Agent(std::string host, int32_t port, const std::string&)
    : host_(std::move(host)), port_(port) {}

Agent::~Agent() {
  io_.reset();
  client_.reset();
}

Agent* Agent::ForIsolate(v8::Isolate* isolate) {
  // Tasks and interrupts of an isolate run on the thread that holds it; the Vuser's record knows
  // its agent while the endpoint runs.
  ThreadComponent* vuser = componentOf(isolate);
  return vuser != nullptr ? vuser->inspector_agent_ : nullptr;
}

bool Agent::Start(v8::Isolate* isolate, node::MultiIsolatePlatform* platform,
                  const char* script_name, uv_loop_t* loop) {
  path_ = script_name != nullptr ? script_name : "";
  isolate_ = isolate;
  loop_ = loop;
  client_ = std::make_unique<InspectorClient>(isolate, platform);
  client_->ReportContext(isolate->GetCurrentContext(), "Kesh debugger context");
  platform_ = platform;
  if (io_ != nullptr) return true;
  KESH_CHECK(client_ != nullptr);
  io_ = std::make_unique<InspectorIo>(isolate, platform, path_, host_, port_, true, loop, this);
  if (ThreadComponent* vuser = componentOf(isolate)) io_->stop_state_ = &vuser->state_;
  if (!io_->Start()) {
    client_.reset();
    return false;
  }
  return true;
}

void Agent::PauseOnNextStatement(const std::string& reason) {
  if (client_ == nullptr || client_->channel_ == nullptr) return;
  std::unique_ptr<v8_inspector::StringBuffer> text = utf16Buffer(reason);
  client_->channel_->session_->schedulePauseOnNextStatement(text->string(), text->string());
}

void Agent::Connect(InspectorSessionDelegate* delegate) {
  KESH_CHECK(client_ != nullptr);
  KESH_CHECK(client_->channel_ == nullptr);
  client_->channel_ = std::make_unique<InspectorChannel>(client_->inspector_.get(), delegate);
}

void Agent::Dispatch(const v8_inspector::StringView& message) {
  KESH_CHECK(client_ != nullptr);
  KESH_CHECK(client_->channel_ != nullptr);
  client_->channel_->session_->dispatchProtocolMessage(message);
}

void Agent::Disconnect() {
  KESH_CHECK(client_ != nullptr);
  client_->quitMessageLoopOnPause();
  client_->channel_.reset();
}

void Agent::Stop() {
  if (io_ != nullptr) {
    io_->Stop();
    io_.reset();
  }
}

std::unique_ptr<Agent> StartInspectorAgent(ThreadComponent* tc, const std::string& host,
                                           uint32_t port) {
  FileRecord* file = tc->thread_script_file;
  auto agent = std::make_unique<Agent>(host, static_cast<int32_t>(port), file->fileName);
  if (!agent->Start(tc->isolate_, tc->platform_, file->fileName, tc->loop_)) {
    KeshLogger::log(LogLevel::kError, component::kKeshInspector, tc->vuser_id_,
                    "debugger endpoint " + host + ":" + std::to_string(port) +
                        " did not start: the script runs without a debugger");
    return nullptr;
  }
  agent->PauseOnNextStatement("Break on start");
  return agent;
}

}  // namespace kesh
