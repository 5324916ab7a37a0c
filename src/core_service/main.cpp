// SPDX-License-Identifier: Apache-2.0
// ZeltaCoreService, the recorder process.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include <gst/gst.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "base/event_loop.h"
#include "base/log.h"
#include "base/scoped_watch.h"
#include "base/unique_fd.h"
#include "core_service/load/descriptors.h"
#include "core_service/session/session.h"
#include "core_service/task/options.h"
#include "core_service/task/secrets.h"
#include "core_service/task/settings.h"

namespace {

using namespace zelta;

// Blocked before any thread exists, so that the loop alone sees them.
base::unique_fd take_signals() {
  sigset_t taken;
  sigemptyset(&taken);
  sigaddset(&taken, SIGTERM);
  sigaddset(&taken, SIGINT);
  pthread_sigmask(SIG_BLOCK, &taken, nullptr);
  // The engine may die at any moment; a write to it then fails and says so.
  std::signal(SIGPIPE, SIG_IGN);
  // A file that grows past a limit fails to be written, which is told; it doesn't kill.
  std::signal(SIGXFSZ, SIG_IGN);
  return base::unique_fd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
}

// "--vocs" names a server of the other kind; else the environment does.
std::string channel_server(const core_service::options& given) {
  if (!given.vocs.empty()) {
    return "janus:http://" + given.vocs + ":" + std::to_string(given.vocs_port) + "/janus";
  }
  const char* const server = std::getenv("ZELTA_CHANNEL_SERVER");
  return server != nullptr ? server : "";
}

int record(core_service::options given, const core_service::loaded_settings& settings) {
  const base::unique_fd signals = take_signals();
  base::log_config::set_log_level(static_cast<base::log_levels>(given.log_level));
  base::log_config::set_enabled_modules(static_cast<uint32_t>(given.enabled_modules));
  base::log_config::setFacility(given.syslog_fclt);
  // Else a crash while a plugin is loaded talks on the application's standard output.
  gst_segtrap_set_enabled(FALSE);
  gst_init(nullptr, nullptr);
  int status = 0;
  {
    base::event_loop loop;
    loop.logdir_ = given.recording_file_dir;
    std::string server = channel_server(given);
    core_service::session session(std::move(given), settings.values, std::move(server), loop);
    const base::scoped_watch watch(loop, signals.get(), {[&] {
                                     signalfd_siginfo info{};
                                     if (read(signals.get(), &info, sizeof info) == sizeof info) {
                                       session.on_signal(static_cast<int>(info.ssi_signo));
                                     }
                                   }});
    if (settings.errors.empty()) {
      session.start();
    } else {
      session.refuse(settings.errors);
    }
    if (!session.is_over()) loop.run(false);
    status = session.exit_status();
  }
  gst_deinit();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  core_service::parsed_options parsed = core_service::option_parser().parse(argc, argv);
  core_service::wipe_arguments(argc, argv, core_service::secret_options());
  core_service::renounce_privileges();
  core_service::raise_descriptor_limit();
  if (!parsed.values) {
    std::fputs(parsed.message.c_str(), parsed.exit_status == 0 ? stdout : stderr);
    return parsed.exit_status == 0 ? core_service::kExitDone : core_service::kExitUsage;
  }
  const core_service::loaded_settings settings = core_service::load_settings_of_environment();
  for (const std::string& error : settings.errors) {
    std::fprintf(stderr, "ZeltaCoreService: %s\n", error.c_str());
  }
  return record(std::move(*parsed.values), settings);
}
