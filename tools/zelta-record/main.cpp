// SPDX-License-Identifier: Apache-2.0
// zelta-record, the command line over the engine.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "options.h"
#include "reporter.h"

namespace {

using namespace zelta;
using record::reporter;

struct release_engine {
  void operator()(recording::IRecordingEngine* engine) const { engine->release(); }
};
using engine_ptr = std::unique_ptr<recording::IRecordingEngine, release_engine>;

// The first SIGINT or SIGTERM ends the recording in order; a second one doesn't wait for the files:
// the recorder notices that its engine is gone and completes them by itself.
class signal_watch {
 public:
  // Made before any other thread, which inherits that the signals are blocked.
  explicit signal_watch(reporter& report) : report_(report), end_(eventfd(0, EFD_CLOEXEC)) {
    sigset_t taken;
    sigemptyset(&taken);
    sigaddset(&taken, SIGTERM);
    sigaddset(&taken, SIGINT);
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    signals_.reset(signalfd(-1, &taken, SFD_CLOEXEC));
    thread_ = std::thread([this] { watch(); });
  }
  signal_watch(const signal_watch&) = delete;
  signal_watch& operator=(const signal_watch&) = delete;
  ~signal_watch() {
    eventfd_write(end_.get(), 1);
    thread_.join();
  }

 private:
  void watch() {
    for (int seen = 0; next_signal(); ++seen) {
      if (seen > 0) _exit(128 + SIGINT);
      report_.stop();
    }
  }

  // Waits; false when the watch is over.
  bool next_signal() const {
    pollfd fds[] = {{signals_.get(), POLLIN, 0}, {end_.get(), POLLIN, 0}};
    while (poll(fds, 2, -1) < 0 && errno == EINTR) {
    }
    signalfd_siginfo info{};
    return fds[1].revents == 0 &&
           read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info);
  }

  reporter& report_;
  const base::unique_fd end_;
  base::unique_fd signals_;
  std::thread thread_;
};

// Until the session is over, its time is up, or somebody asks for the end.
void record_until_end(const record::options& o, reporter& report) {
  using clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kProgress(500);
  auto end = clock::time_point::max();
  auto state = reporter::state::kJoining;
  while (state != reporter::state::kOver && clock::now() < end) {
    const auto wake = std::min(clock::now() + kProgress, end);
    const auto now = report.wait_change(state, wake);
    if (now == reporter::state::kRecording && state == reporter::state::kJoining &&
        o.duration_s > 0) {
      end = clock::now() + std::chrono::milliseconds(static_cast<int64_t>(o.duration_s * 1000));
    }
    state = now;
    if (state == reporter::state::kRecording) report.show_progress();
  }
}

int run(record::options& o) {
  if (!o.server.empty()) setenv("ZELTA_CHANNEL_SERVER", o.server.c_str(), 1);
  reporter report(
      o.json, o.channel_id,
      o.frames_dir.empty() ? nullptr : std::make_unique<record::frame_files>(o.frames_dir));
  engine_ptr engine(
      recording::IRecordingEngine::createZeltaRecordingEngine(o.app_id.c_str(), &report));
  if (!engine) return record::kUsage;
  if (o.log_level != 0) engine->setLogLevel(static_cast<recording::zelta_log_level>(o.log_level));
  const int refused =
      engine->joinChannel(o.channel_key.c_str(), o.channel_id.c_str(), o.uid, o.config);
  if (refused != 0) {
    const char* const folder = engine->getProperties()->storageDir;
    std::fprintf(stderr, "zelta-record: the engine refused to join (%d); the reason is in %s%s\n",
                 refused, folder != nullptr ? folder : "the line above",
                 folder != nullptr ? "recording_engine.log" : "");
    return record::kRefused;
  }
  if (o.config.triggerMode == recording::MANUALLY_MODE) engine->startService();
  const std::string folder = engine->getProperties()->storageDir;
  record_until_end(o, report);
  engine->leaveChannel();
  engine.reset();
  report.show_files(folder);
  const int status = report.status();
  if (status != record::kRecorded) {
    std::fprintf(stderr, "zelta-record: see %srecording_engine.log\n", folder.c_str());
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // On the heap for its size alone: its configuration points into itself, so it must not move.
  const auto o = std::make_unique<record::options>();
  const record::parse_result parsed = record::parse_options(argc, argv, *o);
  if (!parsed.ok) {
    std::fputs(parsed.message.c_str(), parsed.exit_status == 0 ? stdout : stderr);
    return parsed.exit_status;
  }
  return run(*o);
}
