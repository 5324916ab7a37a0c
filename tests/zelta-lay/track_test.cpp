// SPDX-License-Identifier: Apache-2.0
// One user's files as one, copied where that can be.
#include <algorithm>

#include "film_fixture.h"

namespace zelta::lay {
namespace {

class Track : public Film {
 protected:
  void SetUp() override {
    Film::SetUp();
    asked_.track = 1;
  }

  // When it first gets white, and loud, after a moment; seconds of the file.
  double white_from(double after_s) const {
    return first(AVMEDIA_TYPE_VIDEO, after_s,
                 [](const AVFrame& frame, int) { return *pixel(frame, 0, 160, 90) > 200; });
  }
  double loud_from(double after_s) const {
    return first(AVMEDIA_TYPE_AUDIO, after_s, [](const AVFrame& frame, int i) {
      return std::fabs(reinterpret_cast<const float*>(frame.data[0])[i]) > 0.1F;
    });
  }

  // When pictures are shown, in the order of decoding.
  std::vector<double> packet_times() const {
    std::string error;
    const auto reader = stream_reader::open(asked_.output, AVMEDIA_TYPE_VIDEO, error);
    const av_ptr<AVPacket> packet = make_packet();
    std::vector<double> made;
    while (reader != nullptr && reader->next_packet(*packet)) {
      made.push_back(static_cast<double>(packet->pts) * av_q2d(reader->time_base()));
      last_duration_ = static_cast<double>(packet->duration) * av_q2d(reader->time_base());
    }
    return made;
  }
  mutable double last_duration_ = 0;

 private:
  template <class Is>
  double first(AVMediaType medium, double after_s, Is is) const {
    std::string error;
    const auto reader = stream_reader::open(asked_.output, medium, error);
    if (reader == nullptr) return -1;
    const av_ptr<AVFrame> frame = make_frame();
    while (reader->next_frame(*frame)) {
      const int count = std::max(frame->nb_samples, 1);
      for (int i = 0; i < count; ++i) {
        const double at = static_cast<double>(frame->pts) / 1e6 + i / double{kSampleRate};
        if (at >= after_s && is(*frame, i)) return at;
      }
    }
    return -1;
  }
};

TEST_F(Track, IsCopiedWithBlackAndSilenceBetween) {
  record({{"1.mp4", 1, 0, 2}, {"1b.mp4", 1, 4, 6}, {"2.mp4", 2, 0, 9}});
  for (const char* const name : {"film.mp4", "film.mov", "film.mkv"}) {
    asked_.output = path(name);
    ASSERT_EQ(lay(asked_), kLaid) << name;
    EXPECT_NEAR(length_s(), 6, 0.1) << name;
    for (const double at_s : {1.0, 3.0, 5.0}) {
      const bool there = at_s != 3.0;
      EXPECT_EQ(is_white(at_s), there) << name << " " << at_s;
      EXPECT_EQ(loudness(at_s) > 0.1, there) << name << " " << at_s;
    }
    if (std::string(name) == "film.mp4") {
      EXPECT_EQ(tag_of_pictures(), "avc3") << "copied";
    }
  }
}

// A mark a second after each file's beginning, of which the second is no whole packet behind.
TEST_F(Track, IsCopiedToItsTime) {
  part first = {"1.mp4", 1, 0, 2};
  first.colour = "black";
  first.picture_filter = "drawbox=enable='gte(t,0.999)':color=white:t=fill";
  first.sound_filter = "asetnsamples=480,volume=0:enable='lt(t,0.9999)'";
  part second = first;
  second.name = "1b.mp4";
  second.first_s = 3.013;
  second.last_s = 5.013;
  record({first, second});
  for (const char* const name : {"film.mp4", "film.mkv"}) {
    asked_.output = path(name);
    ASSERT_EQ(lay(asked_), kLaid);
    for (const double mark : {1.0, 4.013}) {
      EXPECT_NEAR(white_from(mark - 0.5), mark, 0.01) << name;
      EXPECT_NEAR(loud_from(mark - 0.5), mark, 0.01) << name;
    }
  }
}

// Fragments of pictures that are shown in another order than decoded stand as late as their delay,
// and so does their sound.
TEST_F(Track, IsntLateByWhatADeadRecorderCouldntTell) {
  part p = {"1.mp4", 1, 0, 1};
  p.media_s = 3;
  p.colour = "black";
  p.picture_filter = "drawbox=enable='gte(t,0.999)':color=white:t=fill";
  p.sound_filter = "asetnsamples=480,volume=0:enable='lt(t,0.9999)'";
  p.mux = "-bf 2 -movflags +frag_keyframe+empty_moov -use_editlist 0 -avoid_negative_ts 1";
  p.entry = R"("closed":"recorder died","audio_codec":"opus")";
  record({p});
  std::string bytes = text_of("1.mp4");
  constexpr uint64_t kDelay = kSampleRate * 80 / 1000;
  bool is_sound = false;
  for (size_t at = bytes.find("tfdt"); at != std::string::npos; at = bytes.find("tfdt", at + 1)) {
    uint64_t time = 0;
    for (size_t i = 8; i < 16; ++i) time = time << 8U | static_cast<uint8_t>(bytes[at + i]);
    if (is_sound) time += kDelay;
    is_sound = !is_sound;
    for (size_t i = 15; i >= 8; --i, time >>= 8U) bytes[at + i] = static_cast<char>(time & 0xffU);
  }
  std::ofstream(path("1.mp4"), std::ios::binary) << bytes;
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_NEAR(white_from(0.5), 1, 0.01);
  EXPECT_NEAR(loud_from(0.5), 1, 0.01);
}

TEST_F(Track, ShowsItsLastPictureWhileSoundGoesOn) {
  part p = {"1.mp4", 1, 0, 3};
  p.picture_s = 1;
  record({p, {"1b.mp4", 1, 3, 4}});
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_EQ(tag_of_pictures(), "avc3") << "copied";
  for (const double at_s : {0.5, 1.7, 2.9, 3.5}) EXPECT_TRUE(is_white(at_s)) << at_s;
}

TEST_F(Track, EndsAFileWhereTheNextBegins) {
  part first = {"1.mp4", 1, 0, 2};
  first.media_s = 2.9;
  part second = {"1b.mp4", 1, 2, 4};
  second.colour = "black";
  second.sound_filter = "volume=0";
  record({first, second});
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_NEAR(length_s(), 4, 0.1);
  EXPECT_TRUE(is_white(1.9));
  EXPECT_GT(loudness(1.8), 0.3);
  const std::vector<double> times = packet_times();
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end())) << "no picture comes twice";
  EXPECT_NEAR(last_duration_, 0.04, 0.01) << "the last one is seen as well";
  for (const double at_s : {2.1, 2.5, 3.5}) {
    EXPECT_FALSE(is_white(at_s)) << at_s;
    EXPECT_LT(loudness(at_s), 0.01) << at_s;
  }
}

TEST_F(Track, IsEncodedWhenItChangesItsSize) {
  record({{"1.mp4", 1, 0, 1}, {"1b.mp4", 1, 1, 2, "160x90"}});
  ASSERT_EQ(lay(asked_), kLaid);
  EXPECT_EQ(tag_of_pictures(), "avc1");
  EXPECT_TRUE(is_white(1.5, 310, 170)) << "the small picture fills the large one";
}

TEST_F(Track, IsSoundOfOneKindOrEncoded) {
  part stereo = {"1b.mp4", 1, 1, 2};
  stereo.sound_filter = "pan=stereo|c0=c0|c1=c0";
  for (const bool mixed : {false, true}) {
    record({{"1.mp4", 1, 0, 1}, mixed ? stereo : part{"1b.mp4", 1, 1, 2}});
    asked_.force = true;
    ASSERT_EQ(lay(asked_), kLaid);
    std::string error;
    const auto sound = stream_reader::open(asked_.output, AVMEDIA_TYPE_AUDIO, error);
    ASSERT_NE(sound, nullptr) << error;
    EXPECT_EQ(sound->parameters().codec_id, mixed ? AV_CODEC_ID_AAC : AV_CODEC_ID_OPUS);
  }
}

// 440 Hz of half full scale never step further than 0.03 from one sample to the next.
constexpr float kClick = 0.06F;

TEST_F(Track, HasNoClickWhereSoundEndsOrBegins) {
  constexpr double kNever = 99;
  // What is cut goes on in its file.
  const struct {
    const char* what;
    double last_s, media_s;
    double second_s;          // when a second file begins; kNever: there is none
    double from_s, to_s, by;  // sound of the first file that is moved
    double kept;              // of the first file's bytes
  } rows[] = {{"begins and ends in the midst of a wave", 2, 2, kNever, 0, 0.21, kAway, 1},
              {"is cut by the next file, which waits", 1.003, 1.2, 1.3, 0, 0, 0, 1},
              {"is cut by the next file", 1.003, 1.2, 1.003, 0, 0, 0, 1},
              {"ends long before the next file", 1, 2, 3.5, 0, 0, 0, 0.3},
              {"is muted for a moment", 2.1, 2, kNever, 0.99, kNever, 0.1, 1},
              {"is muted for less than a second", 2.7, 2, kNever, 0.99, kNever, 0.7, 1},
              {"is muted for long", 3.7, 2, kNever, 0.99, kNever, 1.703, 1}};
  for (const auto& row : rows) {
    part first = {"1.mp4", 1, 0.503, 0.503 + row.last_s};
    first.media_s = row.media_s;
    first.mux = kFragments;
    std::vector<part> parts = {{"2.mp4", 2, 0, 1}, first};
    if (row.second_s < kNever) {
      parts.push_back({"1b.mp4", 1, 0.503 + row.second_s, 1.403 + row.second_s});
    }
    record(parts);
    if (row.by > 0) move_fragments("1.mp4", 2, row.from_s, row.to_s, row.by);
    const auto bytes = static_cast<double>(std::filesystem::file_size(path("1.mp4")));
    std::filesystem::resize_file(path("1.mp4"), static_cast<uintmax_t>(bytes * row.kept));
    problems found;
    std::string error;
    const auto s = read_session(folder_, "", found, error);
    ASSERT_TRUE(s) << error;
    sound_track track(*s->find(1), found);
    // By pieces, as films are made: what happens may lie on both sides of an edge.
    constexpr int kPiece = 4800;
    std::vector<float> samples(size_t{2} * 50 * kPiece);
    for (int i = 0; i < 50; ++i) {
      track.add(int64_t{i} * kPiece, kPiece,
                samples.data() + size_t{2} * kPiece * static_cast<size_t>(i));
    }
    float most = 0;
    size_t most_at = 0;
    for (size_t i = 2; i < samples.size(); ++i) {
      const float stepped = std::fabs(samples[i] - samples[i - 2]);
      if (stepped > most) most_at = i / 2;
      most = std::max(most, stepped);
    }
    EXPECT_LT(most, kClick) << row.what << ", at sample " << most_at;
    EXPECT_GT(most, 0.02F) << row.what << ": there is sound";
  }
}

TEST_F(Track, HasNoClickWhereAFilmIsCutOut) {
  record({{"1.mp4", 1, 0, 3}});
  asked_.track.reset();
  asked_.from = "0.5006";
  asked_.to = "1.5018";
  ASSERT_EQ(lay(asked_), kLaid);
  std::string error;
  const auto reader = stream_reader::open(asked_.output, AVMEDIA_TYPE_AUDIO, error);
  ASSERT_NE(reader, nullptr) << error;
  const av_ptr<AVFrame> frame = make_frame();
  float last = 0;
  float most = 0;
  while (reader->next_frame(*frame)) {
    for (int i = 0; i < frame->nb_samples; ++i) {
      const float v = reinterpret_cast<const float*>(frame->data[0])[i];
      most = std::max(most, std::fabs(v - last));
      last = v;
    }
  }
  EXPECT_LT(std::max(most, std::fabs(last)), kClick);
  EXPECT_GT(most, 0.02F) << "there is sound";
}

}  // namespace
}  // namespace zelta::lay
