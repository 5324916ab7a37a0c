// SPDX-License-Identifier: Apache-2.0
// Owners of GLib's objects.
#pragma once

#include <memory>
#include <string>

#include <gio/gio.h>

namespace zelta::core_service {

struct glib_unref {
  void operator()(void* object) const { g_object_unref(object); }
};
template <class T>
using glib_ptr = std::unique_ptr<T, glib_unref>;

struct context_unref {
  void operator()(GMainContext* context) const { g_main_context_unref(context); }
};
using context_ptr = std::unique_ptr<GMainContext, context_unref>;

// No callback comes after it, but the one that it is reset from goes on.
struct source_end {
  void operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
  }
};
using source_ptr = std::unique_ptr<GSource, source_end>;

struct bytes_unref {
  void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
using bytes_ptr = std::unique_ptr<GBytes, bytes_unref>;

struct text_free {
  void operator()(char* text) const { g_free(text); }
};
using text_ptr = std::unique_ptr<char, text_free>;

// Where a call puts what went wrong.
class glib_error {
 public:
  glib_error() = default;
  glib_error(const glib_error&) = delete;
  glib_error& operator=(const glib_error&) = delete;
  ~glib_error() { g_clear_error(&error_); }

  GError** out() { return &error_; }
  bool is(GIOErrorEnum code) const {
    return g_error_matches(error_, G_IO_ERROR, static_cast<gint>(code)) != FALSE;
  }
  std::string text() const { return error_ != nullptr ? error_->message : "unknown error"; }

 private:
  GError* error_ = nullptr;
};

}  // namespace zelta::core_service
