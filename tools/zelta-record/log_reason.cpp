// SPDX-License-Identifier: Apache-2.0
#include "log_reason.h"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>

namespace zelta::record {
namespace {

constexpr std::streamoff kLongest = 1 << 20;
// Whatever follows a failed join is its consequence.
constexpr const char* kJoin = "can't join: ";

// As a line of the log begins, so that texts compare as times do.
std::string log_time(int64_t utc_ms) {
  const auto seconds = static_cast<std::time_t>(utc_ms / 1000);
  std::tm calendar{};
  gmtime_r(&seconds, &calendar);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &calendar);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(utc_ms % 1000));
  return text;
}

// "(pid) path:line: message" of the engine; other modules have the message alone.
std::string without_place(const std::string& text) {
  if (text.rfind('(', 0) != 0) return text;
  const size_t line = text.find(':');
  const size_t end = line == std::string::npos ? line : text.find(": ", line);
  return end == std::string::npos ? text : text.substr(end + 2);
}

}  // namespace

std::vector<std::string> logged_errors(const std::string& folder, int64_t since_utc_ms) {
  std::ifstream log(folder + "recording_engine.log", std::ios::ate);
  if (!log) return {};
  const std::streamoff size = log.tellg();
  log.seekg(size > kLongest ? size - kLongest : 0);
  const std::string since = log_time(since_utc_ms);
  std::vector<std::string> messages;
  for (std::string line; std::getline(log, line);) {
    std::istringstream parts(line);
    std::string time;
    std::string level;
    std::string module;
    std::string message;
    parts >> time >> level >> module;
    if ((level != "error" && level != "fatal") || time < since) continue;
    std::getline(parts >> std::ws, message);
    message = without_place(message);
    if (!message.empty()) messages.push_back(std::move(message));
  }
  return messages;
}

std::string logged_reason(const std::string& folder, int64_t since_utc_ms) {
  const std::vector<std::string> messages = logged_errors(folder, since_utc_ms);
  for (const std::string& message : messages) {
    if (message.rfind(kJoin, 0) == 0) return message;
  }
  return messages.empty() ? "" : messages.back();
}

}  // namespace zelta::record
