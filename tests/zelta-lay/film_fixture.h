// SPDX-License-Identifier: Apache-2.0
// Small recordings, made by ffmpeg, and a look at the films of them.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "exit_status.h"
#include "lay.h"
#include "picture_track.h"
#include "session.h"
#include "sound_track.h"
#include "stream_reader.h"

namespace zelta::lay {

constexpr int64_t kZeroMs = 1764000000000;

// A file: one colour and one tone, unless filters say otherwise.
struct part {
  const char* name;
  uint32_t uid;
  double first_s;
  double last_s;
  const char* size = "320x180";
  const char* colour = "white";
  const char* video = "libx264";
  const char* picture_filter = "null";
  const char* sound_filter = "anull";
  double media_s = 0;    // 0: from first to last
  double picture_s = 0;  // 0: as the sound
  const char* mux = "-bf 0 -movflags +frag_keyframe";
  const char* entry = R"("closed":"user left","audio_codec":"opus")";  // of the manifest
};

// Every packet has a fragment of its own, with a time of as many ticks a second as sound has
// samples.
constexpr const char* kFragments =
    "-bf 0 -tune zerolatency -video_track_timescale 48000 "
    "-movflags +frag_every_frame+empty_moov+delay_moov";
constexpr double kAway = 1e9;  // seconds

class Film : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (std::filesystem::temp_directory_path() / "zelta-lay-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
    asked_.folder = folder_;
    asked_.output = path("film.mp4");
    asked_.width = 640;
    asked_.height = 360;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ + "/" + name; }

  std::string text_of(const std::string& name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void record(const std::vector<part>& parts) const {
    std::string files;
    for (const part& p : parts) {
      const double length = p.media_s > 0 ? p.media_s : p.last_s - p.first_s;
      const std::string command =
          std::string("timeout 60 ffmpeg -v error -y -f lavfi -i color=") + p.colour +
          ":s=" + p.size + ":r=25:d=" + std::to_string(p.picture_s > 0 ? p.picture_s : length) +
          " -f lavfi -i sine=440:r=48000:d=" + std::to_string(length) + ",volume=12dB -vf \"" +
          p.picture_filter + "\" -af \"" + p.sound_filter + "\" -c:v " + p.video +
          " -g 25 -c:a libopus " + p.mux + " " + path(p.name);
      ASSERT_EQ(std::system(command.c_str()), 0) << command;
      const std::string size = p.size;
      const size_t x = size.find('x');
      files += std::string(files.empty() ? "" : ",") + R"({"name":")" + p.name + R"(","uid":)" +
               std::to_string(p.uid) + R"(,"kind":"audio_video",)" + p.entry +
               R"(,"video_codec":")" + (std::string(p.video) == "libx264" ? "h264" : "vp9") +
               R"(","width":)" + size.substr(0, x) + R"(,"height":)" + size.substr(x + 1) +
               R"(,"first_utc_ms":)" + std::to_string(kZeroMs + std::lround(p.first_s * 1000)) +
               R"(,"last_utc_ms":)" + std::to_string(kZeroMs + std::lround(p.last_s * 1000)) + "}";
    }
    std::ofstream(path("recording.json"))
        << R"({"version":1,"channel_id":"c","files":[)" << files << "]}";
  }

  // Moves the fragments of a track (1: pictures, 2: sound) that begin from `from_s` on and before
  // `to_s`; kAway takes them out. Of files that kFragments made.
  void move_fragments(const char* name, uint32_t track, double from_s, double to_s,
                      double by_s) const {
    std::string bytes = text_of(name);
    const auto number = [&bytes](size_t at, size_t size) {
      uint64_t made = 0;
      for (size_t i = 0; i < size; ++i) made = made << 8U | static_cast<uint8_t>(bytes[at + i]);
      return made;
    };
    int moved = 0;
    for (size_t at = bytes.find("tfdt"); at != std::string::npos; at = bytes.find("tfdt", at + 1)) {
      const double time_s = static_cast<double>(number(at + 8, 8)) / kSampleRate;
      if (number(bytes.rfind("tfhd", at) + 8, 4) != track || time_s < from_s || time_s >= to_s) {
        continue;
      }
      ++moved;
      if (by_s == kAway) {
        bytes.replace(bytes.rfind("moof", at), 4, "free");
        continue;
      }
      auto time = static_cast<uint64_t>(std::llround((time_s + by_s) * kSampleRate));
      for (size_t i = 16; i > 8; --i, time >>= 8U) {
        bytes[at + i - 1] = static_cast<char>(time & 0xffU);
      }
    }
    EXPECT_GT(moved, 0) << name;
    std::ofstream(path(name), std::ios::binary) << bytes;
  }

  double length_s() const {
    return static_cast<double>(measure_media(asked_.output, kLongestUs).end_us) / 1e6;
  }

  // The film as a recording of one user.
  session film() const {
    session made;
    user u;
    stretch s;
    s.path = asked_.output;
    s.end_us = measure_media(asked_.output, kLongestUs).end_us;
    s.video_codec = "h264";
    s.audio_codec = "aac";
    u.stretches.push_back(s);
    made.users.push_back(u);
    made.length_us = s.end_us;
    return made;
  }

  // How bright the film is at places of a picture, 0 to 255.
  std::vector<int> brightness(double at_s, const std::vector<std::array<int, 2>>& places) const {
    const session s = film();
    problems found;
    std::vector<int> made;
    {
      picture_track track(s.users[0], kSecond / 50, found);
      const AVFrame* const picture = track.at(std::llround(at_s * kSecond));
      for (const auto& p : places) {
        made.push_back(picture == nullptr ? -1 : *pixel(*picture, 0, p[0], p[1]));
      }
    }
    EXPECT_TRUE(found.lines().empty()) << found.lines().front();
    return made;
  }
  bool is_white(double at_s, int x = 160, int y = 90) const {
    return brightness(at_s, {{x, y}})[0] > 200;
  }

  // Root of the mean square of a tenth of a second, 1 is full scale.
  double loudness(double at_s) const {
    const session s = film();
    problems found;
    sound_track track(s.users[0], found);
    std::vector<float> samples(9600);
    track.add(std::llround(at_s * kSampleRate), 4800, samples.data());
    double sum = 0;
    for (const float v : samples) sum += static_cast<double>(v) * v;
    return std::sqrt(sum / static_cast<double>(samples.size()));
  }

  std::string tag_of_pictures() const {
    std::string error;
    const auto reader = stream_reader::open(asked_.output, AVMEDIA_TYPE_VIDEO, error);
    if (reader == nullptr) return error;
    const uint32_t tag = reader->parameters().codec_tag;
    return {static_cast<char>(tag), static_cast<char>(tag >> 8), static_cast<char>(tag >> 16),
            static_cast<char>(tag >> 24)};
  }

  std::string folder_;
  options asked_;
};

}  // namespace zelta::lay
