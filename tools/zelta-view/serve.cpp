// SPDX-License-Identifier: Apache-2.0
#include "serve.h"

#include <csignal>
#include <cstdio>
#include <memory>

#include <glib-unix.h>

#include "complain.h"
#include "exit_status.h"
#include "folder_reader.h"
#include "view_server.h"

namespace zelta::view {
namespace {

struct loop_unref {
  void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};

void tell(const options& o, const std::string& url) {
  if (o.json) {
    Json::Value event;
    event["event"] = "page";
    event["url"] = url;
    std::printf("%s\n", text_of(event).c_str());
  } else {
    std::printf("zelta-view: open %s\n", url.c_str());
  }
  std::fflush(stdout);
}

gboolean end(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

}  // namespace

int serve(const options& o) {
  const std::unique_ptr<GMainLoop, loop_unref> loop(g_main_loop_new(nullptr, FALSE));
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    g_unix_signal_add(number, end, loop.get());
  }
  const folder_view view = look_at(o.folder, wall_clock_ms());
  for (const std::string& error : view.errors) complain(error);
  // One that has just begun is shown as soon as there is something of it.
  if (view.manifests == 0) return kNoRecording;
  std::string error;
  const auto server = view_server::start(o, error);
  if (!server) {
    complain(error);
    return kCantServe;
  }
  tell(o, server->url());
  g_main_loop_run(loop.get());
  return kDone;
}

}  // namespace zelta::view
