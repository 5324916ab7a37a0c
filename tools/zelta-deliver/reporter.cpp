// SPDX-License-Identifier: Apache-2.0
#include "reporter.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>
#include <utility>

#include <json/json.h>

#include "disk.h"

namespace zelta::deliver {
namespace {

// A file's name or a server's words may have anything in them.
std::string one_line(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
  return text;
}

}  // namespace

void reporter::note(const char* event, const values& about) {
  try {
    std::string target;
    uint64_t bytes = 0;
    for (const auto& [name, value] : about) {
      if (name == std::string_view("target")) target = value;
      if (name == std::string_view("bytes")) bytes = std::strtoull(value.c_str(), nullptr, 10);
    }
    std::string line = line_of(event, about);
    const std::lock_guard lock(mutex_);
    tally& of = counts_[{event, target}];
    ++of.events;
    of.bytes += bytes;
    noted_.push_back(std::move(line));
  } catch (const std::exception&) {
    // For want of memory; the state on disk is what counts.
  }
}

std::vector<std::string> reporter::take_noted() {
  const std::lock_guard lock(mutex_);
  return std::exchange(noted_, {});
}

void reporter::tell_noted() {
  const std::lock_guard lock(writing_);
  for (const std::string& line : take_noted()) {
    // Whoever reads it may have gone; the state on disk is what counts.
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stdout));
  }
  static_cast<void>(std::fflush(stdout));
}

void reporter::tell(const char* event, const values& about) {
  note(event, about);
  tell_noted();
}

reporter::tally reporter::count(const std::string& event, const std::string& target) const {
  const std::lock_guard lock(mutex_);
  const auto found = counts_.find({event, target});
  return found != counts_.end() ? found->second : tally();
}

std::string reporter::line_of(const char* event, const values& about) const {
  std::string line;
  if (json_) {
    Json::Value made;
    made["event"] = event;
    made["utc_ms"] = Json::Int64{now_utc_ms()};
    for (const auto& [name, value] : about) made[name] = value;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    line = Json::writeString(writer, made);
  } else {
    line = event;
    for (const auto& [name, value] : about) {
      if (!value.empty()) line += std::string(", ") + name + " " + one_line(value);
    }
  }
  return line + '\n';
}

}  // namespace zelta::deliver
