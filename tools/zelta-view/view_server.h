// SPDX-License-Identifier: Apache-2.0
// Serves a folder and its page by HTTP, on the thread of the default context of GLib.
#pragma once

#include <memory>
#include <string>

#include <libsoup/soup.h>

#include "core_service/channel/glib.h"
#include "core_service/channel/http_listener.h"
#include "folder_reader.h"
#include "level_visitors.h"
#include "options.h"
#include "view_rules.h"

namespace zelta::view {

class view_server {
 public:
  // Listens; null, with `error`, when that can't be. Throws std::system_error when there is no
  // thread to be had. `o` is borrowed for as long as the server is there.
  static std::unique_ptr<view_server> start(const options& o, std::string& error);
  view_server(const view_server&) = delete;
  view_server& operator=(const view_server&) = delete;
  // Connections are cut.
  ~view_server();

  // Where the page is, for a browser on this machine.
  std::string url() const;

 private:
  using listener_ptr = std::unique_ptr<core_service::http_listener>;
  view_server(const options& o, listener_ptr listener);

  void answer_safely(SoupServerMessage* message, const char* path);
  void answer(SoupServerMessage* message, const char* path);
  void give_page(SoupServerMessage* message);
  void give_session(SoupServerMessage* message);
  void give_file(SoupServerMessage* message, const std::string& name);
  void give_levels(SoupServerMessage* message, const std::string& name);
  void take_token(SoupServerMessage* message);
  bool is_served(const std::string& name);
  const folder_view& look();

  const options& options_;
  const listener_ptr listener_;
  const view_rules rules_;
  const std::string policy_;
  core_service::glib_ptr<SoupServer> server_;
  folder_reader folder_;
  const folder_view* seen_ = nullptr;  // of folder_; null: never
  int64_t seen_at_us_ = 0;             // monotonic
  level_visitors levels_;
};

}  // namespace zelta::view
