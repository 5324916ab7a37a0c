// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/glib_thread.h"

#include <memory>
#include <utility>

namespace zelta::core_service {
namespace {

using task = std::function<void()>;

gboolean run_task(gpointer work) {
  (*static_cast<task*>(work))();
  return G_SOURCE_REMOVE;
}

void delete_task(gpointer work) {
  delete static_cast<task*>(work);
}

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

void glib_thread::post(task work) {
  GSource* const source = g_idle_source_new();
  // As urgent as what comes from sockets.
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  auto kept = std::make_unique<task>(std::move(work));
  g_source_set_callback(source, run_task, kept.release(), delete_task);
  g_source_attach(source, context_.get());
  g_source_unref(source);
}

void glib_thread::end(task last) {
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
