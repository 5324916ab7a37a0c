// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <cstdint>
#include <sstream>

#include <CLI/CLI.hpp>

#include "checks.h"
#include "exit_status.h"
#include "secret_sources.h"
#include "words.h"

namespace zelta::record {
namespace {

constexpr const char* kDemoServer = "test:users=2";
constexpr const char* kDemoChannel = "demo";
constexpr double kDemoSeconds = 10;

// An option that isn't given stays a null pointer, which the engine takes as not set.
void point(char*& field, std::string& text, const CLI::Option* option) {
  field = option->count() > 0 ? text.data() : nullptr;
}

// Takes names and numbers of the table.
CLI::Validator one_of(const words& table) {
  return CLI::Validator(
      [&table](std::string& text) -> std::string {
        const auto number = number_of(table, text);
        if (!number) return text + " should be " + choices(table);
        text = std::to_string(*number);
        return "";
      },
      "");
}

CLI::Validator seconds() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        double value = 0;
        const bool right = CLI::detail::lexical_cast(text, value) && value >= 0 && value < 1e9;
        return right ? "" : text + " should be a number of seconds; 0: until told otherwise";
      },
      "");
}

std::string names_of(const words& table) {
  std::string names;
  for (const word& w : table) names += (names.empty() ? "" : "|") + std::string(w.name);
  return names;
}

// The option, its file, or the environment, in this order; an error or nothing.
std::string take_secret(const secret_source& source, const std::string& file, std::string& secret) {
  const std::string from_environment = take_secret_variable(source.environment);
  std::string error;
  if (!file.empty()) {
    const auto read = secret_of_file(file, error);
    if (!read) return std::string(source.option) + "-file " + error;
    secret = *read;
  } else if (secret.empty()) {
    secret = from_environment;
  }
  return "";
}

parse_result refused(const std::string& why) {
  return {false, "zelta-record: " + why + "\n", kUsage};
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
      "Records a channel. Ends in order on SIGINT, SIGTERM or SIGHUP, after --duration, or when "
      "the "
      "recorder leaves; a second SIGINT or SIGTERM doesn't wait for the files.\n" +
          std::string(kStatusHelp),
      "zelta-record");
  app.get_formatter()->column_width(36);
  app.add_option("channel", o.channel_id, "name of the channel");
  app.add_option("--server", o.server, "channel server: dir:PATH or test:…");
  app.set_version_flag("--version", "zelta-record " ZELTA_REVISION);
  app.add_flag("--demo", o.demo, "record 10 s of two generated users");
  app.add_flag("--json", o.json, "one JSON object a line and event");
  app.add_option("--frames", o.frames_dir, "folder in which delivered frames are saved");
  auto* const duration =
      app.add_option("--duration", o.duration_s, "seconds after the join at which to leave")
          ->check(seconds());
  app.add_flag("--commands", o.commands, "take commands from standard input, one a line");
  app.add_option("--layout", o.layout_path, "JSON file: where users stand on the mixed picture");
  app.add_option("--chunk", o.chunk_s, "seconds a file, with --channel-profile live")
      ->check(CLI::Range(10, 1 << 30));
  app.add_option("--log-level", o.log_level, "most verbose level that is logged")
      ->transform(one_of(kLogLevels))
      ->option_text(names_of(kLogLevels));
  app.add_option("--app-id", o.app_id, "application id");
  std::string key_file;
  auto* const key = app.add_option(
      "--channel-key", o.channel_key,
      "key for the channel; better from a file or from ZELTA_CHANNEL_KEY; default: the app id");
  app.add_option("--channel-key-file", key_file, "file with the key in its first line")
      ->excludes(key);
  app.add_option("--uid", o.uid, "the recorder's own user id; 0: it chooses")
      ->check(CLI::Range(int64_t{0}, int64_t{UINT32_MAX}));

  const char* const fields = "Configuration";
  const auto choice = [&app, fields](const char* name, int& to, const words& table,
                                     const char* text) {
    return app.add_option(name, to, text)
        ->transform(one_of(table))
        ->option_text(names_of(table))
        ->group(fields);
  };
  app.add_flag("--is-audio-only", c.isAudioOnly, "record audio only")->group(fields);
  app.add_flag("--is-video-only", c.isVideoOnly, "record video only")->group(fields);
  app.add_flag("--is-mixing-enabled", c.isMixingEnabled, "mix all users")->group(fields);
  auto* const mixed =
      choice("--mixed-video-audio", mixed_video_audio, kMixedVideoAudio,
             "sound and picture of the mix in files apart, or in one, with baseline or high "
             "profile; default: high");
  auto* const mix_resolution =
      app.add_option("--mix-resolution", o.mix_resolution, "width,height,fps,kbps of the mix")
          ->group(fields);
  auto* const decryption_mode =
      app.add_option("--decryption-mode", o.decryption_mode, "how the channel is encrypted")
          ->group(fields);
  std::string secret_file;
  auto* const secret =
      app.add_option("--secret", o.secret, "its secret; better from a file or from ZELTA_SECRET")
          ->group(fields);
  auto* const secret_file_option =
      app.add_option("--secret-file", secret_file, "file with the secret in its first line")
          ->excludes(secret)
          ->group(fields);
  auto* const applite_dir =
      app.add_option("--applite-dir", o.applite_dir, "folder of ZeltaCoreService")->group(fields);
  auto* const root_dir = app.add_option("--record-file-root-dir", o.record_file_root_dir,
                                        "existing folder under which to record; default: .")
                             ->group(fields);
  auto* const cfg_file =
      app.add_option("--cfg-file-path", o.cfg_file_path, "JSON file of site settings")
          ->group(fields);
  choice("--decode-video", decode_video, kDecodeVideo, "recorded, or delivered as frames");
  choice("--decode-audio", decode_audio, kDecodeAudio, "recorded, or delivered as frames");
  app.add_option("--low-udp-port", c.lowUdpPort, "lowest UDP port; 0: any")->group(fields);
  app.add_option("--high-udp-port", c.highUdpPort, "highest UDP port; 0: any")->group(fields);
  app.add_option("--idle-limit-sec", c.idleLimitSec, "leave after so many seconds without users")
      ->check(CLI::Range(3, 1 << 30))
      ->capture_default_str()
      ->group(fields);
  auto* const capture_interval =
      app.add_option("--capture-interval", c.captureInterval, "seconds between pictures")
          ->check(CLI::Range(1, 1 << 30))
          ->capture_default_str()
          ->group(fields);
  app.add_option("--audio-indication-interval", c.audioIndicationInterval,
                 "milliseconds between volume reports; 0: none")
      ->check(CLI::Range(0, 1 << 30))
      ->group(fields);
  choice("--channel-profile", channel_profile, kChannelProfiles, "a call or a broadcast");
  choice("--stream-type", stream_type, kStreamTypes, "large or small picture");
  choice("--trigger-mode", trigger_mode, kTriggerModes,
         "record from the join on, or between the commands start and stop");
  choice("--lang", lang, kLanguages, "language of the application");
  auto* const proxy =
      app.add_option("--proxy-server", o.proxy_server, "proxy server")->group(fields);
  choice("--audio-profile", audio_profile, kAudioProfiles, "of the mix's sound");
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
    return {false, text.str(), status == 0 ? 0 : kUsage};
  }
  for (const auto& fault : {take_secret(kChannelKeySource, key_file, o.channel_key),
                            take_secret(kSecretSource, secret_file, o.secret)}) {
    if (!fault.empty()) return refused(fault);
  }
  o.given_secret = secret->count() + secret_file_option->count() > 0;
  o.given_capture_interval = capture_interval->count() > 0;
  if (o.demo) {
    if (o.server.empty()) o.server = kDemoServer;
    if (o.channel_id.empty()) o.channel_id = kDemoChannel;
    if (duration->count() == 0) o.duration_s = kDemoSeconds;
  }
  if (o.channel_id.empty()) {
    return refused("name the channel, or try --demo; --help shows all options");
  }
  // What people expect of a mix is a file that they can play.
  if (mixed->count() == 0 && c.isMixingEnabled && !c.isAudioOnly && !c.isVideoOnly) {
    mixed_video_audio = recording::MIXED_AV_CODEC_V2;
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
  c.secret = o.secret.empty() || o.decryption_mode.empty() ? nullptr : o.secret.data();
  point(c.appliteDir, o.applite_dir, applite_dir);
  point(c.recordFileRootDir, o.record_file_root_dir, root_dir);
  point(c.cfgFilePath, o.cfg_file_path, cfg_file);
  point(c.proxyServer, o.proxy_server, proxy);
  point(c.defaultVideoBg, o.default_video_bg, video_bg);
  point(c.defaultUserBg, o.default_user_bg, user_bg);
  std::string found = contradiction(o);
  if (found.empty()) found = obstacle(o);
  if (!found.empty()) return refused(found);
  return {true, "", 0};
}

}  // namespace zelta::record
