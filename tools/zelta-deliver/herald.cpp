// SPDX-License-Identifier: Apache-2.0
#include "herald.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include <fcntl.h>
#include <json/json.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "digest.h"
#include "disk.h"

namespace zelta::deliver {
namespace {

using clock = std::chrono::steady_clock;

constexpr size_t kLongestLine = 1000;
constexpr size_t kMostAfterEnd = size_t{64} * 1024;
constexpr int kLookMs = 100;  // for the end of everything, of which no descriptor tells

// A process group of its own; killed and reaped at the latest by its destructor.
class hook_process {
 public:
  hook_process() = default;
  hook_process(const hook_process&) = delete;
  hook_process& operator=(const hook_process&) = delete;
  ~hook_process() {
    if (pid_ > 0) end();
  }

  int start(const std::vector<std::string>& command, const std::vector<std::string>& environment,
            int in, int out);
  // Kills what is left of the group, and returns the leader's status.
  int end() {
    kill(-pid_, SIGKILL);
    return reap();
  }
  int reap() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) continue;
    pid_ = 0;
    return status;
  }
  bool try_reap(int& status) {
    if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
    // Its children may live on and hold the output open.
    kill(-pid_, SIGKILL);
    pid_ = 0;
    return true;
  }

 private:
  pid_t pid_ = 0;
};

std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> made;
  for (const std::string& text : texts) made.push_back(const_cast<char*>(text.c_str()));
  made.push_back(nullptr);
  return made;
}

int hook_process::start(const std::vector<std::string>& command,
                        const std::vector<std::string>& environment, int in, int out) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&actions) != 0) return ENOMEM;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return ENOMEM;
  }
  // These fail for want of memory alone, and then the spawn fails, too, or the hook has no input.
  posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  sigset_t none;
  sigemptyset(&none);
  sigset_t ours;
  sigemptyset(&ours);
  for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) sigaddset(&ours, signal);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &ours);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<char*> arguments = pointers(command);
  std::vector<char*> variables = pointers(environment);
  const int failed = posix_spawn(&pid_, command.front().c_str(), &actions, &attributes,
                                 arguments.data(), variables.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (failed != 0) pid_ = 0;
  return failed;
}

std::vector<std::string> environment_of(const notice& of, const std::set<std::string>& secrets) {
  std::map<std::string, std::string> named;
  for (char** at = environ; *at != nullptr; ++at) {
    const std::string one = *at;
    const std::string name = one.substr(0, one.find('='));
    if (secrets.count(name) == 0) named[name] = one;
  }
  // These stand for those of the same names that we were called with.
  named["ZELTA_ID"] = "ZELTA_ID=" + of.id;
  Json::Value body;
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const bool is_object =
      reader->parse(of.body.data(), of.body.data() + of.body.size(), &body, nullptr) &&
      body.isObject();
  if (!is_object) body = Json::objectValue;
  for (const std::string& key : body.getMemberNames()) {
    std::string name = "ZELTA_" + key;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    std::string value;
    if (body[key].isArray()) {
      for (const Json::Value& one : body[key]) value += (value.empty() ? "" : " ") + one.asString();
    } else {
      value = body[key].asString();
    }
    named[name] = (name + "=").append(value);
  }
  std::vector<std::string> made;
  for (const auto& [name, one] : named) made.push_back(one);
  return made;
}

// Hands whole lines on.
class line_splitter {
 public:
  explicit line_splitter(const std::function<void(const std::string&)>& say) : say_(say) {}
  ~line_splitter() {
    if (!line_.empty()) say_(line_);
  }
  line_splitter(const line_splitter&) = delete;
  line_splitter& operator=(const line_splitter&) = delete;
  void add(const char* bytes, size_t size) {
    for (size_t at = 0; at < size; ++at) {
      if (bytes[at] == '\n' || line_.size() >= kLongestLine) {
        say_(line_);
        line_.clear();
      }
      if (bytes[at] != '\n') line_ += bytes[at];
    }
  }

 private:
  const std::function<void(const std::string&)>& say_;
  std::string line_;
};

// Reads to the end of the output, or of the limit. False then. Of what left its process group, and
// writes on when the hook has ended, only what is there by then.
bool listen(int out, hook_process& hook, int& status, clock::time_point until, const pace& limits,
            line_splitter& lines) {
  char piece[4096];
  size_t after_end = 0;
  for (bool gone = false;;) {
    pollfd one{out, POLLIN, 0};
    const int ready = poll(&one, 1, gone ? 0 : kLookMs);
    if (ready > 0) {
      const ssize_t got = read(out, piece, sizeof piece);
      if (got > 0) lines.add(piece, static_cast<size_t>(got));
      if (got == 0 && !gone) {
        // It closed its output and may work on: wait as long as it may.
        while (!hook.try_reap(status)) {
          if (clock::now() >= until || limits.stopped()) return false;
          poll(nullptr, 0, kLookMs);
        }
        return true;
      }
      if (got <= 0) return true;
      if (gone) after_end += static_cast<size_t>(got);
      if (after_end > kMostAfterEnd) return true;
    } else if (gone) {
      return true;
    }
    if (!gone) gone = hook.try_reap(status);
    if (!gone && (clock::now() >= until || limits.stopped())) return false;
  }
}

}  // namespace

outcome run_hook(const std::vector<std::string>& command, const notice& of,
                 const delivery_settings& settings, const pace& limits,
                 const std::function<void(const std::string&)>& say) {
  // A file in memory: nobody has to feed a pipe to a hook that doesn't read.
  const base::unique_fd in(memfd_create("notice", MFD_CLOEXEC));
  int ends[2] = {-1, -1};
  std::string error;
  const std::string text = of.body + "\n";
  if (!in.valid() || pipe2(ends, O_CLOEXEC) != 0) {
    return {outcome::kLater, std::string("pipe2: ") + std::strerror(errno), 0};
  }
  const base::unique_fd out(ends[0]);
  base::unique_fd theirs(ends[1]);
  if (!write_all(in.get(), text.data(), text.size(), error) || lseek(in.get(), 0, SEEK_SET) != 0) {
    return {outcome::kLater, "memfd: " + error, 0};
  }
  hook_process hook;
  const int failed =
      hook.start(command, environment_of(of, settings.secret_variables), in.get(), theirs.get());
  theirs.reset();
  if (failed != 0) {
    const bool is_ours = failed == ENOMEM || failed == EAGAIN || failed == EMFILE;
    return {is_ours ? outcome::kLater : outcome::kRefused,
            "posix_spawn " + command.front() + ": " + std::strerror(failed), 0};
  }
  int status = 0;
  line_splitter lines(say);
  if (!listen(out.get(), hook, status, clock::now() + settings.hook_limit, limits, lines)) {
    hook.end();
    if (limits.stopped()) return {outcome::kStopped, "stopped", 0};
    return {
        outcome::kRefused,
        command.front() + " took more than " + std::to_string(settings.hook_limit.count()) + " s",
        0};
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
  const std::string how = WIFEXITED(status)
                              ? "ended with " + std::to_string(WEXITSTATUS(status))
                              : "was ended by signal " + std::to_string(WTERMSIG(status));
  return {outcome::kRefused, command.front() + " " + how, 0};
}

outcome post_notice(http_client& by, const delivery_settings& settings, const notice& of) {
  http_request post;
  post.method = "POST";
  post.url = settings.webhook_url;
  post.text = of.body;
  post.stall = settings.stall;
  post.headers = {"Content-Type: application/json", "X-Zelta-Delivery: " + of.id,
                  "X-Zelta-Event: " + of.kind,
                  "X-Zelta-Signature: sha256=" + hmac_sha256(settings.webhook_secret, of.body)};
  return outcome_of(by.perform(post), "webhook");
}

}  // namespace zelta::deliver
