// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <utility>

#include "values.h"

namespace zelta::node {

struct session::work {
  uv_work_t request{};
  std::shared_ptr<session> of;
  int (*call)(zelta_recording*) = nullptr;
  int code = ZELTA_OK;
  napi_deferred answer = nullptr;
};

// ---- Made ----------------------------------------------------------------------------------

std::shared_ptr<session> session::open(napi_env env, std::shared_ptr<const lease> owner,
                                       std::shared_ptr<frame_account> account) {
  std::shared_ptr<session> made(new session(env, std::move(owner), std::move(account)));
  return made->start() ? made : nullptr;
}

session::session(napi_env env, std::shared_ptr<const lease> owner,
                 std::shared_ptr<frame_account> account)
    : env_(env), owner_(std::move(owner)), account_(std::move(account)) {}

bool session::start() {
  int fd = -1;
  if (napi_get_uv_event_loop(env_, &loop_) != napi_ok) return false;
  if (zelta_event_fd(recording(), &fd) != ZELTA_OK) return false;
  const object_value resource(env_);
  if (napi_async_init(env_, resource.get(), text_value(env_, "zelta.Recording"), &context_) !=
      napi_ok) {
    return false;
  }
  if (napi_add_async_cleanup_hook(env_, on_environment_end, this, &hook_) != napi_ok ||
      uv_poll_init(loop_, &poll_, fd) != 0) {
    if (hook_ != nullptr) static_cast<void>(napi_remove_async_cleanup_hook(hook_));
    static_cast<void>(napi_async_destroy(env_, context_));
    return false;
  }
  poll_.data = this;
  self_ = shared_from_this();
  return true;
}

// ---- Events --------------------------------------------------------------------------------

napi_value session::readable() {
  napi_value made = nullptr;
  if (waiting_ != nullptr || ending_) return nullptr;
  waiting_ = promise(made);
  watch();
  return made;
}

void session::hold(bool held) {
  held_ = held;
  watch();
}

// Polled only while somebody waits. What keeps the loop alive beyond that is interest in nothing
// but a hang-up, which the descriptor never has.
void session::watch() {
  if (ending_) return;
  const int events = (waiting_ != nullptr ? UV_READABLE : 0) | (held_ ? UV_DISCONNECT : 0);
  // Neither can fail with a handle that isn't closing.
  if (events == 0) {
    static_cast<void>(uv_poll_stop(&poll_));
    return;
  }
  static_cast<void>(uv_poll_start(&poll_, events, [](uv_poll_t* poll, int, int) {
    static_cast<session*>(poll->data)->on_readable();
  }));
}

void session::on_readable() {
  const std::shared_ptr<session> kept = self_;
  const napi_deferred answer = std::exchange(waiting_, nullptr);
  watch();
  if (answer != nullptr) settle(answer, ZELTA_OK);
}

// ---- Calls that take a while ---------------------------------------------------------------

napi_deferred session::promise(napi_value& made) const {
  napi_deferred answer = nullptr;
  return napi_create_promise(env_, &answer, &made) == napi_ok ? answer : nullptr;
}

// What waits for the promise runs before this returns, or where JavaScript is on the stack, after
// that has returned.
void session::settle(napi_deferred answer, int code) const {
  napi_handle_scope handles = nullptr;
  if (environment_ends_ || napi_open_handle_scope(env_, &handles) != napi_ok) return;
  napi_callback_scope scope = nullptr;
  if (napi_open_callback_scope(env_, object_value(env_).get(), context_, &scope) == napi_ok) {
    static_cast<void>(napi_resolve_deferred(env_, answer, number_value(env_, code)));
    static_cast<void>(napi_close_callback_scope(env_, scope));
  }
  static_cast<void>(napi_close_handle_scope(env_, handles));
}

void session::run(int (*call)(zelta_recording*), napi_deferred answer) {
  auto made = std::make_unique<work>();
  made->of = self_;
  made->call = call;
  made->answer = answer;
  made->request.data = made.get();
  ++running_;
  const auto on_worker = [](uv_work_t* request) {
    auto& of = *static_cast<work*>(request->data);
    of.code = of.call(of.of->recording());
  };
  const auto after = [](uv_work_t* request, int) {
    const std::unique_ptr<work> of(static_cast<work*>(request->data));
    of->of->done(*of);
  };
  // It fails without a function alone.
  static_cast<void>(uv_queue_work(loop_, &made->request, on_worker, after));
  static_cast<void>(made.release());
}

void session::done(const work& of) {
  --running_;
  if (of.answer != nullptr) settle(of.answer, of.code);
  if (ending_ && running_ == 0) close_poll();
}

napi_value session::leave() {
  napi_value made = nullptr;
  if (ending_) return nullptr;
  run(zelta_recording_leave, promise(made));
  return made;
}

// ---- Ended ---------------------------------------------------------------------------------

napi_value session::finish() {
  napi_value made = nullptr;
  if (ending_) return nullptr;
  end(promise(made));
  // No event is handed out any more.
  const napi_deferred waiting = std::exchange(waiting_, nullptr);
  if (waiting != nullptr) settle(waiting, ZELTA_OK);
  return made;
}

void session::abandon() {
  if (!ending_) end(nullptr);
}

void session::on_environment_end(napi_async_cleanup_hook_handle, void* of) {
  auto& ended = *static_cast<session*>(of);
  ended.environment_ends_ = true;
  if (!ended.ending_) ended.end(nullptr);
}

void session::end(napi_deferred answer) {
  ending_ = true;
  // Events that nobody takes would wake the loop again and again until the recorder has ended.
  static_cast<void>(uv_poll_stop(&poll_));
  run(zelta_recording_finish, answer);
}

void session::close_poll() {
  uv_close(reinterpret_cast<uv_handle_t*>(&poll_),
           [](uv_handle_t* poll) { static_cast<session*>(poll->data)->closed(); });
}

void session::closed() {
  const std::shared_ptr<session> last = std::move(self_);
  // Before the environment may go, which it may from here on.
  owner_.reset();
  napi_handle_scope handles = nullptr;
  if (napi_open_handle_scope(env_, &handles) == napi_ok) {
    static_cast<void>(napi_async_destroy(env_, context_));
    static_cast<void>(napi_close_handle_scope(env_, handles));
  }
  static_cast<void>(napi_remove_async_cleanup_hook(hook_));
}

}  // namespace zelta::node
