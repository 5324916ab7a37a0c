// SPDX-License-Identifier: Apache-2.0
// zelta-view: look at a recording.
#include <exception>

#include <gst/gst.h>

#include "complain.h"
#include "core_service/channel/glib.h"
#include "core_service/task/secrets.h"
#include "exit_status.h"
#include "export_page.h"
#include "options.h"
#include "serve.h"

int main(int argc, char** argv) {
  using namespace zelta;
  try {
    view::options o;
    const view::parse_result parsed = view::parse_options(argc, argv, o);
    core_service::wipe_arguments(argc, argv, {"--token"});
    if (!parsed.ok) return tools::print(parsed, "zelta-view");
    core_service::glib_error fault;
    if (gst_init_check(nullptr, nullptr, fault.out()) == FALSE) {
      view::complain("GStreamer can't be used: " + fault.text());
      return view::kCantServe;
    }
    return o.export_page ? view::export_page(o) : view::serve(o);
  } catch (const std::exception& e) {
    view::complain(e.what());
    return view::kCantServe;
  }
}
