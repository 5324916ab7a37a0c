// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/glib_thread.h"

#include <utility>

namespace zelta::core_service {
namespace {

gboolean set_flag(gpointer flag) {
  *static_cast<bool*>(flag) = true;
  return G_SOURCE_REMOVE;
}

}  // namespace

glib_thread::glib_thread() : context_(g_main_context_new()) {
  thread_ = std::thread([this] {
    g_main_context_push_thread_default(context_.get());
    while (!over_) g_main_context_iteration(context_.get(), TRUE);
    g_main_context_pop_thread_default(context_.get());
  });
}

glib_thread::~glib_thread() {
  if (thread_.joinable()) end([] {});
}

void glib_thread::post(std::function<void()> work) {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    posted_.push_back(std::move(work));
  }
  GSource* const source = g_idle_source_new();
  // As urgent as what comes from sockets.
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(
      source,
      [](gpointer self) -> gboolean {
        static_cast<glib_thread*>(self)->run_next();
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
  g_source_attach(source, context_.get());
  g_source_unref(source);
}

void glib_thread::run_next() {
  std::function<void()> work;
  {
    const std::lock_guard<std::mutex> hold(lock_);
    work = std::move(posted_.front());
    posted_.pop_front();
  }
  work();
}

void glib_thread::end(std::function<void()> last) {
  post([this, last = std::move(last)] {
    last();
    over_ = true;
  });
  thread_.join();
}

void glib_thread::iterate_until(const std::function<bool()>& done, unsigned limit_ms) {
  bool late = false;
  const source_ptr limit(g_timeout_source_new(limit_ms));
  g_source_set_callback(limit.get(), set_flag, &late, nullptr);
  g_source_attach(limit.get(), context_.get());
  while (!late && !done()) g_main_context_iteration(context_.get(), TRUE);
}

}  // namespace zelta::core_service
