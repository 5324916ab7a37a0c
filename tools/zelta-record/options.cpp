// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <cstdint>
#include <sstream>

#include <CLI/CLI.hpp>

namespace zelta::record {
namespace {

constexpr const char* kDemoServer = "test:users=2";
constexpr const char* kDemoChannel = "demo";
constexpr double kDemoSeconds = 10;

// An option that isn't given stays a null pointer, which the engine takes as not set.
void point(char*& field, std::string& text, const CLI::Option* option) {
  field = option->count() > 0 ? text.data() : nullptr;
}

}  // namespace

parse_result parse_options(int argc, const char* const* argv, options& o) {
  recording::RecordingConfig& c = o.config;
  int mixed_video_audio = c.mixedVideoAudio;
  int decode_video = c.decodeVideo;
  int decode_audio = c.decodeAudio;
  int channel_profile = c.channelProfile;
  int stream_type = c.streamType;
  int trigger_mode = c.triggerMode;
  int lang = c.lang;
  int audio_profile = c.audioProfile;

  CLI::App app(
      "Records a channel. Ends on SIGINT or SIGTERM (a second one doesn't wait for the files), "
      "after "
      "--duration, or when the recorder leaves.\n"
      "Exit status: 0 recorded, 1 the recorder reported an error, 2 bad usage, 3 refused to join, "
      "4 the recorder was lost.",
      "zelta-record");
  app.get_formatter()->column_width(36);
  app.add_option("channel", o.channel_id, "name of the channel");
  app.add_option("--server", o.server, "channel server: dir:PATH or test:…");
  app.add_flag("--demo", o.demo, "record 10 s of two generated users");
  app.add_flag("--json", o.json, "one JSON object a line and event");
  app.add_option("--frames", o.frames_dir, "folder in which delivered frames are saved");
  app.add_option("--duration", o.duration_s, "seconds after the join at which to leave")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--log-level", o.log_level, "1 fatal to 6 debug")->check(CLI::Range(1, 6));
  app.add_option("--app-id", o.app_id, "application id");
  app.add_option("--channel-key", o.channel_key, "key for the channel; default: the app id");
  app.add_option("--uid", o.uid, "the recorder's own user id; 0: it chooses")
      ->check(CLI::Range(int64_t{0}, int64_t{UINT32_MAX}));

  const char* const fields = "Configuration";
  // One of a few: the engine passes on what it is given.
  const auto choice = [&app, fields](const char* name, int& to, int last, const char* text) {
    app.add_option(name, to, text)->check(CLI::Range(0, last))->group(fields);
  };
  app.add_flag("--is-audio-only", c.isAudioOnly, "record audio only")->group(fields);
  app.add_flag("--is-video-only", c.isVideoOnly, "record video only")->group(fields);
  app.add_flag("--is-mixing-enabled", c.isMixingEnabled, "mix all users")->group(fields);
  choice("--mixed-video-audio", mixed_video_audio, 2, "0 apart, 1 and 2 in one file");
  auto* const mix_resolution =
      app.add_option("--mix-resolution", o.mix_resolution, "width,height,fps,kbps of the mix")
          ->group(fields);
  auto* const decryption_mode =
      app.add_option("--decryption-mode", o.decryption_mode, "how the channel is encrypted")
          ->group(fields);
  auto* const secret = app.add_option("--secret", o.secret, "its secret")->group(fields);
  auto* const applite_dir =
      app.add_option("--applite-dir", o.applite_dir, "folder of ZeltaCoreService")->group(fields);
  auto* const root_dir = app.add_option("--record-file-root-dir", o.record_file_root_dir,
                                        "existing folder under which to record; default: .")
                             ->group(fields);
  auto* const cfg_file =
      app.add_option("--cfg-file-path", o.cfg_file_path, "JSON file of site settings")
          ->group(fields);
  choice("--decode-video", decode_video, 5,
         "0 file, 1 H.264 frames, 2 YUV frames, 3 JPG frames, 4 JPG files, 5 JPG and file");
  choice("--decode-audio", decode_audio, 3, "0 file, 1 AAC, 2 PCM, 3 mixed PCM frames");
  app.add_option("--low-udp-port", c.lowUdpPort, "lowest UDP port; 0: any")->group(fields);
  app.add_option("--high-udp-port", c.highUdpPort, "highest UDP port; 0: any")->group(fields);
  app.add_option("--idle-limit-sec", c.idleLimitSec, "leave after so many seconds without users")
      ->capture_default_str()
      ->group(fields);
  app.add_option("--capture-interval", c.captureInterval, "seconds between pictures")
      ->capture_default_str()
      ->group(fields);
  app.add_option("--audio-indication-interval", c.audioIndicationInterval,
                 "milliseconds between volume reports; 0: none")
      ->group(fields);
  choice("--channel-profile", channel_profile, 1, "0 communication, 1 live broadcasting");
  choice("--stream-type", stream_type, 1, "0 large, 1 small picture");
  choice("--trigger-mode", trigger_mode, 1, "0 automatic, 1 manual start");
  choice("--lang", lang, 1, "0 C++, 1 Java");
  auto* const proxy =
      app.add_option("--proxy-server", o.proxy_server, "proxy server")->group(fields);
  choice("--audio-profile", audio_profile, 2, "of the mix: 0 default, 1 high, 2 stereo");
  auto* const video_bg =
      app.add_option("--default-video-bg", o.default_video_bg, "image behind the mix")
          ->group(fields);
  auto* const user_bg =
      app.add_option("--default-user-bg", o.default_user_bg, "image of a user without video")
          ->group(fields);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    std::ostringstream text;
    const int status = app.exit(e, text, text);
    return {false, text.str(), status == 0 ? 0 : 2};
  }
  if (o.demo) {
    if (o.server.empty()) o.server = kDemoServer;
    if (o.channel_id.empty()) o.channel_id = kDemoChannel;
    if (o.duration_s == 0) o.duration_s = kDemoSeconds;
  }
  if (o.channel_id.empty()) {
    return {false, "zelta-record: name the channel, or try --demo; --help shows all options\n", 2};
  }
  c.mixedVideoAudio = static_cast<recording::MIXED_AV_CODEC_TYPE>(mixed_video_audio);
  c.decodeVideo = static_cast<recording::VIDEO_FORMAT_TYPE>(decode_video);
  c.decodeAudio = static_cast<recording::AUDIO_FORMAT_TYPE>(decode_audio);
  c.channelProfile = static_cast<recording::CHANNEL_PROFILE_TYPE>(channel_profile);
  c.streamType = static_cast<recording::REMOTE_VIDEO_STREAM_TYPE>(stream_type);
  c.triggerMode = static_cast<recording::TRIGGER_MODE_TYPE>(trigger_mode);
  c.lang = static_cast<recording::LANGUAGE_TYPE>(lang);
  c.audioProfile = static_cast<recording::AUDIO_PROFILE_TYPE>(audio_profile);
  point(c.mixResolution, o.mix_resolution, mix_resolution);
  point(c.decryptionMode, o.decryption_mode, decryption_mode);
  point(c.secret, o.secret, secret);
  point(c.appliteDir, o.applite_dir, applite_dir);
  point(c.recordFileRootDir, o.record_file_root_dir, root_dir);
  point(c.cfgFilePath, o.cfg_file_path, cfg_file);
  point(c.proxyServer, o.proxy_server, proxy);
  point(c.defaultVideoBg, o.default_video_bg, video_bg);
  point(c.defaultUserBg, o.default_user_bg, user_bg);
  return {true, "", 0};
}

}  // namespace zelta::record
