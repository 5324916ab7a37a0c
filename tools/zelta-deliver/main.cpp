// SPDX-License-Identifier: Apache-2.0
// zelta-deliver, which brings recordings to where they are kept.
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "age.h"
#include "base/unique_fd.h"
#include "courier.h"
#include "delivery_metrics.h"
#include "exit_status.h"
#include "http_client.h"
#include "options.h"
#include "places.h"
#include "settings.h"
#include "status.h"
#include "zelta-record/ending_signals.h"

namespace zelta::deliver {
namespace {

// Before any thread, which inherits that they are blocked. One that is ignored stays so, as nohup
// wants it; a reader of our output who has gone is no reason to end.
base::unique_fd block_signals() {
  signal(SIGPIPE, SIG_IGN);
  sigset_t taken;
  sigemptyset(&taken);
  for (const int one : record::ending_signals()) sigaddset(&taken, one);
  sigprocmask(SIG_BLOCK, &taken, nullptr);
  return base::unique_fd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Or what we open next would be written to as if it were one of them. They are taken in order.
bool open_standard_streams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) return false;
  }
  return true;
}

int deliver(int argc, char** argv) {
  if (!open_standard_streams()) return kBroken;
  // Who started us may have it ignored: children would leave nothing to be waited for.
  signal(SIGCHLD, SIG_DFL);
  options asked;
  const parse_result parsed = parse_options(argc, argv, asked);
  if (!parsed.ok) return tools::print(parsed, "zelta-deliver");
  if (asked.status) return tell_status(asked);
  std::vector<std::string> errors;
  delivery_settings settings = load_delivery_settings(asked.settings_path, errors);
  if (errors.empty()) check_places(asked, settings, errors);
  if (errors.empty()) check_sealing(asked.settings_path, settings, errors);
  for (const std::string& error : errors) std::fprintf(stderr, "%s\n", error.c_str());
  if (!errors.empty()) return kUsage;
  const base::unique_fd signals = block_signals();
  if (!prepare_http() || !signals.valid()) {
    std::fputs("zelta-deliver: libcurl or signalfd can't be had\n", stderr);
    return kBroken;
  }
  courier carries(asked, settings);
  if (asked.metrics_address.empty()) return carries.run(signals.get());
  std::string error;
  const auto server = metrics::metrics_server::make(asked.metrics_address, error);
  if (!server) {
    std::fprintf(stderr, "zelta-deliver: --metrics: %s\n", error.c_str());
    return kUsage;
  }
  std::vector<std::string> targets;
  for (const target_settings& one : settings.targets) targets.push_back(one.name);
  const auto numbers = std::make_shared<delivery_metrics>(
      std::move(targets), [&carries] { return carries.numbers(); }, carries.reports());
  server->add(numbers);
  return carries.run(signals.get());
}

}  // namespace
}  // namespace zelta::deliver

int main(int argc, char** argv) {
  try {
    return zelta::deliver::deliver(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zelta-deliver: %s\n", e.what());
    return zelta::deliver::kBroken;
  }
}
