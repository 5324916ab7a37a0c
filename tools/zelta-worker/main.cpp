// SPDX-License-Identifier: Apache-2.0
// zelta-worker, which records what stands in the fleet's queue.
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include <json/json.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include "base/event_loop.h"
#include "base/scoped_watch.h"
#include "base/unique_fd.h"
#include "common/command_line.h"
#include "fleet/broker.h"
#include "fleet/worker.h"
#include "fleet/worker_settings.h"
#include "worker_metrics.h"
#include "zelta-record/ending_signals.h"
#include "zelta_revision.h"

namespace zelta::fleet {
namespace {

enum exit_status : int {
  kDrained = 0,   // all that it had is over, or handed over
  kNoBroker = 1,  // NATS couldn't be reached, or used
  kBadUsage = 2,  // the command line or the settings can't be used
};

constexpr const char* kAbout =
    "Records jobs of the fleet's queue, as many as this machine has room for. SIGINT, SIGTERM and "
    "SIGHUP drain it: it takes no more, and ends when those it has are over, or with --handover at "
    "once handed over; a second signal hands them over.\n"
    "Exit status: 0 drained, 1 NATS couldn't be reached or used, 2 bad usage.";

struct options {
  std::string settings_path;
  std::string metrics_address;
  bool handover = false;
  bool json = false;
};

// Before any thread, which inherits that they are blocked.
base::unique_fd block_signals() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGCHLD, SIG_DFL);
  sigset_t taken;
  sigemptyset(&taken);
  for (const int one : record::ending_signals()) sigaddset(&taken, one);
  sigprocmask(SIG_BLOCK, &taken, nullptr);
  return base::unique_fd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
}

std::string recorder_beside() {
  char path[4096] = "";
  const ssize_t size = readlink("/proc/self/exe", path, sizeof path - 1);
  const std::string own(path, size > 0 ? static_cast<size_t>(size) : 0);
  return own.substr(0, own.rfind('/') + 1) + "zelta-record";
}

void tell(bool json, const std::string& job, const std::string& event, const std::string& text) {
  if (json) {
    Json::Value made;
    made["event"] = event;
    if (!job.empty()) made["job"] = job;
    if (!text.empty()) made["text"] = text;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::printf("%s\n", Json::writeString(writer, made).c_str());
  } else {
    std::printf("%s%s%s%s%s\n", job.c_str(), job.empty() ? "" : ": ", event.c_str(),
                text.empty() ? "" : ": ", text.c_str());
  }
  std::fflush(stdout);
}

int work(int argc, char** argv) {
  options o;
  CLI::App app(kAbout, "zelta-worker");
  app.set_version_flag("--version", "zelta-worker " ZELTA_REVISION);
  app.add_option("--settings", o.settings_path, "JSON file: what this worker may do, and where")
      ->required();
  app.add_flag("--handover", o.handover, "hand recordings over when it is told to end");
  app.add_option("--metrics", o.metrics_address,
                 "HOST:PORT, or a port of 127.0.0.1: its numbers for Prometheus, at /metrics");
  app.add_flag("--json", o.json, "one JSON object a line and event");
  const tools::parse_result parsed =
      tools::parse_command_line(app, argc, argv, kBadUsage, [] { return std::string(); });
  if (!parsed.ok) return tools::print(parsed, "zelta-worker");
  std::vector<std::string> errors;
  const worker_settings settings = load_worker_settings(o.settings_path, recorder_beside(), errors);
  for (const std::string& error : errors) std::fprintf(stderr, "zelta-worker: %s\n", error.c_str());
  if (!errors.empty()) return kBadUsage;
  const base::unique_fd signals = block_signals();
  std::string error;
  const auto by = broker::connect(settings.nats, error);
  if (!by || !by->prepare(3 * settings.lease, error)) {
    std::fprintf(stderr, "zelta-worker: %s\n", error.c_str());
    return kNoBroker;
  }
  base::event_loop loop;
  worker works(loop, *by, settings, o.handover,
               [&o](const std::string& job, const std::string& event, const std::string& text) {
                 tell(o.json, job, event, text);
               });
  // Before jobs come, so that a wrong address costs none.
  std::unique_ptr<metrics::metrics_server> server;
  const auto numbers = std::make_shared<worker_metrics>(works);
  if (!o.metrics_address.empty()) {
    server = metrics::metrics_server::make(o.metrics_address, error);
    if (!server) {
      std::fprintf(stderr, "zelta-worker: --metrics: %s\n", error.c_str());
      return kBadUsage;
    }
    server->add(numbers);
  }
  if (!works.start(error)) {
    std::fprintf(stderr, "zelta-worker: %s\n", error.c_str());
    return kNoBroker;
  }
  const base::scoped_watch watch(loop, signals.get(), {[&] {
                                   signalfd_siginfo info{};
                                   while (read(signals.get(), &info, sizeof info) > 0)
                                     works.drain();
                                 }});
  tell(o.json, "", "ready", settings.name);
  loop.run(false);
  if (by->is_shut_out(error)) {
    std::fprintf(stderr, "zelta-worker: %s\n", error.c_str());
    return kNoBroker;
  }
  return kDrained;
}

}  // namespace
}  // namespace zelta::fleet

int main(int argc, char** argv) {
  try {
    return zelta::fleet::work(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zelta-worker: %s\n", e.what());
    return zelta::fleet::kNoBroker;
  }
}
