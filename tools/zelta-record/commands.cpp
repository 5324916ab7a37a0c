// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>

#include <unistd.h>

#include "layout_file.h"
#include "words.h"

namespace zelta::record {
namespace {

constexpr size_t kLongestLine = 64 << 10;
constexpr double kLongestLease = 24 * 3600;
constexpr const char* kNoPicture =
    "no picture is mixed: it takes --is-mixing-enabled, and not --is-audio-only";

// Up to the first blank, which is taken off `text` too.
std::string first_word(std::string& text) {
  const size_t start = std::min(text.find_first_not_of(" \t"), text.size());
  const size_t end = std::min(text.find_first_of(" \t", start), text.size());
  std::string word = text.substr(start, end - start);
  text.erase(0, std::min(text.find_first_not_of(" \t", end), text.size()));
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.pop_back();
  }
  return word;
}

std::string toggle_service(command_scope& scope, bool start) {
  if (!scope.manual) return "the recording is automatic: it takes --trigger-mode manual";
  const int refused = start ? scope.engine.startService() : scope.engine.stopService();
  if (refused != 0) return start ? "it is started already" : "it isn't started";
  scope.started |= start;
  return "";
}

std::string start(command_scope& scope, const std::string& /*none*/) {
  return toggle_service(scope, true);
}

std::string stop(command_scope& scope, const std::string& /*none*/) {
  return toggle_service(scope, false);
}

std::string arrange(command_scope& scope, const std::string& path) {
  if (!scope.mixes_video) return kNoPicture;
  std::string error;
  const auto file = layout_file::read(path, error);
  if (!file) return error;
  return scope.engine.setVideoMixingLayout(file->layout()) == 0 ? "" : path + " can't be used";
}

std::string set_background(command_scope& scope, const std::string& arguments) {
  if (!scope.mixes_video) return kNoPicture;
  std::string image = arguments;
  const std::string text = first_word(image);
  char* end = nullptr;
  errno = 0;
  const unsigned long uid = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || uid > UINT32_MAX) {
    return "\"" + text + "\" should be a user id, 0 to 4294967295";
  }
  if (!image.empty() && access(image.c_str(), R_OK) != 0) return image + " can't be read";
  scope.engine.setUserBackground(static_cast<uint32_t>(uid), image.c_str());
  return "";
}

std::string set_log_level(command_scope& scope, const std::string& level) {
  const auto number = number_of(kLogLevels, level);
  if (!number) return "\"" + level + "\" should be " + choices(kLogLevels);
  if (*number > scope.highest_log_level) {
    return "with a secret the log goes up to notice: a new start would be logged with it";
  }
  scope.engine.setLogLevel(static_cast<recording::zelta_log_level>(*number));
  return "";
}

std::string renew(command_scope& scope, const std::string& text) {
  if (!scope.has_lease) return "it takes --lease";
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  if (*end != '\0' || !(seconds >= 0 && seconds <= kLongestLease)) {
    return "\"" + text + "\" should be seconds, 0 to 86400";
  }
  scope.renewed_s = seconds;
  return "";
}

std::string leave(command_scope& scope, const std::string& /*none*/) {
  scope.leave = true;
  return "";
}

struct command {
  const char* name;
  const char* usage;
  bool needs_arguments;
  std::string (*run)(command_scope&, const std::string&);
};
constexpr command kCommands[] = {
    {"start", "start", false, start},
    {"stop", "stop", false, stop},
    {"layout", "layout FILE", true, arrange},
    {"background", "background UID [IMAGE]", true, set_background},
    {"log-level", "log-level LEVEL", true, set_log_level},
    {"renew", "renew SECONDS", true, renew},
    {"leave", "leave", false, leave},
};

}  // namespace

command_lines::command_lines(bool wanted)
    : open_(wanted), terminal_(wanted && isatty(STDIN_FILENO) == 1) {
  // Should the foreground change between the look at it and the read, the read fails.
  if (terminal_) std::signal(SIGTTIN, SIG_IGN);
}

int command_lines::fd() const {
  if (!open_ || (terminal_ && tcgetpgrp(STDIN_FILENO) != getpgrp())) return -1;
  return STDIN_FILENO;
}

std::vector<std::string> command_lines::take() {
  std::array<char, 4096> part{};
  const ssize_t got = read(STDIN_FILENO, part.data(), part.size());
  if (got < 0 && (errno == EINTR || errno == EAGAIN || (errno == EIO && fd() < 0))) return {};
  if (got <= 0) open_ = false;
  if (got > 0) rest_.append(part.data(), static_cast<size_t>(got));
  // A last line may lack its end; one that has none at all is no command.
  if ((got <= 0 && !rest_.empty()) || rest_.size() > kLongestLine) rest_ += '\n';
  std::vector<std::string> lines;
  for (size_t end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n')) {
    if (end > 0) lines.push_back(rest_.substr(0, end));
    rest_.erase(0, end + 1);
  }
  return lines;
}

std::string run_command(const std::string& line, command_scope& scope) {
  std::string arguments = line;
  const std::string name = first_word(arguments);
  std::string usages;
  for (const command& c : kCommands) {
    if (name != c.name) {
      usages += std::string(usages.empty() ? "" : ", ") + c.usage;
    } else if (arguments.empty() == c.needs_arguments) {
      return std::string("it should be: ") + c.usage;
    } else {
      return c.run(scope, arguments);
    }
  }
  return "\"" + name.substr(0, 40) + "\" isn't known; there are " + usages;
}

}  // namespace zelta::record
