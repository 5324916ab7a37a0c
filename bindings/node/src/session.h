// SPDX-License-Identifier: Apache-2.0
// A recording as an event loop of Node.js has it: what waits for its events, what keeps the process
// alive, and how it ends.
//
//     made ── hold(), readable(), leave() ...  ── end() ── finished on a worker ── poll closed ──
//     gone
//                                                  │
//       by close() of JavaScript, by the collector, or by the environment that goes
//
// From its making until the poll is closed a session owns itself, so that neither the loop nor a
// worker ever has one that is gone. An environment that goes, of a worker thread that ends or of a
// process with nothing left to do, waits for that.
//
// Thread rule: all of it belongs to the thread of the environment; only the call that a worker
// makes runs elsewhere.
#pragma once

#include <memory>

#include <node_api.h>
#include <uv.h>

#include "frame_account.h"
#include "lease.h"

namespace zelta::node {

class session : public std::enable_shared_from_this<session> {
 public:
  // Null where the runtime refuses something that it needs.
  static std::shared_ptr<session> open(napi_env env, std::shared_ptr<const lease> owner,
                                       std::shared_ptr<frame_account> account);
  ~session() = default;
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  const std::shared_ptr<const lease>& owner() const { return owner_; }
  const std::shared_ptr<frame_account>& account() const { return account_; }
  zelta_recording* recording() const { return owner_->get(); }

  // A promise that is fulfilled once events wait, or none will come. One at a time.
  napi_value readable();
  // Whether the loop lives on for it, though nobody waits.
  void hold(bool held);
  // Promises of the result of the library's call, which a worker makes.
  napi_value leave();
  napi_value finish();
  // Finishes it, as nobody refers to it any more.
  void abandon();

 private:
  struct work;

  session(napi_env env, std::shared_ptr<const lease> owner, std::shared_ptr<frame_account> account);
  bool start();
  void watch();
  void on_readable();
  napi_deferred promise(napi_value& made) const;
  void settle(napi_deferred answer, int code) const;
  void run(int (*call)(zelta_recording*), napi_deferred answer);
  void done(const work& of);
  void end(napi_deferred answer);
  void close_poll();
  void closed();
  static void on_environment_end(napi_async_cleanup_hook_handle handle, void* of);

  const napi_env env_;
  std::shared_ptr<const lease> owner_;
  const std::shared_ptr<frame_account> account_;
  std::shared_ptr<session> self_;
  uv_loop_t* loop_ = nullptr;
  uv_poll_t poll_{};
  napi_async_context context_ = nullptr;
  napi_async_cleanup_hook_handle hook_ = nullptr;
  napi_deferred waiting_ = nullptr;
  unsigned running_ = 0;  // calls that workers make
  bool held_ = false;
  bool ending_ = false;
  bool environment_ends_ = false;  // JavaScript is called no more
};

}  // namespace zelta::node
