// SPDX-License-Identifier: Apache-2.0
// What is learnt from encoded units, against what ffmpeg says of the same streams.
#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/media/decode_times.h"
#include "core_service/media/format_caps.h"
#include "core_service/media/format_tracker.h"
#include "support/counted_new.h"
#include "support/hex.h"
#include "support/recording_test.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::media;

std::string bytes_of(const std::string& hex) {
  const byte_list bytes = from_hex(hex);
  return {bytes.begin(), bytes.end()};
}

std::string with_length(const std::string& nal) {
  const auto byte = [&](unsigned shift) { return static_cast<char>(nal.size() >> shift); };
  return std::string{byte(24), byte(16), byte(8), byte(0)} + nal;
}

// "sps pps slice" in hex, as one access unit.
std::string unit_of(const std::string& nals) {
  std::string unit;
  std::istringstream words(nals);
  for (std::string hex; words >> hex;) unit += with_length(bytes_of(hex));
  return unit;
}

format_ptr look(format_tracker& tracker, const std::string& unit, bool key) {
  return tracker.look(reinterpret_cast<const uint8_t*>(unit.data()), unit.size(), key);
}

std::string size_of(const format_ptr& format) {
  if (format == nullptr) return "unknown";
  return std::to_string(format->width) + "x" + std::to_string(format->height);
}

std::string said(const format_ptr& of) {
  if (of == nullptr) return "unknown";
  return size_of(of) + " " + std::to_string(of->aspect_across) + ":" +
         std::to_string(of->aspect_down) + " " + std::to_string(of->reordered);
}

// ---- Streams of real encoders --------------------------------------------------------------

std::vector<std::string> nals_of(const std::string& stream) {
  const std::string code("\0\0\1", 3);
  std::vector<std::string> all;
  for (size_t at = stream.find(code); at != std::string::npos;) {
    const size_t end = stream.find(code, at + 3);
    std::string nal = stream.substr(at + 3, end == std::string::npos ? end : end - at - 3);
    nal.erase(nal.find_last_not_of('\0') + 1);
    all.push_back(nal);
    at = end;
  }
  return all;
}

bool is_parameter_set(const std::string& nal, bool hevc) {
  const int type = hevc ? nal[0] >> 1 & 0x3F : nal[0] & 0x1F;
  return hevc ? type >= 32 && type <= 34 : type == 7 || type == 8;
}

// Access units of a stream in which each begins with a delimiter.
std::vector<std::string> nal_units(const std::string& stream, bool hevc, bool with_sets) {
  std::vector<std::string> units;
  for (const std::string& nal : nals_of(stream)) {
    if (hevc ? (nal[0] >> 1 & 0x3F) == 35 : (nal[0] & 0x1F) == 9) units.emplace_back();
    if (with_sets || !is_parameter_set(nal, hevc)) units.back() += with_length(nal);
  }
  return units;
}

// Frames of an IVF file.
std::vector<std::string> ivf_units(const std::string& file) {
  std::vector<std::string> units;
  for (size_t at = 32; at + 12 < file.size();) {
    size_t bytes = 0;
    for (size_t i = 4; i > 0; --i) bytes = bytes << 8 | static_cast<uint8_t>(file[at + i - 1]);
    units.push_back(file.substr(at + 12, bytes));
    at += 12 + bytes;
  }
  return units;
}

std::string box_of(const std::string& file, const std::string& name) {
  const size_t at = file.find(name);
  if (at == std::string::npos) return "";
  const auto size = static_cast<size_t>(static_cast<uint8_t>(file[at - 2]) << 8 |
                                        static_cast<uint8_t>(file[at - 1]));
  return file.substr(at + 4, size - 8);
}

// The box of MP4 with a codec's configuration.
const std::map<std::string, const char*> kBoxes = {
    {"h264", "avcC"}, {"hevc", "hvcC"}, {"av1", "av1C"}};

struct stream_row {
  std::string codec;
  const char* encoder;
  const char* filter;  // size, aspect
  const char* expected;

  bool has_nals() const { return codec == "h264" || codec == "hevc"; }
};
const stream_row kStreams[] = {
    {"h264", "libx264 -profile:v baseline", "scale=176x144,setsar=1", "176x144 1:1 0"},
    {"h264", "libx264 -profile:v main -bf 2", "scale=322x182,setsar=4/3", "322x182 4:3 2"},
    {"h264", "libx264 -profile:v high -bf 1 -flags +ildct+ilme", "scale=324x188,setsar=10/11",
     "324x188 10:11 1"},
    {"h264", "libx264 -pix_fmt yuv422p10 -bf 0", "scale=322x181,setsar=1", "322x181 1:1 0"},
    {"h264", "libx264 -pix_fmt yuv444p -bf 0", "scale=323x181,setsar=1", "323x181 1:1 0"},
    {"hevc", "libx265 -x265-params log-level=none:bframes=0", "scale=322x182,setsar=4/3",
     "322x182 4:3 0"},
    {"hevc", "libx265 -pix_fmt yuv420p10 -x265-params log-level=none:bframes=3",
     "scale=176x144,setsar=1", "176x144 1:1 2"},
    {"av1", "libaom-av1 -cpu-used 8 -usage realtime", "scale=322x182", "322x182 1:1 0"},
    {"vp8", "libvpx -cpu-used 8 -deadline realtime", "scale=322x182", "322x182 1:1 0"},
    {"vp9", "libvpx-vp9 -cpu-used 8 -deadline realtime", "scale=322x182", "322x182 1:1 0"},
};

class FormatTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

  std::string make(const stream_row& row) const {
    // NAL units are written without a container, each access unit behind a delimiter.
    std::string file = dir.path() + "a." + (row.has_nals() ? row.codec : "ivf");
    make_media(std::string("testsrc2=size=320x180:rate=25:duration=0.6 -vf ") + row.filter +
                   " -threads 1 -g 6 -c:v " + row.encoder +
                   (row.has_nals() ? " -bsf:v " + row.codec + "_metadata=aud=insert" : ""),
               file);
    return file;
  }
  std::string box_by_ffmpeg(const stream_row& row, const std::string& file) const {
    const std::string mp4 = dir.path() + "a.mp4";
    const std::string tag = row.codec == "hevc" ? " -tag:v hvc1 " : " ";
    EXPECT_EQ(output_of("ffmpeg -v fatal -y -i " + file + " -c copy" + tag + mp4), "");
    return box_of(read_file(mp4), kBoxes.at(row.codec));
  }

  const TempDir dir;
};

TEST_F(FormatTest, SaysOfRealStreamsWhatFfmpegSays) {
  for (const stream_row& row : kStreams) {
    SCOPED_TRACE(row.encoder);
    const bool hevc = row.codec == "hevc";
    const bool nal = row.has_nals();
    const std::string file = make(row);
    const std::string stream = read_file(file);
    const auto units = nal ? nal_units(stream, hevc, true) : ivf_units(stream);
    ASSERT_GT(units.size(), 10U);
    format_tracker tracker(*find_codec(row.codec));
    const format_ptr format = look(tracker, units[0], true);
    ASSERT_NE(format, nullptr);
    EXPECT_EQ(said(format), row.expected);
    const auto values = lines_of(output_of(
        "ffprobe -v error -show_entries stream=width,height,sample_aspect_ratio,has_b_frames "
        "-of default=nk=1:nw=1 " +
        file));
    ASSERT_EQ(values.size(), 4U);
    const std::string aspect = nal ? values[3] : "1:1";
    EXPECT_EQ(said(format), values[0] + "x" + values[1] + " " + aspect + " " + values[2]);
    const std::string config(format->config.begin(), format->config.end());
    EXPECT_EQ(config, kBoxes.count(row.codec) > 0 ? box_by_ffmpeg(row, file) : "");
    // Each of the key units repeats all.
    std::vector<bool> keys;
    for (const std::string& unit : units) {
      keys.push_back(!nal || is_parameter_set(unit.substr(hevc ? 11 : 10), hevc));
    }
    EXPECT_GT(std::count(keys.begin(), keys.end(), true), 1);
    const size_t warm = allocations();
    for (size_t i = 0; i < units.size(); ++i) {
      ASSERT_TRUE(look(tracker, units[i], keys[i]) == format) << i;
    }
    EXPECT_EQ(allocations(), warm);
    const format_ptr back = format_of(caps_of(*format).get());
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(*back == *format);
    EXPECT_EQ(back->reordered, format->reordered);
  }
}

TEST_F(FormatTest, KnowsFromTheDescriptionWhatTheStreamDoesNotRepeat) {
  for (const size_t index : {1U, 6U}) {
    const stream_row& row = kStreams[index];
    SCOPED_TRACE(row.encoder);
    const bool hevc = row.codec == "hevc";
    const std::string stream = read_file(make(row));
    described_format described;
    for (const std::string& nal : nals_of(stream)) {
      if (!is_parameter_set(nal, hevc)) continue;
      gchar* const text = g_base64_encode(reinterpret_cast<const guchar*>(nal.data()), nal.size());
      std::string base64 = text;
      g_free(text);
      base64.erase(base64.find_last_not_of('=') + 1);
      if (hevc || described.parameter_sets.empty()) {
        described.parameter_sets.push_back(base64);
      } else {
        described.parameter_sets[0] += "," + base64;
      }
    }
    const auto bare = nal_units(stream, hevc, false);
    format_tracker knows(*find_codec(row.codec), described);
    format_tracker knows_nothing(*find_codec(row.codec));
    format_tracker learns(*find_codec(row.codec));
    const format_ptr format = look(knows, bare[0], true);
    ASSERT_NE(format, nullptr);
    EXPECT_TRUE(*format == *look(learns, nal_units(stream, hevc, true)[0], true));
    EXPECT_EQ(look(knows_nothing, bare[0], true), nullptr);
  }
}

// ---- H.264 by hand -------------------------------------------------------------------------

// Baseline, 320x176; and 640x352 with the same id, and with the id 1.
const std::string kSmall = "67420028d9414179 ";
const std::string kLarge = "67420028d940a02d90 ";
const std::string kLarge1 = "674200285650280b64 ";
const std::string kPps = "68ce3880 ";    // 0, of SPS 0
const std::string kPps1 = "6848e388 ";   // 1, of SPS 1
const std::string kKey = "65888040 ";    // with PPS 0
const std::string kKey1 = "65884010 ";   // with PPS 1
const std::string kDelta = "61888040 ";  // with PPS 0

TEST_F(FormatTest, ChangesWithAKeyUnitOnly) {
  const struct step {
    std::string unit;
    bool key;
    const char* size;
    bool same;  // the object of the step before
  } steps[] = {
      {kDelta, false, "unknown", true},
      {kKey, true, "unknown", true},
      {kSmall + kKey, true, "unknown", true},
      {kPps + kKey, true, "320x176", false},
      {kLarge + kDelta, false, "320x176", true},
      {kDelta, false, "320x176", true},
      {kSmall + kKey, true, "320x176", true},  // changed, and changed back
      {kLarge + kDelta, false, "320x176", true},
      {kKey, true, "640x352", false},
      {kLarge + kPps + kKey, true, "640x352", true},
      // A second one beside the first is in the box too.
      {kSmall + kLarge1 + kPps1 + kKey, true, "320x176", false},
      {kKey1, true, "640x352", false},
      {kKey, true, "320x176", false},
      // Behind a loss.
      {"658800800040", true, "unknown", false},
      {kDelta, false, "unknown", true},
      {kKey, true, "320x176", false},
  };
  format_tracker tracker(*find_codec("h264"));
  format_ptr before;
  for (const step& one : steps) {
    const format_ptr now = look(tracker, unit_of(one.unit), one.key);
    const auto number = &one - steps;
    EXPECT_EQ(size_of(now), one.size) << number;
    EXPECT_EQ(now == before, one.same) << number;
    before = now;
  }
  // Without any key unit, a stream is known with its sets.
  format_tracker refreshed(*find_codec("h264"));
  EXPECT_EQ(size_of(look(refreshed, unit_of(kSmall + kPps + kDelta), false)), "320x176");
}

TEST_F(FormatTest, PutsEverySetIntoTheBox) {
  format_tracker tracker(*find_codec("h264"));
  const format_ptr format = look(tracker, unit_of(kPps1 + kLarge1 + kPps + kSmall + kKey), true);
  ASSERT_NE(format, nullptr);
  EXPECT_EQ(std::string(format->config.begin(), format->config.end()),
            bytes_of("01420028ffe2000867420028d94141790009674200285650280b64"
                     "02000468ce388000046848e388"));
}

TEST_F(FormatTest, TakesNoSequenceThatIsNone) {
  const std::pair<const char*, const char*> rows[] = {
      {"67420028d9400400e4", "16384x16 1:1 0"},
      {"67420028d9400401e4", "unknown"},                                      // 16400 across
      {"67420028d94000000301000003001e40", "unknown"},                        // 2^32 + 16 across
      {"67420028d940000003002000000300000300000300400000030064", "unknown"},  // 2^35 each way
      {"67420028d95f888840", "2x2 1:1 0"},                                    // cropped
      {"67420028d95f89d0", "unknown"},                                        // to nothing
      {"67420028d95f000003000100000300020000030002000003000340", "unknown"},  // 2^32 - 1 of them
      {"674d0028f28282f7fe0008000603c58b6580", "320x176 4:3 2"},
      // Aspect unknown; and an order of output that reordering can't be in.
      {"674d0028d941417bff000003000501e2c5b2c0", "320x176 1:1 0"},
      {"67640028ace50505e4", "320x176 1:1 0"},  // high, may reorder and doesn't say
      {"674d0028f28282f403c58b088460", "320x176 1:1 16"},
      {"67420028043650505e40", "unknown"},  // of the id 32
      {"67420028", "unknown"},
      {"67420028d9", "unknown"},
      {"67", "unknown"},
  };
  for (const auto& [sps, expected] : rows) {
    format_tracker tracker(*find_codec("h264"));
    std::string units = sps;
    units.append(" ").append(kPps).append(kKey);
    const format_ptr format = look(tracker, unit_of(units), true);
    EXPECT_EQ(said(format), expected) << sps;
  }
}

TEST_F(FormatTest, ReadsNothingPastTheUnit) {
  const std::string whole = unit_of(kSmall + kPps + kKey);
  const std::tuple<const char*, std::string, const char*> rows[] = {
      {"h264", "", "unknown"},
      {"h264", std::string(3, '\0'), "unknown"},
      {"h264", std::string(64, '\0'), "unknown"},
      {"h264", bytes_of("ffffffff67420028"), "unknown"},
      {"h264", std::string(8, '\0') + whole, "320x176"},  // empty NAL units
      {"h264", whole + bytes_of("00000100"), "320x176"},
      {"h264", whole.substr(0, whole.size() - 3), "unknown"},
      {"hevc", bytes_of("0000000142000000024201"), "unknown"},
      {"vp8", bytes_of("1000009d012a40013400"), "320x52"},
      {"vp8", bytes_of("1000009d012a407134c0"), "12608x52"},  // to be scaled
      {"vp8", bytes_of("1000009d012a400134"), "unknown"},
      {"vp8", bytes_of("1000009d012b40013400"), "unknown"},
      {"vp8", bytes_of("1000009d012a00003400"), "unknown"},
      {"vp8", bytes_of("1100009d012a40013400"), "unknown"},  // no key frame
      {"vp9", bytes_of("82498342"), "unknown"},
      {"vp9", bytes_of("88"), "unknown"},
      {"av1", bytes_of("0a"), "unknown"},
      {"av1", bytes_of("0affffffffff"), "unknown"},
      {"av1", bytes_of("0a0b00"), "unknown"},
      {"av1", bytes_of("12000800"), "unknown"},
      {"aac", "aac", "unknown"},
  };
  for (const auto& [codec, unit, size] : rows) {
    format_tracker tracker(*find_codec(codec));
    // In memory of its own size, for the address sanitizer.
    const byte_list exact(unit.begin(), unit.end());
    EXPECT_EQ(size_of(tracker.look(exact.data(), exact.size(), true)), size)
        << codec << " " << to_hex(exact.data(), exact.size());
  }
}

TEST_F(FormatTest, HasSoundsFromTheDescription) {
  // With rate and channels that are described, 0: they aren't.
  const std::tuple<const char*, int, int, const char*> rows[] = {
      {"opus", 0, 0,
       "audio/x-opus, channel-mapping-family=(int)0, rate=(int)48000, channels=(int)2"},
      {"opus", 16'000, 1,
       "audio/x-opus, channel-mapping-family=(int)0, rate=(int)48000, channels=(int)1"},
      {"pcmu", 0, 0, "audio/x-mulaw, rate=(int)8000, channels=(int)1"},
      {"pcma", 16'000, 2, "audio/x-alaw, rate=(int)16000, channels=(int)2"},
  };
  for (const auto& [codec, rate, channels, expected] : rows) {
    format_tracker tracker(*find_codec(codec), {{}, rate, channels});
    const format_ptr format = look(tracker, "", true);
    ASSERT_NE(format, nullptr);
    const caps_ptr caps = caps_of(*format);
    gchar* const text = gst_caps_to_string(caps.get());
    EXPECT_STREQ(text, expected);
    g_free(text);
    EXPECT_TRUE(*format_of(caps.get()) == *format);
  }
}

TEST_F(FormatTest, TakesFromCapsWhatFilesNeed) {
  // With the size of its configuration.
  const std::tuple<const char*, const char*, size_t> rows[] = {
      {"audio/mpeg,mpegversion=4,rate=48000,channels=2,codec_data=(buffer)1190", "0x0 1:1 0", 2},
      {"video/x-vp8,width=320,height=180,pixel-aspect-ratio=0/1", "320x180 1:1 0", 0},
      {"video/x-vp8,width=16385,height=180", "unknown", 0},
      {"video/x-vp8", "unknown", 0},
      {"video/x-h264,width=320,height=176", "unknown", 0},
      {"video/x-h264,width=320,height=176,codec_data=(buffer)01", "320x176 1:1 0", 1},
      {"video/x-h264,width=320,height=176,pixel-aspect-ratio=4/3,codec_data=(buffer)014d0028ffe1"
       "0012674d0028f28282f7fe0008000603c58b658001000468ce3880",
       "320x176 4:3 2", 33},
      {"video/x-av1,width=320,height=176,codec_data=(buffer)81000c00", "320x176 1:1 0", 0},
      {"video/x-unheard-of,width=320,height=176", "unknown", 0},
      {"video/x-vp8,width=[1,320],height=176", "unknown", 0},
  };
  for (const auto& [given, expected, config] : rows) {
    const caps_ptr caps(gst_caps_from_string(given));
    const format_ptr format = format_of(caps.get());
    EXPECT_EQ(said(format), expected) << given;
    EXPECT_EQ(format != nullptr ? format->config.size() : 0, config) << given;
  }
}

// What a decoder has to see to isn't for a file that takes packets as they come.
TEST(FormatCapsTest, OpusIsPlainWherePacketsSayItAll) {
  const std::pair<const char*, bool> rows[] = {
      {"audio/x-opus,rate=44100,channels=1", true},
      {"audio/x-opus,channels=2,channel-mapping-family=0", true},
      {"audio/x-opus,channels=2,channel-mapping-family=1", false},
      {"audio/x-opus,channels=6,channel-mapping-family=1", false},
      {"audio/x-opus", false},
      {"audio/x-opus,channels=1,streamheader=(buffer)<4f707573486561640101380180bb0000000000>",
       true},
      {"audio/x-opus,channels=1,streamheader=(buffer)<4f707573486561640101380180bb0000010000>",
       false},
      {"audio/x-opus,channels=1,streamheader=(buffer)<4f707573486561640101380180bb000000ec00>",
       false},
      {"audio/x-opus,channels=1,streamheader=(buffer)<4f7075734865616401>", true},
  };
  for (const auto& [given, plain] : rows) {
    const caps_ptr caps(gst_caps_from_string(given));
    const format_ptr format = format_of(caps.get());
    ASSERT_NE(format, nullptr) << given;
    EXPECT_EQ(format->caps == nullptr, plain) << given;
    EXPECT_EQ(format->sample_rate, 48000) << given;
  }
}

// ---- Decoding times ------------------------------------------------------------------------

TEST(DecodeTimesTest, NeverGoBackAndAreNeverLaterThanPresentation) {
  using list = std::vector<int>;
  const struct {
    int reordered;
    list presented;
    list decoded;
    list presented_then;  // where it had to move
  } rows[] = {
      {0, {100, 133, 200, 200, 233}, {100, 133, 200, 200, 233}, {}},
      // I P B B P B B
      {1, {100, 220, 140, 180, 340, 260, 300}, {66, 100, 140, 180, 220, 260, 300}, {}},
      // I P B b b P: a pyramid
      {2, {100, 260, 180, 140, 220, 420}, {33, 66, 100, 140, 180, 220}, {}},
      // It reorders without a word: bent once, right from then on.
      {0,
       {100, 220, 140, 180, 340, 260, 300, 460},
       {100, 220, 220, 220, 220, 260, 300, 340},
       {100, 220, 220, 220, 340, 260, 300, 460}},
      // A clock that fell back.
      {0,
       {100, 90, 80, 130, 140, 150, 160},
       {100, 100, 100, 100, 100, 130, 140},
       {100, 100, 100, 130, 140, 150, 160}},
      {-1, {100, 133}, {100, 133}, {}},
      {99, {1000, 1033}, {466, 500}, {}},
  };
  for (const auto& row : rows) {
    decode_times times(row.reordered);
    list decoded;
    list presented;
    for (const int ms : row.presented) {
      const auto one = times.next(std::chrono::milliseconds(ms));
      decoded.push_back(static_cast<int>(one.decode / 1ms));
      presented.push_back(static_cast<int>(one.presentation / 1ms));
    }
    EXPECT_EQ(decoded, row.decoded) << &row - rows;
    EXPECT_EQ(presented, row.presented_then.empty() ? row.presented : row.presented_then)
        << &row - rows;
  }
}

}  // namespace
}  // namespace zelta::test
