// SPDX-License-Identifier: Apache-2.0
#include "reporter.h"

#include <cmath>
#include <cstdio>

#include <json/json.h>
#include <unistd.h>

#include "plain_text.h"

namespace zelta::lay {
namespace {

void print(const Json::Value& object) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["precision"] = 6;
  std::printf("%s\n", Json::writeString(writer, object).c_str());
  std::fflush(stdout);
}

}  // namespace

reporter::reporter(bool json) : json_(json), terminal_(!json && isatty(STDERR_FILENO) == 1) {}

void reporter::progress(const char* doing, int64_t done_us, int64_t all_us) {
  const clock::time_point now = clock::now();
  if (doing_ != doing) {
    doing_ = doing;
    start_ = now;
  }
  if (now - told_ < std::chrono::seconds(terminal_ || json_ ? 1 : 10)) return;
  told_ = now;
  const double took = std::chrono::duration<double>(now - start_).count();
  const double done = static_cast<double>(done_us) / 1e6;
  const double all = static_cast<double>(all_us) / 1e6;
  const double speed = took > 0 ? done / took : 0;
  const double left = speed > 0 ? (all - done) / speed : 0;
  if (json_) {
    Json::Value object;
    object["event"] = "progress";
    object["doing"] = doing;
    object["done_s"] = done;
    object["all_s"] = all;
    object["left_s"] = left;
    return print(object);
  }
  std::fprintf(stderr, "%s%s: %.0f of %.0f s, %.1f times real time, %.0f s left%s",
               terminal_ ? "\r\033[K" : "", doing, done, all, speed, std::ceil(left),
               terminal_ ? "" : "\n");
  on_line_ = terminal_;
}

void reporter::say(const std::string& event, const std::string& text, int status) {
  if (json_) {
    Json::Value object;
    object["event"] = event;
    object["text"] = text;
    if (event == "end") object["status"] = status;
    print(object);
    if (event != "end" || status == 0) return;
  }
  std::fprintf(stderr, "%szelta-lay: %s%s\n", on_line_ ? "\r\033[K" : "",
               event == "missing" ? "not laid: " : "", plain_text(text).c_str());
  on_line_ = false;
}

void reporter::note(const std::string& text) {
  say("note", text, 0);
}

void reporter::missing(const std::string& text) {
  say("missing", text, 0);
}

void reporter::end(int status, const std::string& text) {
  say("end", text, status);
}

}  // namespace zelta::lay
