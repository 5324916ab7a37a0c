// SPDX-License-Identifier: Apache-2.0
#include "printer.h"

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace zelta::record {
namespace {

// Reasons come from libraries, with line ends in them.
std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

}  // namespace

printer::printer(bool json) : json_(json), terminal_(!json && isatty(STDOUT_FILENO) == 1) {}

double printer::elapsed_s() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void printer::event(const char* name, std::initializer_list<field> fields) {
  std::string line;
  if (json_) {
    Json::Value object(Json::objectValue);
    object["event"] = name;
    object["elapsed_s"] = elapsed_s();
    for (const field& f : fields) object[f.name] = f.value;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["precision"] = 6;
    line = Json::writeString(writer, object);
  } else {
    char start[64];
    std::snprintf(start, sizeof start, "%7.2f s  %-22s", elapsed_s(), name);
    line = start;
    for (const field& f : fields)
      line += std::string("  ") + f.name + " " + one_line(f.value.asString());
  }
  const std::lock_guard<std::mutex> guard(mutex_);
  if (progress_on_line_) std::fputs("\r\033[K", stdout);
  progress_on_line_ = false;
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void printer::redraw(const std::string& line) {
  if (!terminal_) return;
  const std::lock_guard<std::mutex> guard(mutex_);
  std::printf("\r\033[K%s", line.c_str());
  std::fflush(stdout);
  progress_on_line_ = true;
}

void complain(const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "zelta-record: %s\n", one_line(text).c_str());
}

}  // namespace zelta::record
