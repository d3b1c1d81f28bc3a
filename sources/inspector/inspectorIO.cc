#include "inspector/inspectorIO.h"

#include <chrono>
#include <cstdio>
#include <cstring>

#include "base/check.h"
#include "inspector/inspectorAgent.h"
#include "services/KeshLogger.h"
#include "vuser/enteredVuser.h"

// OpenSSL's, from the host process; its 3.x headers would mark the family deprecated.
extern "C" int RAND_bytes(unsigned char* buffer, int count);

namespace kesh {
namespace {

constexpr char kRunCommand[] = "\"Runtime.runIfWaitingForDebugger\"";
// How long a client may take to answer our close frame when the Vuser stops; some clients never
// answer, and the Vuser's stop waits for the IO thread.
constexpr uint64_t kCloseAnswerMs = 2000;

using QueueTarget = std::pair<InspectorSocketServer*, InspectorIo*>;

void onCloseAnswerTimeout(uv_timer_t* timer) {
  InspectorSocketServer* server = static_cast<QueueTarget*>(timer->data)->first;
  for (auto& entry : server->connected_sessions_) DropConnection(&entry.second->socket_);
}

void dispatchForIsolate(v8::Isolate* isolate) {
  Agent* agent = Agent::ForIsolate(isolate);
  if (agent != nullptr && agent->io() != nullptr) agent->io()->DispatchMessages();
}

void onInterrupt(v8::Isolate* isolate, void*) { dispatchForIsolate(isolate); }

bool debugLogged() {
  return currentLogLevel.load(std::memory_order_relaxed) >= static_cast<int32_t>(LogLevel::kDebug);
}

int closeAsyncAndLoop(uv_async_t* async) {
  bool closed = false;
  async->data = &closed;
  uv_close(reinterpret_cast<uv_handle_t*>(async),
           [](uv_handle_t* handle) { *static_cast<bool*>(handle->data) = true; });
  // Also lets the close callbacks of listening sockets that failed to bind run.
  while (!closed) uv_run(async->loop, UV_RUN_ONCE);
  async->data = nullptr;
  return uv_loop_close(async->loop);
}

// How often a wait on the client looks at the stop flag.
constexpr std::chrono::milliseconds kStopPoll{100};

}  // namespace

bool InspectorIo::stopRequested() const {
  return stop_state_ != nullptr && isStopping(stop_state_->get());
}

bool IoSessionDelegate::WaitForFrontendMessage() {
  io_->WaitForFrontendMessage();
  return !io_->stopRequested();
}

void IoSessionDelegate::SendMessageToFrontend(const v8_inspector::StringView& message) {
  io_->Write(TransportAction::kSendMessage, io_->session_id_, message);
}

InspectorIoDelegate::InspectorIoDelegate(InspectorIo* io, std::string script_path,
                                         std::string script_name, bool wait_for_connect)
    : io_(io),
      script_name_(std::move(script_name)),
      script_path_(std::move(script_path)),
      target_id_(GenerateTargetId()),
      waiting_(wait_for_connect) {}

bool InspectorIoDelegate::StartSession(int32_t session_id, const std::string&) {
  if (connected_.load()) return false;
  connected_.store(true);
  io_->PostIncomingMessage(InspectorAction::kStartSession, session_id, "");
  return true;
}

void InspectorIoDelegate::EndSession(int32_t session_id) {
  connected_.store(false);
  io_->PostIncomingMessage(InspectorAction::kEndSession, session_id, "");
}

void InspectorIoDelegate::MessageReceived(int32_t session_id, const std::string& message) {
  // Any text with the command releases the Vuser, valid JSON or not; the release comes first.
  if (waiting_ && message.find(kRunCommand) != std::string::npos) {
    waiting_ = false;
    std::lock_guard<std::mutex> lock(io_->state_lock_);
    io_->run_requested_ = true;
  }
  io_->PostIncomingMessage(InspectorAction::kSendMessage, session_id, message);
}

std::vector<std::string> InspectorIoDelegate::GetTargetIds() { return {target_id_}; }

std::string InspectorIoDelegate::GetTargetTitle(const std::string&) {
  if (!script_name_.empty()) return script_name_;
  char title[2048];
  if (uv_get_process_title(title, sizeof(title)) != 0) return "KeshInspector";
  return title;
}

std::string InspectorIoDelegate::GetTargetUrl(const std::string&) {
  return "file://" + script_path_;
}

void InspectorIoDelegate::ServerDone() {
  {
    std::lock_guard<std::mutex> lock(io_->state_lock_);
    io_->io_loop_open_ = false;
  }
  uv_close(reinterpret_cast<uv_handle_t*>(&io_->thread_req_), nullptr);
  if (io_->close_timer_started_) {
    uv_close(reinterpret_cast<uv_handle_t*>(&io_->close_timer_), nullptr);
  }
}

InspectorIo::InspectorIo(v8::Isolate* isolate, node::MultiIsolatePlatform* platform,
                         std::string script_name, std::string host, int32_t port,
                         bool wait_for_connect, uv_loop_t* loop, Agent* agent)
    : main_thread_req_(new MainThreadRequest()),
      platform_(platform),
      isolate_(isolate),
      loop_(loop),
      script_name_(std::move(script_name)),
      host_(std::move(host)),
      wait_for_connect_(wait_for_connect),
      port_(port) {
  main_thread_req_->second = agent;
  main_thread_req_->first.data = main_thread_req_;
  KESH_CHECK(0 ==
             uv_async_init(loop_, &main_thread_req_->first, InspectorIo::MainThreadReqAsyncCb));
  // Never keeps the Vuser's loop alive.
  uv_unref(reinterpret_cast<uv_handle_t*>(&main_thread_req_->first));
  KESH_CHECK(0 == uv_sem_init(&thread_start_sem_, 0));
}

InspectorIo::~InspectorIo() {
  // A thread whose server failed has ended on its own.
  if (thread_running_) KESH_CHECK(0 == uv_thread_join(&thread_));
  uv_sem_destroy(&thread_start_sem_);
  uv_close(reinterpret_cast<uv_handle_t*>(&main_thread_req_->first),
           [](uv_handle_t* handle) { delete static_cast<MainThreadRequest*>(handle->data); });
}

bool InspectorIo::Start() {
  KESH_CHECK(state_ == State::kNew);
  KESH_CHECK(uv_thread_create(&thread_, InspectorIo::ThreadMain, this) == 0);
  thread_running_ = true;
  uv_sem_wait(&thread_start_sem_);
  if (state_ == State::kError) return false;
  state_ = State::kAccepting;
  if (wait_for_connect_) {
    // The script is held back, but the client is answered: some clients send their next
    // command only once the last one is answered, the run command among them.
    for (;;) {
      bool released;
      {
        std::unique_lock<std::mutex> lock(state_lock_);
        incoming_cond_.wait_for(lock, kStopPoll, [this] {
          return run_requested_ || !incoming_queue_.empty() || stopRequested();
        });
        released = run_requested_ || stopRequested();
      }
      DispatchMessages();
      if (released) break;
    }
  }
  return true;
}

void InspectorIo::ThreadMain(void* arg) {
  auto* io = static_cast<InspectorIo*>(arg);
  uv_loop_t loop;
  int err = uv_loop_init(&loop);
  KESH_CHECK(err == 0);
  io->thread_req_.data = nullptr;
  err = uv_async_init(&loop, &io->thread_req_, InspectorIo::IoThreadAsyncCb);
  KESH_CHECK(err == 0);
  std::string script_path;
  if (!io->script_name_.empty()) {
    uv_fs_t req;
    if (uv_fs_realpath(&loop, &req, io->script_name_.c_str(), nullptr) == 0) {
      KESH_CHECK(req.ptr != nullptr);
      script_path = static_cast<const char*>(req.ptr);
    }
    uv_fs_req_cleanup(&req);
  }
  InspectorIoDelegate delegate(io, script_path, io->script_name_, io->wait_for_connect_);
  io->delegate_.store(&delegate);
  InspectorSocketServer server(&delegate, &loop, io->host_, io->port_);
  QueueTarget queue_target(&server, io);
  io->thread_req_.data = &queue_target;
  if (!server.Start()) {
    io->state_ = State::kError;
    KESH_CHECK(0 == closeAsyncAndLoop(&io->thread_req_));
    io->delegate_.store(nullptr);
    uv_sem_post(&io->thread_start_sem_);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(io->state_lock_);
    io->io_loop_open_ = true;
  }
  uv_sem_post(&io->thread_start_sem_);
  uv_run(&loop, UV_RUN_DEFAULT);
  io->thread_req_.data = nullptr;
  KESH_CHECK(uv_loop_close(&loop) == 0);
  io->delegate_.store(nullptr);
}

void InspectorIo::PostIncomingMessage(InspectorAction action, int32_t session_id,
                                      const std::string& message) {
  std::u16string text;
  if (!Utf8ToUtf16(message, &text)) {
    // Nothing else is wrong with the session: only this message is lost.
    fprintf(stderr, "Debugger message dropped: it is not valid UTF-8\n");
    fflush(stderr);
    return;
  }
  std::unique_ptr<v8_inspector::StringBuffer> buffer =
      v8_inspector::StringBuffer::create(ViewOf(text));
  bool was_empty;
  {
    std::lock_guard<std::mutex> lock(state_lock_);
    was_empty = incoming_queue_.empty();
    incoming_queue_.emplace_back(action, session_id, std::move(buffer));
  }
  if (was_empty) {
    // The pause loop runs the task, running script takes the interrupt, an idle loop the
    // handle; whichever comes first works off the queue and the others find it empty.
    platform_->GetForegroundTaskRunner(isolate_)->PostTask(
        std::make_unique<DispatchMessagesTask>(isolate_));
    isolate_->RequestInterrupt(onInterrupt, nullptr);
    KESH_CHECK(0 == uv_async_send(&main_thread_req_->first));
  }
  std::lock_guard<std::mutex> lock(state_lock_);
  incoming_cond_.notify_all();
}

void InspectorIo::MainThreadReqAsyncCb(uv_async_t* handle) {
  Agent* agent = static_cast<MainThreadRequest*>(handle->data)->second;
  if (agent->io() != nullptr) agent->io()->DispatchMessages();
}

void DispatchMessagesTask::Run() { dispatchForIsolate(isolate_); }

void InspectorIo::DispatchMessages() {
  if (dispatching_messages_) return;
  dispatching_messages_ = true;
  v8::HandleScope scope(isolate_);
  Agent* agent = main_thread_req_->second;
  for (;;) {
    if (dispatch_queue_.empty()) {
      std::lock_guard<std::mutex> lock(state_lock_);
      std::swap(dispatch_queue_, incoming_queue_);
    }
    if (dispatch_queue_.empty()) break;
    // A pause inside a dispatch works off the same queue: take each element before acting.
    while (!dispatch_queue_.empty()) {
      auto [action, session_id, message] = std::move(dispatch_queue_.front());
      dispatch_queue_.pop_front();
      switch (action) {
        case InspectorAction::kStartSession:
          KESH_CHECK(session_delegate_ == nullptr);
          session_id_ = session_id;
          state_ = State::kConnected;
          fprintf(stderr, "Debugger attached.\n");
          session_delegate_ = std::make_unique<IoSessionDelegate>(this);
          agent->Connect(session_delegate_.get());
          break;
        case InspectorAction::kEndSession:
          KESH_CHECK(session_delegate_ != nullptr);
          state_ = state_ == State::kShutDown ? State::kDone : State::kAccepting;
          agent->Disconnect();
          session_delegate_.reset();
          break;
        case InspectorAction::kSendMessage:
          if (debugLogged()) {
            KeshLogger::logf(LogLevel::kDebug, component::kKeshInspector, kNoVuser,
                             "Dispatch protocol message from frontend: %",
                             Utf16ToUtf8(message->string()));
          }
          agent->Dispatch(message->string());
          break;
      }
    }
  }
  dispatching_messages_ = false;
}

void InspectorIo::WaitForFrontendMessage() {
  // The pause may sit inside a dispatch further up the stack; messages must still get through.
  dispatching_messages_ = false;
  ReleasedVuser released(isolate_);
  std::unique_lock<std::mutex> lock(state_lock_);
  incoming_cond_.wait_for(lock, kStopPoll,
                          [this] { return !incoming_queue_.empty() || stopRequested(); });
}

void InspectorIo::Write(TransportAction action, int32_t session_id,
                        const v8_inspector::StringView& message) {
  std::unique_ptr<v8_inspector::StringBuffer> buffer = v8_inspector::StringBuffer::create(message);
  std::lock_guard<std::mutex> lock(state_lock_);
  // After the IO loop has closed, or while it closes, nobody would read it.
  if (!io_loop_open_) return;
  outgoing_queue_.emplace_back(action, session_id, std::move(buffer));
  // Under the lock, so that the loop cannot close between the append and the wake-up.
  int err = uv_async_send(&thread_req_);
  KESH_CHECK(0 == err);
}

void InspectorIo::IoThreadAsyncCb(uv_async_t* handle) {
  auto* target = static_cast<QueueTarget*>(handle->data);
  if (target == nullptr) return;
  InspectorSocketServer* server = target->first;
  InspectorIo* io = target->second;
  MessageQueue<TransportAction> outgoing;
  {
    std::lock_guard<std::mutex> lock(io->state_lock_);
    std::swap(outgoing, io->outgoing_queue_);
  }
  for (auto& [action, session_id, message] : outgoing) {
    switch (action) {
      case TransportAction::kKill:
        server->TerminateConnections();
        if (!io->close_timer_started_ && !server->connected_sessions_.empty()) {
          io->close_timer_started_ = true;
          KESH_CHECK(0 == uv_timer_init(handle->loop, &io->close_timer_));
          io->close_timer_.data = target;
          uv_timer_start(&io->close_timer_, onCloseAnswerTimeout, kCloseAnswerMs, 0);
        }
        [[fallthrough]];
      case TransportAction::kStop:
        // A stop after a stop (waiting for the client to leave, then the Vuser's end) is one.
        if (server->state_ == ServerState::kRunning) server->Stop();
        break;
      case TransportAction::kSendMessage: {
        std::string text = Utf16ToUtf8(message->string());
        KeshLogger::logf(LogLevel::kDebug, component::kKeshInspector, kNoVuser,
                         "Send outgoing message to frontend: %", text);
        server->Send(session_id, text);
        break;
      }
    }
  }
}

void InspectorIo::Stop() {
  KESH_CHECK(thread_running_);
  Write(TransportAction::kKill, 0, v8_inspector::StringView());
  int err = uv_thread_join(&thread_);
  KESH_CHECK(err == 0);
  thread_running_ = false;
  state_ = State::kShutDown;
  // What the IO thread left: above all the end of a session, which brings kDone.
  DispatchMessages();
}

bool Utf8ToUtf16(const std::string& text, std::u16string* out) {
  out->clear();
  out->reserve(text.size());
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  size_t size = text.size();
  for (size_t i = 0; i < size;) {
    unsigned char lead = bytes[i];
    char32_t code;
    size_t length;
    char32_t minimum;
    if (lead < 0x80) {
      out->push_back(lead);
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      code = lead & 0x1F;
      length = 2;
      minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      code = lead & 0x0F;
      length = 3;
      minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      code = lead & 0x07;
      length = 4;
      minimum = 0x10000;
    } else {
      return false;
    }
    if (size - i < length) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
      code = (code << 6) | (bytes[i + k] & 0x3F);
    }
    if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    if (code >= 0x10000) {
      code -= 0x10000;
      out->push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
      out->push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
    } else {
      out->push_back(static_cast<char16_t>(code));
    }
    i += length;
  }
  return true;
}

std::string Utf16ToUtf8(const v8_inspector::StringView& view) {
  if (view.is8Bit()) {
    return std::string(reinterpret_cast<const char*>(view.characters8()), view.length());
  }
  const uint16_t* units = view.characters16();
  size_t length = 0;
  while (length < view.length() && units[length] != 0) ++length;
  std::string out;
  out.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    char32_t code = units[i];
    if (code >= 0xD800 && code <= 0xDBFF && i + 1 < length && units[i + 1] >= 0xDC00 &&
        units[i + 1] <= 0xDFFF) {
      code = 0x10000 + ((code - 0xD800) << 10) + (units[++i] - 0xDC00);
    } else if (code >= 0xD800 && code <= 0xDFFF) {
      code = 0xFFFD;
    }
    if (code < 0x80) {
      out.push_back(static_cast<char>(code));
    } else if (code < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (code >> 6)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (code >> 12)));
      out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (code >> 18)));
      out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
  }
  return out;
}

v8_inspector::StringView ViewOf(const std::u16string& text) {
  return v8_inspector::StringView(reinterpret_cast<const uint16_t*>(text.data()), text.size());
}

std::string GenerateTargetId() {
  unsigned char bytes[16];
  KESH_CHECK(RAND_bytes(bytes, sizeof(bytes)) == 1);
  char id[37];
  snprintf(id, sizeof(id), "%04x%04x-%04x-%04x-%04x-%04x%04x%04x", bytes[0], bytes[1], bytes[2],
           bytes[3] + 0x4000, bytes[4] + 0x8000, bytes[5], bytes[6], bytes[7]);
  return id;
}

}  // namespace kesh
