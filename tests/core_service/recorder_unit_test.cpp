// SPDX-License-Identifier: Apache-2.0
// The recorder's parts that need no media: sound on its line, tiles, keys, descriptions, journal,
// command line.
#include <array>
#include <chrono>
#include <csignal>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core_service/folder/crash_note.h"
#include "core_service/folder/journal.h"
#include "core_service/load/descriptors.h"
#include "core_service/media/sound_line.h"
#include "core_service/media/timeline.h"
#include "core_service/media/volume_meter.h"
#include "core_service/mix/tiles.h"
#include "core_service/rtp/payload.h"
#include "core_service/rtp/session_description.h"
#include "core_service/rtp/settings.h"
#include "core_service/task/options.h"
#include "core_service/task/parameters.h"
#include "core_service/task/recording_plan.h"
#include "core_service/task/secrets.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service;

// ---- Sound line ----------------------------------------------------------------------------

// What reaches the end of a line: runs of equal samples, as "value*count", and the times of jumps.
class Heard : public media::sound_sink {
 public:
  void on_sound(media::media_time time, const int16_t* samples, size_t frames) override {
    if (total == 0) first = time;
    if (total > 0 && time != next) jumps.push_back(time - next);
    next = time + media::media_time(static_cast<int64_t>(frames) * 1'000'000'000 / 48'000);
    for (size_t i = 0; i < frames; ++i) {
      if (runs.empty() || runs.back().first != samples[i]) runs.emplace_back(samples[i], 0);
      ++runs.back().second;
    }
    total += frames;
  }
  void on_sound_end() override { ended = true; }
  std::string text() const {
    std::string all;
    for (const auto& [value, count] : runs) {
      all += (all.empty() ? "" : " ") + std::to_string(value) + "*" + std::to_string(count);
    }
    return all;
  }

  std::vector<std::pair<int, size_t>> runs;
  std::vector<media::media_time> jumps;
  media::media_time first{};
  media::media_time next{};
  size_t total = 0;
  bool ended = false;
};

// When, which samples, and how many.
using Push = std::tuple<media::media_time, int16_t, size_t>;

TEST(SoundLine, PutsSoundWhereItsTimeSays) {
  // What is pushed, where the line is cut, and what is heard.
  const std::tuple<const char*, std::vector<Push>, media::media_time, const char*> rows[] = {
      {"contiguous", {{100s, 1, 4800}, {100s + 100ms, 2, 4800}}, 100s + 200ms, "1*4800 2*4800"},
      {"late start", {{100s + 500ms, 1, 480}}, 100s + 510ms, "0*24000 1*480"},
      {"gap", {{100s, 1, 480}, {101s, 2, 480}}, 101s + 10ms, "1*480 0*47520 2*480"},
      {"silent end", {{100s, 1, 480}}, 100s + 1s, "1*480 0*47520"},
      {"overlap", {{100s, 1, 4800}, {100s + 50ms, 2, 4800}}, 100s + 150ms, "1*4800 2*2400"},
      {"jitter stays", {{100s, 1, 4800}, {100s + 112ms, 2, 4800}}, 100s + 200ms, "1*4800 2*4800"},
      {"before the start", {{99s, 1, 480}, {100s, 2, 480}}, 100s + 10ms, "2*480"},
      {"after the end", {{100s, 1, 9600}}, 100s + 100ms, "1*4800"},
  };
  for (const auto& [name, pushes, end, expected] : rows) {
    media::sound_line line(1, 0s, media::kFrameBlock);
    const auto heard = std::make_shared<Heard>();
    line.start(100s, heard);
    line.cut(end, nullptr);
    for (const auto& [at, value, frames] : pushes) {
      line.push(at, std::vector<int16_t>(frames, value).data(), frames);
    }
    line.fill_to(end);
    EXPECT_EQ(heard->text(), expected) << name;
    EXPECT_TRUE(heard->ended) << name;
    EXPECT_TRUE(heard->jumps.empty()) << name;
    EXPECT_EQ(heard->first, media::media_time(100s)) << name;
  }
}

TEST(SoundLine, DriftOfTheSendersClockIsTakenBack) {
  media::sound_line line(1, 0s, media::kFrameBlock);
  const auto heard = std::make_shared<Heard>();
  line.start(0s, heard);
  // 300 ppm slow: after ten minutes 180 ms are missing.
  const std::vector<int16_t> samples(960, 1);
  for (int64_t i = 0; i < 30'000; ++i) line.push(i * 20'006us, samples.data(), samples.size());
  EXPECT_NEAR(static_cast<double>(heard->total) / 48'000, 600.18, 0.021);
}

TEST(SoundLine, EveryStretchOfACutLineIsContiguous) {
  media::sound_line line(2, 0s, media::kFrameBlock);
  const auto first = std::make_shared<Heard>();
  const auto second = std::make_shared<Heard>();
  const std::vector<int16_t> samples(96'000, 7);
  line.push(10s, samples.data(), 48'000);
  EXPECT_EQ(*line.first_kept(), media::media_time(10s));
  line.start(10s, first);
  EXPECT_EQ(first->total, 48'000U) << "what was kept";
  line.cut(11s + 300ms, second);
  line.push(11s, samples.data(), 48'000);
  EXPECT_EQ(first->total, 48'000U + 14'400U);
  EXPECT_TRUE(first->ended);
  EXPECT_EQ(second->first, media::media_time(11s + 300ms));
  line.cut(9s, nullptr);
  EXPECT_TRUE(second->ended) << "a cut in the past takes effect at once";
  EXPECT_EQ(first->total + second->total, 96'000U);
  EXPECT_FALSE(line.position());
}

TEST(SoundLine, ShortGapsStayWhereSilenceIsNotWanted) {
  media::sound_line line(1, 1s, media::kFrameBlock);
  const auto heard = std::make_shared<Heard>();
  line.start(0s, heard);
  const std::vector<int16_t> samples(960, 1);
  // Half a block, which goes out before what comes behind the gap.
  line.push(0s, samples.data(), 480);
  line.push(500ms, samples.data(), 960);
  line.push(3s, samples.data(), 960);
  ASSERT_EQ(heard->jumps.size(), 1U);
  EXPECT_EQ(heard->first, media::media_time(0s));
  EXPECT_EQ(heard->jumps[0], media::media_time(490ms));
  EXPECT_EQ(heard->next, media::media_time(3s + 20ms)) << "a long one is filled";
}

TEST(VolumeMeter, GoesFromSilenceToFullScale) {
  media::volume_meter meter;
  media::volume_meter::mark one;
  media::volume_meter::mark other;
  EXPECT_EQ(meter.read(one), 0U);
  const std::vector<int16_t> square(960, 32767);
  meter.add(square.data(), square.size());
  EXPECT_EQ(meter.read(one), 255U);
  EXPECT_EQ(meter.read(one), 0U) << "only what came since";
  const std::vector<int16_t> silence(2880);
  meter.add(silence.data(), silence.size());
  EXPECT_EQ(meter.read(other), 180U) << "each reads at its own pace";
}

TEST(VolumeMeter, TakesTheSendersWordInPlaceOfSamples) {
  using media::form;
  media::volume_meter meter;
  const auto wants = [&] {
    return std::string(meter.wants(form::kCodedSound) ? "coded " : "") +
           (meter.wants(form::kSound) ? "samples" : "");
  };
  using ask = media::volume_meter::ask;
  media::volume_meter::mark since;
  EXPECT_EQ(wants(), "");
  meter.measure(ask::kWhatIsTold);
  EXPECT_EQ(wants(), "coded ") << "nothing is decoded for it";
  meter.measure(ask::kAll);
  EXPECT_EQ(wants(), "coded samples");
  media::encoded_unit unit;
  // So many dB below the loudest, and the volume: a square wave, a sine, half of it, and silence.
  const std::pair<uint8_t, unsigned> rows[] = {{0, 255}, {3, 255}, {9, 128}, {127, 0}};
  for (const auto& [level, volume] : rows) {
    unit.level = level;
    meter.on_coded_sound(unit);
    EXPECT_EQ(meter.read(since), volume) << int{level};
  }
  unit.level = 9;
  unit.duration = 20ms;
  meter.on_coded_sound(unit);
  unit.level = 127;
  unit.duration = 60ms;
  meter.on_coded_sound(unit);
  EXPECT_EQ(meter.read(since), 64U) << "silence for three quarters of the time";
  EXPECT_EQ(wants(), "coded ");
  unit.level.reset();
  meter.on_coded_sound(unit);
  EXPECT_EQ(wants(), "coded samples");
}

TEST(Consumers, TakeWhatIsNotLeftOutForThem) {
  using media::form;
  const auto meter = std::make_shared<media::volume_meter>();
  const media::consumers all({meter});
  const auto said = [](const media::consumers& of) {
    return std::string(of.takes(form::kSound) ? "takes " : "") +
           (of.wants(form::kSound) ? "wants " : "") + (of.takes(form::kStills) ? "stills" : "");
  };
  EXPECT_EQ(said(all), "takes ");
  meter->measure(media::volume_meter::ask::kAll);
  EXPECT_EQ(said(all), "takes wants ");
  const media::consumers none = all.without(form::kSound).without(form::kCodedPictures);
  EXPECT_EQ(said(none), "");
  int given = 0;
  for (const auto& of : {all, none}) of.each(form::kSound, [&](media::consumer&) { ++given; });
  EXPECT_EQ(given, 1);
}

// ---- Tiles ---------------------------------------------------------------------------------

std::string text_of(const std::vector<mix::tile>& tiles) {
  std::string all;
  for (const mix::tile& t : tiles) {
    all += std::to_string(t.uid) + ":" + std::to_string(t.x) + "," + std::to_string(t.y) + "," +
           std::to_string(t.width) + "x" + std::to_string(t.height) + (t.crop ? "c " : " ");
  }
  return all;
}

TEST(Tiles, GridIsAsSquareAsPossible) {
  EXPECT_EQ(text_of(mix::grid_tiles({}, 640, 360)), "");
  EXPECT_EQ(text_of(mix::grid_tiles({9}, 640, 360)), "9:0,0,640x360 ");
  EXPECT_EQ(text_of(mix::grid_tiles({1, 2}, 640, 360)), "1:0,0,320x360 2:320,0,320x360 ");
  EXPECT_EQ(text_of(mix::grid_tiles({1, 2, 3}, 640, 360)),
            "1:0,0,320x180 2:320,0,320x180 3:160,180,320x180 ");
}

TEST(Tiles, LayoutLeavesOutWhatCannotBeShown) {
  recording::mixing_layout layout;
  linuxsdk::VideoMixingLayout::Region region;
  region.uid = 1;
  region.y = -0.25;
  region.height = 1;
  const auto add = [&](double x, double width) {
    region.x = x;
    region.width = width;
    layout.regions.push_back(region);
  };
  for (const double width : {0.5, 0.0, -1.0, 1e300, std::nan(""), 1e-9}) add(0.5, width);
  for (const double x : {-2.001, 2.001, -std::numeric_limits<double>::infinity()}) add(x, 1);
  region.renderMode = 1;
  add(-2, 1);
  std::vector<std::string> warnings;
  EXPECT_EQ(text_of(mix::layout_tiles(layout, 640, 360, warnings)),
            "1:320,-90,320x360c 1:-1280,-90,640x360 ");
  EXPECT_EQ(warnings.size(), 8U);
}

TEST(Tiles, ColoursAreReadOrRefused) {
  EXPECT_EQ(mix::parse_colour("#1a2B3c"), 0x1a2b3cU);
  for (const char* bad : {"", "red", "1a2b3c", "#1a2b3", "#1a2b3g", "#+a2b3c", "#1a2b3c4"}) {
    EXPECT_FALSE(mix::parse_colour(bad)) << bad;
  }
}

const std::string kHead = "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nt=0 0\n";

struct description {
  explicit description(const std::string& text)
      : streams(rtp::parse_description(text, left_out, error)) {}

  std::vector<core_service::missing_medium> left_out;
  std::string error;
  std::vector<rtp::stream_description> streams;
};

TEST(SessionDescription, TellsWhatCanBeReceived) {
  // How many streams, and what is said in the error or a warning.
  const std::tuple<std::string, size_t, const char*> rows[] = {
      {kHead + "m=audio 5006 RTP/AVP 0\n", 1, ""},
      {kHead + "m=audio 5006 RTP/AVP 97\na=rtpmap:97 opus/48000/2\nm=video 5004 RTP/AVP 96\n"
               "a=rtpmap:96 VP8/90000\n",
       2, ""},
      {kHead + "m=video 0 RTP/AVP 96\na=rtpmap:96 VP8/90000\n", 0, "; : m=video 0 is turned off"},
      {kHead + "m=video 70000 RTP/AVP 96\na=rtpmap:96 VP8/90000\n", 0, ""},
      {kHead + "m=video 5004 RTP/AVP 96\na=rtpmap:96 H263/90000\n", 0,
       "; video: m=video 5004 has no codec that can be"},
      {kHead + "m=audio 5006 RTP/AVP 96\na=rtpmap:96 VP8/90000\n", 0, "no codec that can be"},
      {kHead + "m=audio 5006 TCP 0\nm=audio 5008 RTP/AVP 8\n", 1, "is no RTP"},
      {kHead + "m=video 5004 RTP/AVP 45\na=rtpmap:45 AV1/90000\n", 1, ""},
      {"nothing of the kind", 0, "no s"},
      {kHead + "a=\xff:1\nm=audio 5006 RTP/AVP 0\n", 0, "UTF-8"},
      {kHead + std::string(1, '\0') + "m=audio 5006 RTP/AVP 0\n", 0, "UTF-8"},
      {kHead + "a=" + std::string(70'000, 'x') + "\nm=audio 5006 RTP/AVP 0\n", 0, "64 KiB"},
      {"", 0, ""},
  };
  for (const auto& [text, streams, says] : rows) {
    const description got(text);
    EXPECT_EQ(got.streams.size(), streams) << text;
    EXPECT_EQ(got.error.empty(), streams > 0) << text;
    std::string said = got.error;
    for (const auto& one : got.left_out) said += "; " + one.medium + ": " + one.reason;
    EXPECT_NE(said.find(says), std::string::npos) << said;
  }
  EXPECT_EQ(rtp::answer_with_ports(
                "m=audio 9 RTP/AVP 0\nm=video 5 RTP/AVP 1\nm=video 9 RTP/AVP 2\n", {100, 102}),
            "m=audio 100 RTP/AVP 0\nm=video 5 RTP/AVP 1\nm=video 102 RTP/AVP 2\n");
}

TEST(SessionDescription, SaysWhereAndHow) {
  const auto text_of = [](const rtp::stream_description& one) {
    std::string text =
        one.address + ":" + std::to_string(one.port) + " " + std::to_string(one.rtcp_port) +
        (one.rtcp_mux ? " mux" : "") + (one.srtp ? " srtp" : "") +
        (one.level_extension != 0 ? " level " + std::to_string(one.level_extension) : "");
    for (const auto& [number, caps] : one.caps) {
      const auto payload = rtp::payload_of(caps.get());
      text += " " + std::to_string(number) + "=" + payload.kind->name + "/" +
              std::to_string(payload.clock_rate);
      for (const std::string& sets : payload.described.parameter_sets) text += "," + sets;
    }
    return text;
  };
  const std::pair<std::string, std::string> rows[] = {
      {"m=audio 5006 RTP/AVP 0 97\na=rtpmap:97 opus/48000/2\n",
       "127.0.0.1:5006 5007 0=pcmu/8000 97=opus/48000"},
      {"m=video 9 RTP/SAVPF 96\nc=IN IP4 10.0.0.1\na=rtcp-mux\na=rtpmap:96 H264/90000\n"
       "a=fmtp:96 sprop-parameter-sets=AB,CD\n",
       "10.0.0.1:0 1 mux srtp 96=h264/90000,AB,CD"},
      {"m=audio 5006 RTP/AVP 0\na=extmap:1 urn:ietf:params:rtp-hdrext:sdes:mid\na=extmap:0 x\n"
       "a=extmap:7/sendonly urn:ietf:params:rtp-hdrext:ssrc-audio-level vad=on\n",
       "127.0.0.1:5006 5007 level 7 0=pcmu/8000"},
      {"m=video 5004 RTP/AVPF 96\na=rtcp:6000\na=rtpmap:96 VP8/90000\n",
       "127.0.0.1:5004 6000 96=vp8/90000"},
      {"m=audio 5004 RTP/SAVP 8\na=rtcp:70000\n", "127.0.0.1:5004 5005 srtp 8=pcma/8000"},
  };
  for (const auto& [text, said] : rows) {
    const description got(kHead + text);
    ASSERT_EQ(got.streams.size(), 1U) << got.error;
    EXPECT_EQ(text_of(got.streams[0]), said);
  }
}

// ---- What the application says -------------------------------------------------------------

TEST(Parameters, AreTakenOrNamedInAWarning) {
  // What capture_interval becomes, -1: not set, and a warning.
  const std::tuple<const char*, int, const char*> rows[] = {
      {R"({"capture_interval": 7})", 7, ""},
      {R"({"capture_interval": 0})", -1, "parameter capture_interval should be a whole number"},
      {R"({"capture_interval": "7"})", -1, "should be a whole number from 1"},
      {R"({"volume": 3})", -1, "unknown parameter \"volume\"; there are audio_indication_interval"},
      {R"([1])", -1, "should be a JSON object"},
      {"", -1, "should be a JSON object"},
      {"{", -1, "should be a JSON object"},
  };
  for (const auto& [text, capture, told] : rows) {
    std::vector<std::string> warnings;
    const parameters got = parse_parameters(text, warnings);
    EXPECT_EQ(got.capture_interval.value_or(-1), capture) << text;
    const std::string warning = warnings.empty() ? "" : warnings[0];
    EXPECT_NE(warning.find(told), std::string::npos) << warning;
    EXPECT_EQ(warning.empty(), told[0] == '\0') << text;
  }
}

TEST(Journal, SuccessorReadsWhatItsPredecessorWrote) {
  const TempDir dir;
  std::string error;
  state_writer writer(nullptr);
  const std::string path = dir.path() + "journal.json";
  journal first(path, "1@2 0 room", writer);
  EXPECT_FALSE(first.load(error)) << "there is none yet";
  EXPECT_EQ(first.state.log_level, 0U) << "as the command line says";
  first.state.layout = {0, 1, 0xfe, 0xff};
  first.state.user_backgrounds = {{4294967295U, "/a b/\"c\".png"}};
  first.state.log_level = 6;
  first.state.log_modules = 4294967295;
  first.state.serving = true;
  first.state.left_out = {{4294967295U, crash_stage::kReceiving}};
  first.state.unexplained_crashes = 3;
  first.save();
  ASSERT_EQ(writer.flush(10s), 0);
  journal second(path, "1@2 0 room", writer);
  ASSERT_TRUE(second.load(error)) << error;
  const auto all_of = [](const journal_state& of) {
    return std::tie(of.layout, of.user_backgrounds, of.log_level, of.log_modules, of.serving,
                    of.left_out, of.unexplained_crashes);
  };
  EXPECT_TRUE(all_of(second.state) == all_of(first.state));
  second.remove();
  second.save();
  ASSERT_EQ(writer.flush(10s), 0);
  EXPECT_FALSE(second.load(error)) << "what comes after the end is for nobody";
  first.save();
  ASSERT_EQ(writer.flush(10s), 0);
  journal stranger(path, "1@2 0 hall", writer);
  EXPECT_FALSE(stranger.load(error));
  EXPECT_NE(error.find("another session, \"1@2 0 room\""), std::string::npos) << error;
  for (const char* broken :
       {"", "[]", "{\"version\":2}", "{\"version\":1,\"layout\":\"0\"}",
        "{\"version\":1,\"layout\":\"zz\"}", "{\"version\":1,\"layout\":\"1g\"}",
        "{\"version\":1,\"left_out\":{\"7\":3}}",
        "{\"version\":1,\"user_backgrounds\":{\"x\":\"y\"}}"}) {
    dir.file("journal.json", broken);
    EXPECT_FALSE(second.load(error)) << broken;
    EXPECT_NE(error.find("can't be read"), std::string::npos) << error;
  }
}

TEST(Journal, EachCrashLeavesOutMoreUntilNothingIsLeftThatCouldCrash) {
  constexpr crash_suspect kPictures{2, crash_stage::kDecoding};
  constexpr crash_suspect kParser{2, crash_stage::kReceiving};
  constexpr crash_suspect kRecent{3, crash_stage::kUnknown};
  constexpr crash_suspect kNobody{0, crash_stage::kUnknown};
  const struct {
    std::vector<crash_suspect> crashes;
    const char* left_out;  // of the users 1 to 3: u nothing, r all, d what is decoded
  } rows[] = {{{kPictures}, "udu"},        {{kPictures, kPictures}, "uru"},
              {{kParser}, "uru"},          {{kParser, kPictures}, "uru"},
              {{kRecent}, "uud"},          {{kRecent, kPictures}, "udd"},
              {{kRecent, kRecent}, "ddd"}, {{kNobody}, "uuu"},
              {{kNobody, kRecent}, "ddd"}, {{kNobody, kParser, kNobody}, "drd"}};
  for (const auto& row : rows) {
    journal_state state;
    for (const crash_suspect& crash : row.crashes) state.blame(crash);
    std::string got;
    for (const uint32_t uid : {1U, 2U, 3U}) got += "urd"[static_cast<int>(state.left_out_of(uid))];
    EXPECT_EQ(got, row.left_out) << &row - rows;
  }
}

// Each in a process of its own, which a sanitizer's handler ends with a status.
TEST(CrashNote, NamesTheThreadsUserAndTheSignalEndsTheProcess) {
  const TempDir dir;
  const std::string path = dir.path() + "note";
  for (const auto& [marked, signal, note] : {std::tuple(4294967295U, SIGSEGV, "4294967295 2\n"),
                                             {7U, SIGABRT, "7 2\n"},
                                             {0U, SIGFPE, "9 0\n"}}) {
    EXPECT_EXIT(
        {
          watch_crashes(path);
          mark_thread(9, crash_stage::kDecoding);
          marked != 0 ? mark_thread(marked, crash_stage::kDecoding) : unmark_thread();
          std::raise(signal);
        },
        [raised = signal](int status) {
          return WIFSIGNALED(status) ? WTERMSIG(status) == raised : WEXITSTATUS(status) != 0;
        },
        "");
    EXPECT_EQ(read_file(path), note);
    EXPECT_EQ(take_crash_note(path)->uid, marked != 0 ? marked : 9);
    EXPECT_FALSE(take_crash_note(path)) << "it is removed";
  }
  for (const char* broken : {"", "x 2", "-1 2", "4294967296 2", "7", "7 3", "7 -1"}) {
    EXPECT_FALSE(parse_crash_note(broken)) << broken;
  }
}

std::string text_of(const recording_plan& of) {
  const auto flag = [](bool set, char name) { return set ? name : '-'; };
  std::ostringstream text;
  text << flag(of.take_sound, 's') << flag(of.take_video, 'v') << flag(of.record_sound, 'S')
       << flag(of.record_video, 'V') << " " << static_cast<int>(of.sound_out)
       << static_cast<int>(of.video_out) << " " << flag(of.jpg_packets, 'j')
       << flag(of.jpg_files, 'J') << " mix " << flag(of.mix_sound, 'S') << flag(of.mix_video, 'V')
       << flag(of.mix_apart, 'a') << flag(of.mix_high_profile, 'h') << " " << of.mix_width << ","
       << of.mix_height << "," << of.mix_fps << "," << of.mix_kbps << " " << of.channels << "x"
       << of.sound_bits_per_second << " " << of.chunk / 1s << "s " << of.longest_gap / 1ms << "ms "
       << of.avsync_type;
  return text.str();
}

parsed_options parse(option_parser& with, const std::string& line) {
  const std::vector<std::string> words = words_of(line);
  std::vector<const char*> argv;
  for (const std::string& word : words) argv.push_back(word.c_str());
  return with.parse(static_cast<int>(argv.size()), argv.data());
}

TEST(RecorderOptions, TakeTheEnginesCommandLine) {
  option_parser parser;
  const auto parsed = parse(
      parser,
      "ZeltaCoreService --app_id a --channel_key -k --channel_id room --uid 4294967295 --mix 1 "
      "--enabledModules -1 --proxy_server '' --vocs_port -1 --recording_file_dir /x/ --read 3 "
      "--write 4 --recoveryid 2 --recoverytime 123456789012 --novelty 1");
  ASSERT_TRUE(parsed.values) << parsed.message;
  EXPECT_EQ(parsed.values->channel_key, "-k");
  EXPECT_EQ(parsed.values->uid, 4294967295U);
  EXPECT_EQ(parsed.values->enabled_modules, -1);
  EXPECT_EQ(parsed.values->recovery_id, 2);
  EXPECT_EQ(parsed.values->recovery_time, 123456789012);
  EXPECT_EQ(parsed.values->write_fd, 4);
  EXPECT_EQ(parsed.values->unknown, (std::vector<std::string>{"--novelty", "1"}));
}

TEST(RecorderOptions, LastOfTwoCommandLinesWinsAndBadValuesAreNamed) {
  option_parser parser;
  const auto twice = parse(parser, "p --channel_id a p --channel_id b --recording_file_dir x");
  EXPECT_EQ(twice.values->channel_id, "b");
  EXPECT_EQ(twice.values->recording_file_dir, "x/");
  const auto refused = parse(parser, "p --channel_id a --uid 7 --idle soon");
  EXPECT_FALSE(refused.values);
  EXPECT_NE(refused.message.find("soon"), std::string::npos);
  // Nothing of an earlier command line is left for the next.
  const auto last = parse(parser, "p --channel_id c");
  ASSERT_TRUE(last.values) << last.message;
  EXPECT_EQ(last.exit_status, 0);
  EXPECT_EQ(last.values->uid, 0U);
  EXPECT_EQ(last.values->log_level, 4);
  EXPECT_EQ(last.values->recording_file_dir, "./");
  EXPECT_EQ(last.values->read_fd, -1) << "no engine";
  EXPECT_EQ(last.values->write_fd, -1);
  EXPECT_TRUE(last.values->unknown.empty());
}

TEST(RecorderOptions, AreAllInTheHelpInTheirOrder) {
  option_parser parser;
  std::istringstream help(parse(parser, "p --help").message);
  std::string names;
  for (std::string word; help >> word;) {
    if (word.rfind("--", 0) == 0) names += word.substr(2) + " ";
  }
  EXPECT_EQ(names,
            "app_id channel_key channel_id uid audio_only video_only mix mixedVideoAudio live "
            "encrypt_mode encrypt_secret chunk_time_span idle decode_audio decode_video "
            "capture_interval audio_indication_interval syslog_fclt streamType serviceMode "
            "recording_file_dir vocs vocs_port vos vos_port mix_resolution min_port max_port "
            "triggerMode lang proxy_server audioProfile defaultVideoBg defaultUserBg logLevel "
            "enabledModules avSyncType recoveryid recoverytime read write ");
}

TEST(RecordingPlan, IsWhatTheCommandLineAsksFor) {
  const std::string plain = " mix --a- 640,360,15,500 1x48000 0s 0ms 2";
  const std::string mixed = "sv-- 00 -- mix SV";
  const std::pair<const char*, std::string> rows[] = {
      {"", "svSV 00 --" + plain},
      {"--audio_only 1 --chunk_time_span 60 --capture_interval 0",
       "s-S- 00 -- mix --a- 640,360,15,500 1x48000 60s 0ms 2"},
      {"--video_only 1 --avSyncType 1 --chunk_time_span -1",
       "-v-V 00 -- mix --a- 640,360,15,500 1x48000 0s 1000ms 1"},
      {"--decode_audio 1 --decode_video 1", "sv-- 11 --" + plain},
      {"--decode_audio 2 --decode_video 2", "sv-- 22 --" + plain},
      {"--decode_audio 3 --decode_video 3", "sv-- 30 j- mix S-a- 640,360,15,500 1x48000 0s 0ms 2"},
      {"--decode_video 4 --capture_interval 9", "svS- 00 -J" + plain},
      {"--decode_video 5", "svSV 00 -J" + plain},
      {"--mix 1", mixed + "a- 640,360,15,500 1x48000 0s 0ms 2"},
      {"--mix 1 --decode_audio 2 --mixedVideoAudio 1 --audioProfile 1",
       "sv-- 20 -- mix -V-- 640,360,15,500 1x128000 0s 0ms 2"},
      {"--mix 1 --mixedVideoAudio 2 --audioProfile 2 --mix_resolution 4096,16,60,100000",
       mixed + "-h 4096,16,60,100000 2x192000 0s 0ms 2"},
      {"--mix 1 --mix_resolution 17,4096,1,1", mixed + "a- 16,4096,1,1 1x48000 0s 0ms 2"},
  };
  option_parser parser;
  for (const auto& [given, plan] : rows) {
    const auto parsed = parse(parser, std::string("p --channel_id c ") + given);
    ASSERT_TRUE(parsed.values) << parsed.message;
    std::vector<std::string> warnings;
    EXPECT_EQ(text_of(plan_of(*parsed.values, warnings)), plan) << given;
    EXPECT_TRUE(warnings.empty()) << given;
  }
}

TEST(RecordingPlan, TakesNoNumberBeyondItsRange) {
  const std::pair<std::string, int> highest[] = {
      {"--mixedVideoAudio", 2}, {"--decode_audio", 3}, {"--decode_video", 5}, {"--streamType", 1},
      {"--serviceMode", 2},     {"--triggerMode", 1},  {"--lang", 1},         {"--audioProfile", 2},
      {"--avSyncType", 2}};
  option_parser parser;
  for (const size_t which : {0U, 1U, 2U, 3U}) {
    std::string line = "p --channel_id c --mix_resolution 1280,720,25";
    std::vector<std::string> expected;
    for (const auto& [name, most] : highest) {
      const std::string given =
          name + " " + std::to_string(std::array{-1, 0, most, most + 1}[which]);
      line += " " + given;
      if (which == 1 || which == 2) continue;
      expected.push_back(given + " should be 0 to " + std::to_string(most) + "; it is taken as 0");
    }
    expected.emplace_back(
        "--mix_resolution \"1280,720,25\" should be width,height,fps,kbps such as "
        "1280,720,25,1500; the mix is 640,360,15,500");
    std::vector<std::string> warnings;
    plan_of(*parse(parser, line).values, warnings);
    EXPECT_EQ(warnings, expected);
  }
  for (const char* const bad : {"15,16,1,1", "16,15,1,1", "4097,16,1,1", "16,4097,1,1", "16,16,0,1",
                                "16,16,61,1", "16,16,1,0", "16,16,1,100001", "16,16,1,1,"}) {
    options given;
    given.mix_resolution = bad;
    std::vector<std::string> warnings;
    EXPECT_EQ(plan_of(given, warnings).mix_width, 640);
    EXPECT_EQ(warnings.size(), 1U) << bad;
  }
}

// Of a process of its own, whose limits nobody shares.
TEST(Descriptors, AsManyAsAllowedAreTakenAndEachUserHasTheirs) {
  const pid_t child = fork();
  if (child == 0) {
    rlimit few{32, 112};
    int wrong = setrlimit(RLIMIT_NOFILE, &few);
    core_service::raise_descriptor_limit();
    wrong |= getrlimit(RLIMIT_NOFILE, &few) != 0 || few.rlim_cur != 112 ? 2 : 0;
    wrong |= core_service::shortage_beyond(2).empty() ? 0 : 4;
    wrong |= core_service::shortage_beyond(3) ==
                     "112 descriptors (ulimit -n, LimitNOFILE) are enough for 3 users"
                 ? 0
                 : 8;
    _exit(wrong);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

// Where a stream says nothing of decoding or of how long, it is as shown, and unknown.
TEST(TakeSample, PlacesTheBufferAndSaysWhetherItIsAKey) {
  gst_init(nullptr, nullptr);
  const media::element_ptr pipeline(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
  gst_element_set_base_time(pipeline.get(), 5 * GST_SECOND);
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  const media::caps_ptr caps(gst_caps_new_empty_simple("video/x-h264"));
  const auto taken = [&](const media::buffer_ptr& buffer, media::media_sample& sample) {
    const media::sample_ptr from(gst_sample_new(buffer.get(), caps.get(), &segment, nullptr));
    return media::take_sample(from.get(), pipeline.get(), sample);
  };
  // Time, decoding time and duration of the sample.
  const std::tuple<media::buffer_times, bool, media::media_time, media::media_time,
                   media::media_time>
      rows[] = {
          {{GST_SECOND, GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE}, true, 6s, 6s, 0s},
          {{GST_CLOCK_TIME_NONE, GST_SECOND, GST_MSECOND}, false, 6s, 6s, 1ms},
          {{2 * GST_SECOND, GST_SECOND, 7}, false, 7s, 6s, 7ns},
      };
  media::media_sample sample;
  for (const auto& [given, key, time, decode, duration] : rows) {
    const media::buffer_ptr buffer(gst_buffer_new());
    set_times(buffer.get(), given);
    media::set_key(buffer.get(), key);
    EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer.get(), GST_BUFFER_FLAG_DELTA_UNIT), !key);
    ASSERT_TRUE(taken(buffer, sample));
    EXPECT_EQ(std::tuple(sample.time, sample.decode_time, sample.duration, sample.key),
              std::tuple(time, decode, duration, key))
        << time.count();
  }
  EXPECT_FALSE(taken(media::buffer_ptr(gst_buffer_new()), sample)) << "it has no time";
}

TEST(Secrets, AreTheKeysOnTheCommandLine) {
  const auto names = secret_options();
  EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()),
            (std::vector<std::string>{"--channel_key", "--encrypt_secret"}));
}

TEST(Secrets, AreWipedFromTheArguments) {
  std::string texts[] = {
      "p",    "--channel_key",    "key-1",           "--channel_id", "room", "--encrypt_secret",
      "sec2", "--channel_key=k3", "--encrypt_secret"};
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  wipe_arguments(static_cast<int>(argv.size()), argv.data(), {"--channel_key", "--encrypt_secret"});
  EXPECT_STREQ(argv[2], "");
  EXPECT_STREQ(argv[4], "room");
  EXPECT_STREQ(argv[6], "");
  EXPECT_STREQ(argv[7], "--channel_key=");
  EXPECT_EQ(texts[2], std::string(5, '\0')) << "every byte of it";
}

}  // namespace
}  // namespace zelta::test
