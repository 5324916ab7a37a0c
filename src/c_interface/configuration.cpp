// SPDX-License-Identifier: Apache-2.0
#include "c_interface/configuration.h"

#include <array>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "c_interface/sized_struct.h"

namespace zelta::c_interface {

using recording::RecordingConfig;
using recording::VideoMixingLayout;

namespace {

constexpr int kDefaultIdleSec = 300;
constexpr int kDefaultCaptureSec = 5;
constexpr size_t kConfigNeeds = offsetof(zelta_config, is_video_only);
constexpr size_t kLayoutNeeds = offsetof(zelta_layout, canvas_width);
constexpr size_t kRegionNeeds = offsetof(zelta_region, alpha) + sizeof(double);

// A size that changes with a member in between, or with padding, breaks applications.
static_assert(sizeof(void*) != 8 || (sizeof(zelta_config) == 144 && sizeof(zelta_layout) == 48 &&
                                     sizeof(zelta_region) == 48 && sizeof(zelta_options) == 40));

// Numbers of the one header are passed on as those of the other: the last of each tells.
static_assert(int{ZELTA_DECODE_VIDEO_FILES_AND_JPG_FILES} ==
              int{recording::VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE});
static_assert(int{ZELTA_DECODE_AUDIO_MIXED_PCM_FRAMES} ==
              int{recording::AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE});
static_assert(int{ZELTA_MIXED_HIGH} == int{recording::MIXED_AV_CODEC_V2});
static_assert(int{ZELTA_AUDIO_PROFILE_HIGH_STEREO} ==
              int{recording::AUDIO_PROFILE_HIGH_QUALITY_STEREO});

// Of app_data: what the recorder can be sent is 16 MiB, with all that waits.
constexpr uint32_t kMostAppDataBytes = 1 << 20;

struct number {
  const char* name;
  int32_t value;
  int32_t least;
  int32_t most;
};

// The engine only reads them.
char* text(const char* given) {
  return const_cast<char*>(given);
}

// As the engine reads it.
bool is_resolution(const char* text) {
  std::array<int, 4> n{};
  // NOLINTNEXTLINE(cert-err34-c): what isn't a number is counted out
  const int read = std::sscanf(text, "%d,%d,%d,%d", &n[0], &n[1], &n[2], &n[3]);
  return read == 4 && n[0] > 0 && n[1] > 0 && n[2] > 0 && n[3] > 0;
}

// As the recorder reads it.
bool is_colour(const char* text) {
  if (std::strlen(text) != 7 || text[0] != '#') return false;
  unsigned value = 0;
  return std::from_chars(text + 1, text + 7, value, 16).ptr == text + 7;
}

outcome check_numbers(const zelta_config& c) {
  const number numbers[] = {
      {"is_audio_only", c.is_audio_only, 0, 1},
      {"is_video_only", c.is_video_only, 0, 1},
      {"is_mixing_enabled", c.is_mixing_enabled, 0, 1},
      {"mixed_video_audio", c.mixed_video_audio, 0, recording::MIXED_AV_CODEC_V2},
      {"decode_video", c.decode_video, 0, recording::VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE},
      {"decode_audio", c.decode_audio, 0, recording::AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE},
      {"low_udp_port", c.low_udp_port, 0, 65535},
      {"high_udp_port", c.high_udp_port, 0, INT_MAX},
      {"capture_interval", c.capture_interval, 0, INT_MAX},
      {"audio_indication_interval", c.audio_indication_interval, 0, INT_MAX},
      {"channel_profile", c.channel_profile, 0, recording::CHANNEL_PROFILE_LIVE_BROADCASTING},
      {"stream_type", c.stream_type, 0, recording::REMOTE_VIDEO_STREAM_LOW},
      {"trigger_mode", c.trigger_mode, 0, recording::MANUALLY_MODE},
      {"lang", c.lang, 0, recording::JAVA_LANG},
      {"audio_profile", c.audio_profile, 0, recording::AUDIO_PROFILE_HIGH_QUALITY_STEREO},
  };
  for (const number& n : numbers) {
    if (n.value < n.least || n.value > n.most) {
      return out_of_range(n.name, n.value, n.least, n.most);
    }
  }
  if (c.idle_limit_sec != 0 && c.idle_limit_sec < 3) {
    return {ZELTA_ERROR_ARGUMENT, "idle_limit_sec is " + std::to_string(c.idle_limit_sec) +
                                      ", it should be at least 3, or 0 for 300"};
  }
  if (c.reserved != 0) return out_of_range("reserved", c.reserved, 0, 0);
  // The engine has the same code for these as for a recorder that isn't there.
  if (c.is_mixing_enabled != 0 && c.is_audio_only == 0 && c.mix_resolution != nullptr &&
      !is_resolution(c.mix_resolution)) {
    return {ZELTA_ERROR_ARGUMENT, std::string("mix_resolution is \"") + c.mix_resolution +
                                      "\", it should be four numbers above 0: "
                                      "\"width,height,fps,kbps\""};
  }
  if (c.mixed_video_audio != 0 &&
      (c.is_mixing_enabled == 0 || c.is_audio_only != 0 || c.is_video_only != 0)) {
    return {ZELTA_ERROR_CONFIGURATION, "mixed_video_audio is " +
                                           std::to_string(c.mixed_video_audio) +
                                           ", it should be 0 unless sound and picture are mixed"};
  }
  return {};
}

// A share of the canvas; not a number is out of every range.
outcome check_share(const std::string& name, double value, int least, int most) {
  if (value >= least && value <= most) return {};
  return {ZELTA_ERROR_ARGUMENT, name + " is " + std::to_string(value) + ", it should be " +
                                    std::to_string(least) + " to " + std::to_string(most)};
}

outcome check_region(const std::string& name, const zelta_region& r) {
  const struct {
    const char* member;
    double value;
    int least;
    int most;
  } shares[] = {{".x", r.x, -2, 2},
                {".y", r.y, -2, 2},
                {".width", r.width, 0, 2},
                {".height", r.height, 0, 2},
                {".alpha", r.alpha, 0, 1}};
  for (const auto& share : shares) {
    outcome checked = check_share(name + share.member, share.value, share.least, share.most);
    if (checked.failed()) return checked;
  }
  if (r.render_mode == 0 || r.render_mode == 1) return {};
  return out_of_range((name + ".render_mode").c_str(), r.render_mode, 0, 1);
}

}  // namespace

outcome read_config(const zelta_config* given, RecordingConfig& config) {
  zelta_config c{};
  outcome read;
  if (given != nullptr) read = read_struct("config", given, kConfigNeeds, c);
  if (!read.failed()) read = check_numbers(c);
  if (read.failed()) return read;
  config.isAudioOnly = c.is_audio_only != 0;
  config.isVideoOnly = c.is_video_only != 0;
  config.isMixingEnabled = c.is_mixing_enabled != 0;
  config.mixedVideoAudio = static_cast<recording::MIXED_AV_CODEC_TYPE>(c.mixed_video_audio);
  config.mixResolution = text(c.mix_resolution);
  config.decryptionMode = text(c.decryption_mode);
  config.secret = text(c.secret);
  config.appliteDir = text(c.applite_dir);
  config.recordFileRootDir = text(c.record_file_root_dir);
  config.cfgFilePath = text(c.cfg_file_path);
  config.decodeVideo = static_cast<recording::VIDEO_FORMAT_TYPE>(c.decode_video);
  config.decodeAudio = static_cast<recording::AUDIO_FORMAT_TYPE>(c.decode_audio);
  config.lowUdpPort = c.low_udp_port;
  config.highUdpPort = c.high_udp_port;
  config.idleLimitSec = c.idle_limit_sec != 0 ? c.idle_limit_sec : kDefaultIdleSec;
  config.captureInterval = c.capture_interval != 0 ? c.capture_interval : kDefaultCaptureSec;
  config.audioIndicationInterval = c.audio_indication_interval;
  config.channelProfile = static_cast<recording::CHANNEL_PROFILE_TYPE>(c.channel_profile);
  config.streamType = static_cast<recording::REMOTE_VIDEO_STREAM_TYPE>(c.stream_type);
  config.triggerMode = static_cast<recording::TRIGGER_MODE_TYPE>(c.trigger_mode);
  config.lang = static_cast<recording::LANGUAGE_TYPE>(c.lang);
  config.proxyServer = text(c.proxy_server);
  config.audioProfile = static_cast<recording::AUDIO_PROFILE_TYPE>(c.audio_profile);
  config.defaultVideoBg = text(c.default_video_bg);
  config.defaultUserBg = text(c.default_user_bg);
  return {};
}

outcome read_layout(const zelta_layout* given, VideoMixingLayout& layout,
                    std::vector<VideoMixingLayout::Region>& regions) {
  zelta_layout l{};
  outcome read = read_struct("layout", given, kLayoutNeeds, l);
  if (read.failed()) return read;
  if (l.region_count > 0 && l.regions == nullptr) return is_null("layout.regions");
  if (l.app_data_bytes > 0 && l.app_data == nullptr) return is_null("layout.app_data");
  if (l.app_data_bytes > kMostAppDataBytes) {
    return out_of_range("layout.app_data_bytes", l.app_data_bytes, 0, kMostAppDataBytes);
  }
  if (l.background_color != nullptr && !is_colour(l.background_color)) {
    return {ZELTA_ERROR_ARGUMENT, std::string("layout.background_color is \"") +
                                      l.background_color + "\", it should be \"#rrggbb\""};
  }
  if (l.region_count > 0) {
    read = check_size("layout.region_size", l.region_size, kRegionNeeds);
    if (read.failed()) return read;
  }
  regions.clear();
  const auto* at = reinterpret_cast<const unsigned char*>(l.regions);
  for (uint32_t i = 0; i < l.region_count; ++i, at += l.region_size) {
    zelta_region r{};
    const std::string name = "region " + std::to_string(i);
    read = read_bytes(name.c_str(), at, l.region_size, r);
    if (!read.failed()) read = check_region(name, r);
    if (read.failed()) return read;
    VideoMixingLayout::Region& to = regions.emplace_back();
    to.uid = r.uid;
    to.x = r.x;
    to.y = r.y;
    to.width = r.width;
    to.height = r.height;
    to.alpha = r.alpha;
    to.renderMode = r.render_mode;
  }
  layout.canvasWidth = l.canvas_width;
  layout.canvasHeight = l.canvas_height;
  layout.backgroundColor = l.background_color;
  layout.regionCount = l.region_count;
  layout.regions = regions.data();
  layout.appData = static_cast<const char*>(l.app_data);
  layout.appDataLength = static_cast<int>(l.app_data_bytes);
  return {};
}

}  // namespace zelta::c_interface
