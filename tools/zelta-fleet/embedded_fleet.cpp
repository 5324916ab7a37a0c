// SPDX-License-Identifier: Apache-2.0
#include "embedded_fleet.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "base/event_loop.h"
#include "base/scoped_watch.h"
#include "base/unique_fd.h"
#include "fleet/recorder_child.h"
#include "zelta-record/ending_signals.h"

namespace zelta::fleet {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMostLines = 5;

// On PATH, or where Debian puts servers, which isn't on everybody's.
std::string find_program(const std::string& name) {
  const char* const path = std::getenv("PATH");
  std::string all = std::string(path != nullptr ? path : "") + ":/usr/sbin:/usr/local/sbin";
  for (size_t at = 0; at <= all.size();) {
    const size_t end = std::min(all.find(':', at), all.size());
    std::string found = all.substr(at, end - at) + "/" + name;
    if (end > at && access(found.c_str(), X_OK) == 0) return found;
    at = end + 1;
  }
  return "";
}

std::string program_beside(const std::string& name) {
  std::error_code failed;
  return fs::read_symlink("/proc/self/exe", failed).parent_path() / name;
}

std::vector<std::string> environment() {
  std::vector<std::string> made;
  for (char** one = environ; one != nullptr && *one != nullptr; ++one) made.emplace_back(*one);
  return made;
}

class embedded_fleet {
 public:
  explicit embedded_fleet(const options& of)
      : o_(of), url_("nats://127.0.0.1:" + std::to_string(of.port)) {}

  exit_status run();

 private:
  using child = std::unique_ptr<recorder_child>;

  bool prepare(std::string& error);
  bool start_server(std::string& error);
  bool start_worker(std::string& error);
  void on_server_line(const std::string& line);
  void on_worker_event(const Json::Value& event);
  void on_ended(const char* which, child& of, int status);
  void say(const std::string& text) const;
  void end();

  const options& o_;
  const std::string url_;
  std::string folder_;
  base::event_loop loop_;
  child server_;
  child worker_;
  std::deque<std::string> last_lines_;
  bool ending_ = false;
  exit_status status_ = kDone;
};

void embedded_fleet::say(const std::string& text) const {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

bool embedded_fleet::prepare(std::string& error) {
  std::error_code failed;
  folder_ = fs::absolute(o_.folder, failed);
  for (const char* const part : {"/nats", "/recordings"}) {
    if (!failed) fs::create_directories(folder_ + part, failed);
  }
  if (failed) {
    error = "--folder \"" + o_.folder + "\" can't be made: " + failed.message();
    return false;
  }
  Json::Value settings;
  settings["name"] = "here";
  settings["nats"]["urls"].append(url_);
  settings["root"] = folder_ + "/recordings";
  // None of these leads to a file of this machine.
  for (const char* const one : {"test:", "whip:", "janus:"}) settings["servers"].append(one);
  Json::StreamWriterBuilder writer;
  std::ofstream file(folder_ + "/worker.json", std::ios::trunc);
  file << Json::writeString(writer, settings) << "\n";
  file.close();
  if (!file) error = folder_ + "/worker.json can't be written: " + std::strerror(errno);
  return error.empty();
}

bool embedded_fleet::start_server(std::string& error) {
  const std::string program = find_program("nats-server");
  if (program.empty()) {
    error = "there is no nats-server on PATH: apt-get install nats-server";
    return false;
  }
  std::vector<std::string> argv{program, "-js",       "-sd", folder_ + "/nats",
                                "-a",    "127.0.0.1", "-p",  std::to_string(o_.port)};
  // It has nothing of its own that ends it with whoever started it.
  const std::string leash = find_program("setpriv");
  if (!leash.empty()) argv.insert(argv.begin(), {leash, "--pdeathsig", "TERM"});
  server_ =
      recorder_child::start(loop_, argv, environment(),
                            {[](const Json::Value& /*none*/) {},
                             [this](const std::string& line) { on_server_line(line); },
                             [this](int status) { on_ended("nats-server", server_, status); }},
                            error);
  return server_ != nullptr;
}

bool embedded_fleet::start_worker(std::string& error) {
  const std::vector<std::string> argv{program_beside("zelta-worker"), "--json", "--handover",
                                      "--settings", folder_ + "/worker.json"};
  worker_ =
      recorder_child::start(loop_, argv, environment(),
                            {[this](const Json::Value& event) { on_worker_event(event); },
                             [this](const std::string& line) {
                               last_lines_.push_back(line);
                               if (last_lines_.size() > kMostLines) last_lines_.pop_front();
                             },
                             [this](int status) { on_ended("zelta-worker", worker_, status); }},
                            error);
  return worker_ != nullptr;
}

void embedded_fleet::on_server_line(const std::string& line) {
  last_lines_.push_back(line);
  if (last_lines_.size() > kMostLines) last_lines_.pop_front();
  if (worker_ || ending_ || line.find("Server is ready") == std::string::npos) return;
  std::string error;
  if (start_worker(error)) return;
  status_ = fail(error.c_str());
  end();
}

void embedded_fleet::on_worker_event(const Json::Value& event) {
  const std::string name = event["event"].asString();
  if (name != "ready") {
    const std::string job = event["job"].asString();
    const std::string text = event["text"].asString();
    return say((job.empty() ? "" : job + ": ") + name + (text.empty() ? "" : ": " + text));
  }
  const std::string at = o_.port == options().port ? "" : " --nats " + url_;
  say("The fleet is up: NATS at " + url_ + ", recordings in " + folder_ + "/recordings");
  say("Record something, in another terminal:");
  say("  zelta-fleet" + at + " record first --server test:users=2 --duration 10");
  say("  zelta-fleet" + at + " list --all");
  say("Ctrl-C ends it; what it records then goes on with the next \"up\".");
}

// Each is told once: the worker first, which needs the server to hand its jobs back.
void embedded_fleet::end() {
  ending_ = true;
  if (worker_) return worker_->send_signal(SIGTERM);
  if (server_) return server_->send_signal(SIGTERM);
  loop_.stop();
}

void embedded_fleet::on_ended(const char* which, child& of, int status) {
  if (!ending_) {
    for (const std::string& line : last_lines_) std::fprintf(stderr, "%s\n", line.c_str());
    status_ = fail((std::string(which) + " ended by itself, with status " + std::to_string(status) +
                    "; its last lines are above")
                       .c_str());
  }
  of.reset();
  end();
}

exit_status embedded_fleet::run() {
  sigset_t taken;
  sigemptyset(&taken);
  for (const int one : record::ending_signals()) sigaddset(&taken, one);
  sigprocmask(SIG_BLOCK, &taken, nullptr);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGCHLD, SIG_DFL);
  const base::unique_fd signals(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
  const base::scoped_watch watch(loop_, signals.get(), {[this, fd = signals.get()] {
                                   signalfd_siginfo info{};
                                   while (read(fd, &info, sizeof info) > 0) end();
                                 }});
  std::string error;
  if (!prepare(error) || !start_server(error)) return fail(error.c_str());
  loop_.run(false);
  return status_;
}

}  // namespace

exit_status run_embedded_fleet(const options& of) {
  return embedded_fleet(of).run();
}

}  // namespace zelta::fleet
