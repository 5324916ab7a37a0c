// SPDX-License-Identifier: Apache-2.0
// A series without media: what happens to it and what its plan does about it are rows of text,
//
//     <now> <what happens> > <everything that is done, in its order>
//
// with times in milliseconds. A row goes on in the next line where that has no ">".
//
//     key 20, delta 20 2       a picture of 40 ms, of format 2; "webm": a key frame for WebM
//     sound 10 2, last 2       a packet of stretch 2 waits; nothing of it comes any more
//     kept 10 30, heard 30     what the line has kept from and to, of which Opus gives the
//                              first and the last as soon as it may; where the stretch has come to
//     stop 20 300              what was before 20 is waited for, for 300 ms
//
//     open 2 mp4 va 20 aac#1   file 2 with both, from 20 on, where stretch 1 of sound begins too
//     sound 2 10, sound - 10   sound of 10 goes into file 2; is lost
#pragma once

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/files/series_plan.h"

namespace zelta::test {

class PlayedSeries : private core_service::files::series_plan::executor {
 public:
  using recording_end = core_service::files::recording_end;
  using series_plan = core_service::files::series_plan;

  explicit PlayedSeries(const series_plan::rules& rules) : plan(rules, *this) {}
  void play(const std::string& rows) {
    std::istringstream lines(rows);
    std::string row;
    for (std::string line; std::getline(lines, line);) {
      if (line.find('>') == std::string::npos) {
        row += line.substr(std::min(line.find_first_not_of(' ') - 1, line.size()));
      } else {
        play_row(std::exchange(row, line));
      }
    }
    play_row(row);
  }

  recording_end why = core_service::files::end_reason::kUserLeft;
  bool opens = true;
  bool begins_anew = false;  // where it has stopped

 private:
  using moment = series_plan::media_time;
  using ms = std::chrono::milliseconds;

  void play_row(const std::string& row) {
    const size_t middle = row.find('>');
    if (middle == std::string::npos) return;
    done.clear();
    happen(std::istringstream(row.substr(0, middle)));
    EXPECT_EQ(done, row.substr(std::min(middle + 2, row.size()))) << row;
  }
  void happen(std::istringstream row) {
    int64_t at = 0;
    std::string event;
    row >> at >> event;
    std::vector<int64_t> values{std::istream_iterator<int64_t>(row), {}};
    const int64_t first = values.empty() ? 0 : values[0];
    const int second = values.size() < 2 ? 1 : static_cast<int>(values[1]);
    now = ms(at);
    const auto video = [&](bool key, core_service::files::container in) {
      plan.on_video({ms(first), ms(first + 40), key, second, in}, now);
    };
    const auto ended = [&](bool failed) {
      plan.on_file_end(static_cast<int>(first), failed);
      plan.tell_if_stopped();
    };
    const std::map<std::string, std::function<void()>> events{
        {"start", [&] { plan.start(now); }},
        {"stop", [&] { plan.stop(why, ms(first), now, ms(second)); }},
        {"abandon", [&] { plan.abandon(); }},
        {"tick", [&] { plan.tick(now); }},
        {"expect", [&] { plan.expect(first != 0, second != 0); }},
        {"key", [&] { video(true, core_service::files::container::kMp4); }},
        {"delta", [&] { video(false, core_service::files::container::kMp4); }},
        {"webm", [&] { video(true, core_service::files::container::kWebm); }},
        {"opus", [&] { plan.expect_sound(true, ms(first)); }},
        {"samples", [&] { plan.expect_sound(false, ms(first)); }},
        {"sound",
         [&] {
           on_sound({ms(first), ms(first + 20), second});
         }},
        {"last", [&] { plan.on_sound_end(static_cast<int>(first)); }},
        {"kept", [&] { std::tie(kept, latest) = std::pair(ms(first), ms(second)); }},
        {"heard", [&] { reach(ms(first)); }},
        {"done", [&] { ended(false); }},
        {"failed", [&] { ended(true); }},
        {"state", [&] { tell_state(); }},
    };
    events.at(event)();
  }
  void tell_state() {
    note(plan.recording() ? "recording" : "not recording");
    if (plan.has_pictures()) note("pictures to" + text_of(plan.last_video_end()));
  }
  void on_sound(const series_plan::packet& one) {
    waiting.push_back(one);
    plan.on_sound(now);
  }

  static std::string text_of(moment at) { return " " + std::to_string(at / ms(1)); }
  void note(const std::string& what) { done += (done.empty() ? "" : ", ") + what; }
  void note(const char* what, int file) { note(what + std::to_string(file)); }
  void place(const series_plan::packet& one) {
    const int file = plan.place(one);
    note("sound " + (file == 0 ? "-" : std::to_string(file)) + text_of(one.time));
  }
  // The stretch has come so far, and may have met its end.
  void reach(moment until) {
    latest = position = until;
    if (position >= end) position.reset();
  }

  bool open(const series_plan::new_file& wanted) override {
    const char* const kinds[] = {" mp4 ", " m4a ", " webm "};
    const char* const ways[] = {" aac", " opus", " as is"};
    note((opens ? "open " : "no ") + std::to_string(wanted.number) +
         kinds[static_cast<int>(wanted.holds.kind)] + (wanted.holds.video ? "v" : "") +
         (wanted.holds.sound ? "a" : "") + text_of(wanted.begin));
    if (wanted.holds.sound) done += ways[static_cast<int>(wanted.way)];
    if (!wanted.begins_stretch) return opens;
    done += "#" + std::to_string(wanted.stretch);
    if (!opens) return false;
    position = wanted.begin;
    end = moment::max();
    const auto first = std::exchange(kept, std::nullopt);
    if (!first || wanted.way != series_plan::sound_way::kAsItCame) return true;
    for (const moment at : {*first, *latest - ms(20)}) on_sound({at, at + ms(20), wanted.stretch});
    return true;
  }
  void cut(int file, moment at, const recording_end& because) override {
    note("cut " + std::to_string(file) + text_of(at) + " " + core_service::files::text_of(because));
  }
  void finish(int file) override { note("finish ", file); }
  void abandon_files() override { note("abandon"); }
  void write_picture(int file) override { note("picture ", file); }
  void need_key_frame() override { note("key"); }
  void let_sound_go(moment until) override {
    while (!waiting.empty() && waiting.front().time < until) {
      const series_plan::packet next = waiting.front();
      waiting.erase(waiting.begin());
      place(next);
    }
  }
  void let_stretch_go(int stretch) override {
    for (const series_plan::packet& one : std::exchange(waiting, {})) {
      if (one.stretch <= stretch) place(one);
      if (one.stretch > stretch) waiting.push_back(one);
    }
  }
  void fill_sound(moment until) override {
    note("fill" + text_of(until));
    if (position && *position < until) reach(until);
  }
  void end_sound(moment at) override {
    note("end" + text_of(at));
    end = at;
    if (position >= end) position.reset();
  }
  void change_sound() override { note("change"); }
  void stopped() override {
    note("stopped");
    if (begins_anew) plan.start(now);
  }
  std::optional<moment> first_kept() const override { return kept; }
  std::optional<moment> last_heard() const override { return latest; }
  std::optional<moment> sound_position() const override { return position; }

  series_plan plan;
  std::string done;
  moment now{};
  std::vector<series_plan::packet> waiting;
  std::optional<moment> kept;
  std::optional<moment> latest;
  std::optional<moment> position;
  moment end = moment::max();
};

}  // namespace zelta::test
