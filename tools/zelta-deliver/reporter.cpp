// SPDX-License-Identifier: Apache-2.0
#include "reporter.h"

#include <algorithm>
#include <cstdio>
#include <exception>

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

void reporter::tell(const char* event, const values& about) {
  try {
    write(line_of(event, about));
  } catch (const std::exception&) {
    // For want of memory; the state on disk is what counts.
  }
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

void reporter::write(const std::string& line) {
  const std::lock_guard lock(mutex_);
  // Whoever reads it may have gone; the state on disk is what counts.
  static_cast<void>(std::fwrite(line.data(), 1, line.size(), stdout));
  static_cast<void>(std::fflush(stdout));
}

}  // namespace zelta::deliver
