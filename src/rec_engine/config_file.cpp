// SPDX-License-Identifier: Apache-2.0
#include "rec_engine/config_file.h"

#include <cerrno>
#include <exception>
#include <optional>
#include <sstream>

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zelta::recording {
namespace {

// No file of settings is longer; a device may have no end.
constexpr size_t kMaxBytes = 16 << 20;

struct value_lookup {
  lookup_status status;
  Json::Value value;
};

// What can be had of it at once: a terminal has nothing to say and must not hang a join, and a pipe
// that somebody waits to fill is no file.
std::optional<std::string> read_without_waiting(const char* path) {
  const base::unique_fd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || S_ISFIFO(status.st_mode)) {
    return std::nullopt;
  }
  std::string text;
  char part[4096];
  for (ssize_t got = 0; text.size() < kMaxBytes; text.append(part, static_cast<size_t>(got))) {
    got = read(file.get(), part, sizeof part);
    if (got < 0 && errno == EINTR) {
      got = 0;
    } else if (got <= 0) {
      return text;
    }
  }
  return std::string();
}

// The library's older reader: its answers to what is barely JSON are those that settings files have
// been written against.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
bool parse(std::istream& text, Json::Value& root) {
  return Json::Reader().parse(text, root, false);
}
#pragma GCC diagnostic pop

value_lookup look_up(const char* path, const char* key) {
  const std::optional<std::string> text = read_without_waiting(path);
  if (!text) return {lookup_status::kCannotOpen, {}};
  std::istringstream stream(*text);
  Json::Value root;
  if (!parse(stream, root)) return {lookup_status::kCannotParse, {}};
  if (!root.isObject() || root[key].isNull()) return {lookup_status::kNoKey, {}};
  return {lookup_status::kFound, root[key]};
}

// The library throws on nesting that is too deep, and on memory that is not to be had.
value_lookup look_up_without_throwing(const char* path, const char* key) {
  try {
    return look_up(path, key);
  } catch (const std::exception&) {
    return {lookup_status::kCannotParse, {}};
  }
}

}  // namespace

text_lookup look_up_text(const char* path, const char* key) {
  const value_lookup found = look_up_without_throwing(path, key);
  const bool text = found.status == lookup_status::kFound && found.value.isString();
  return {found.status, text ? found.value.asString() : std::string()};
}

uint32_t look_up_uint(const char* path, const char* key) {
  const value_lookup found = look_up_without_throwing(path, key);
  return found.value.isUInt() ? found.value.asUInt() : 0;
}

}  // namespace zelta::recording
