// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <cstdint>

#include <CLI/CLI.hpp>

#include "checks.h"
#include "exit_status.h"
#include "secret_sources.h"
#include "words.h"
#include "zelta_revision.h"

namespace zelta::record {
namespace {

constexpr const char* kDemoServer = "test:users=2";
constexpr const char* kDemoChannel = "demo";
constexpr double kDemoSeconds = 10;

constexpr const char* kFields = "Configuration";

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

struct secret_files {
  std::string channel_key;
  std::string secret;
};

template <class Enum>
void choice(CLI::App& app, const char* name, Enum& to, const words& table, const char* help) {
  app.add_option(name, to, help)
      ->transform(one_of(table))
      ->option_text(names_of(table))
      ->group(kFields);
}

// One that isn't given stays a null pointer, which the engine takes as not set.
void text(CLI::App& app, const char* name, char*& field, std::string& to, const char* help) {
  app.add_option_function<std::string>(
         name,
         [&field, &to](const std::string& given) {
           to = given;
           field = to.data();
         },
         help)
      ->group(kFields);
}

void add_secret(CLI::App& app, const secret_source& source, std::string& to, std::string& file,
                const char* help) {
  auto* const plain = app.add_option(source.option, to, help);
  app.add_option(std::string(source.option) + "-file", file, "file with it in the first line")
      ->excludes(plain);
}

void add_tool_options(CLI::App& app, options& o, secret_files& files) {
  app.add_option("channel", o.channel_id, "name of the channel");
  app.add_option("--server", o.server,
                 "channel server: whip:ADDRESS:PORT, janus:URL, dir:PATH or test:…");
  app.set_version_flag("--version", "zelta-record " ZELTA_REVISION);
  app.add_flag("--demo", o.demo, "record 10 s of two generated users");
  app.add_flag("--json", o.json, "one JSON object a line and event");
  app.add_option("--frames", o.frames_dir, "folder in which delivered frames are saved");
  app.add_option("--duration", o.duration_s, "seconds after the join at which to leave")
      ->check(seconds());
  app.add_flag("--commands", o.commands, "take commands from standard input, one a line");
  app.add_option("--lease", o.lease_s,
                 "seconds after which it leaves, unless the command renew gives it more")
      ->check(seconds());
  app.add_option("--layout", o.layout_path, "JSON file: where users stand on the mixed picture");
  app.add_option("--settings", o.settings_path,
                 "JSON file: what holds for each recording of this machine; default: the one that "
                 "ZELTA_RECORDER_SETTINGS names");
  app.add_option("--metrics", o.metrics_address,
                 "ADDRESS:PORT at which numbers are served to Prometheus; a port alone: 127.0.0.1");
  app.add_option("--chunk", o.chunk_s, "seconds a file, with --channel-profile live")
      ->check(CLI::Range(10, 1 << 30));
  app.add_option("--log-level", o.log_level, "most verbose level that is logged")
      ->transform(one_of(kLogLevels))
      ->option_text(names_of(kLogLevels));
  app.add_option("--app-id", o.app_id, "application id");
  add_secret(app, kChannelKeySource, o.channel_key, files.channel_key,
             "key for the channel; better from a file or from ZELTA_CHANNEL_KEY; default: the app "
             "id");
  add_secret(app, kSecretSource, o.secret, files.secret,
             "the channel's encryption secret; better from a file or from ZELTA_SECRET");
  app.add_option("--uid", o.uid, "the recorder's own user id; 0: it chooses")
      ->check(CLI::Range(int64_t{0}, int64_t{UINT32_MAX}));
}

void add_media_fields(CLI::App& app, options& o) {
  recording::RecordingConfig& c = o.config;
  app.add_flag("--is-audio-only", c.isAudioOnly, "record audio only")->group(kFields);
  app.add_flag("--is-video-only", c.isVideoOnly, "record video only")->group(kFields);
  app.add_flag("--is-mixing-enabled", c.isMixingEnabled, "mix all users")->group(kFields);
  choice(app, "--mixed-video-audio", c.mixedVideoAudio, kMixedVideoAudio,
         "sound and picture of the mix in files apart, or in one, with baseline or high profile; "
         "default: high");
  text(app, "--mix-resolution", c.mixResolution, o.mix_resolution,
       "width,height,fps,kbps of the mix");
  choice(app, "--audio-profile", c.audioProfile, kAudioProfiles, "of the mix's sound");
  text(app, "--default-video-bg", c.defaultVideoBg, o.default_video_bg, "image behind the mix");
  text(app, "--default-user-bg", c.defaultUserBg, o.default_user_bg,
       "image of a user without video");
  choice(app, "--decode-video", c.decodeVideo, kDecodeVideo, "recorded, or delivered as frames");
  choice(app, "--decode-audio", c.decodeAudio, kDecodeAudio, "recorded, or delivered as frames");
  app.add_option("--capture-interval", c.captureInterval, "seconds between pictures")
      ->check(CLI::Range(1, 1 << 30))
      ->capture_default_str()
      ->group(kFields);
  app.add_option("--audio-indication-interval", c.audioIndicationInterval,
                 "milliseconds between volume reports; 0: none")
      ->check(CLI::Range(0, 1 << 30))
      ->group(kFields);
}

void add_session_fields(CLI::App& app, options& o) {
  recording::RecordingConfig& c = o.config;
  text(app, "--decryption-mode", c.decryptionMode, o.decryption_mode,
       "how the channel is encrypted");
  text(app, "--applite-dir", c.appliteDir, o.applite_dir, "folder of ZeltaCoreService");
  text(app, "--record-file-root-dir", c.recordFileRootDir, o.record_file_root_dir,
       "existing folder under which to record; default: .");
  text(app, "--cfg-file-path", c.cfgFilePath, o.cfg_file_path, "JSON file of site settings");
  app.add_option("--low-udp-port", c.lowUdpPort, "lowest UDP port; 0: any")->group(kFields);
  app.add_option("--high-udp-port", c.highUdpPort, "highest UDP port; 0: any")->group(kFields);
  app.add_option("--idle-limit-sec", c.idleLimitSec, "leave after so many seconds without users")
      ->check(CLI::Range(3, 1 << 30))
      ->capture_default_str()
      ->group(kFields);
  choice(app, "--channel-profile", c.channelProfile, kChannelProfiles, "a call or a broadcast");
  choice(app, "--stream-type", c.streamType, kStreamTypes, "large or small picture");
  choice(app, "--trigger-mode", c.triggerMode, kTriggerModes,
         "record from the join on, or between the commands start and stop");
  choice(app, "--lang", c.lang, kLanguages, "language of the application");
  text(app, "--proxy-server", c.proxyServer, o.proxy_server, "proxy server");
}

// What follows from what was given; an error or nothing.
std::string settle(const CLI::App& app, options& o, const secret_files& files) {
  recording::RecordingConfig& c = o.config;
  o.given_secret = app.count("--secret") + app.count("--secret-file") > 0;
  o.given_capture_interval = app.count("--capture-interval") > 0;
  for (const auto& fault : {take_secret(kChannelKeySource, files.channel_key, o.channel_key),
                            take_secret(kSecretSource, files.secret, o.secret)}) {
    if (!fault.empty()) return fault;
  }
  if (!o.secret.empty() && !o.decryption_mode.empty()) c.secret = o.secret.data();
  if (o.demo) {
    if (o.server.empty()) o.server = kDemoServer;
    if (o.channel_id.empty()) o.channel_id = kDemoChannel;
    if (app.count("--duration") == 0) o.duration_s = kDemoSeconds;
  }
  if (o.lease_s > 0) o.commands = true;
  if (o.channel_id.empty()) return "name the channel, or try --demo; --help shows all options";
  // What people expect of a mix is a file that they can play.
  if (app.count("--mixed-video-audio") == 0 && c.isMixingEnabled && !c.isAudioOnly &&
      !c.isVideoOnly) {
    c.mixedVideoAudio = recording::MIXED_AV_CODEC_V2;
  }
  std::string found = contradiction(o);
  return found.empty() ? obstacle(o) : found;
}

}  // namespace

parse_result parse_options(int argc, const char* const* argv, options& o) {
  CLI::App app(
      "Records a channel. Ends in order on SIGINT, SIGTERM or SIGHUP, after --duration, or when "
      "the recorder leaves; a second SIGINT or SIGTERM doesn't wait for the files.\n" +
          std::string(kStatusHelp),
      "zelta-record");
  app.get_formatter()->column_width(36);
  secret_files files;
  add_tool_options(app, o, files);
  add_media_fields(app, o);
  add_session_fields(app, o);
  return tools::parse_command_line(app, argc, argv, kUsage,
                                   [&app, &o, &files] { return settle(app, o, files); });
}

}  // namespace zelta::record
