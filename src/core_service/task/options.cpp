// SPDX-License-Identifier: Apache-2.0
#include "core_service/task/options.h"

#include <sstream>

#include <CLI/CLI.hpp>

namespace zelta::core_service {

const std::vector<option>& known_options() {
  using o = options;
  static const std::vector<option> kKnown = {
      {{"--app_id", &o::app_id}, "application id"},
      {{"--channel_key", &o::channel_key}, "key for the channel", option::kSecret},
      {{"--channel_id", &o::channel_id}, "name of the channel", option::kRequired},
      {{"--uid", &o::uid}, "the recorder's own user id; 0: chosen here"},
      {{"--audio_only", &o::audio_only}, "1: record audio only"},
      {{"--video_only", &o::video_only}, "1: record video only"},
      {{"--mix", &o::mix}, "1: mix all users"},
      {{"--mixedVideoAudio", &o::mixed_video_audio, 0, 2}, "mixed sound and picture in one file"},
      {{"--live", &o::live}, "1: live broadcasting"},
      {{"--encrypt_mode", &o::encrypt_mode}, "how the channel is encrypted"},
      {{"--encrypt_secret", &o::encrypt_secret}, "its secret", option::kSecret},
      {{"--chunk_time_span", &o::chunk_time_span}, "seconds a file; 0: one file"},
      {{"--idle", &o::idle}, "seconds without users after which to leave"},
      {{"--decode_audio", &o::decode_audio, 0, 3}, "0 file, 1 AAC frames, 2 PCM frames, 3 mixed"},
      {{"--decode_video", &o::decode_video, 0, 5}, "0 file, 1 H.264 frames, 2 YUV frames, 3-5 JPG"},
      {{"--capture_interval", &o::capture_interval}, "seconds between pictures"},
      {{"--audio_indication_interval", &o::audio_indication_interval},
       "milliseconds between volume reports"},
      {{"--syslog_fclt", &o::syslog_fclt}, "syslog facility"},
      {{"--streamType", &o::stream_type, 0, 1}, "0 high, 1 low stream"},
      {{"--serviceMode", &o::service_mode, 0, 2}, "mode of the service"},
      {{"--recording_file_dir", &o::recording_file_dir}, "folder of the recording"},
      {{"--vocs", &o::vocs}, "channel server"},
      {{"--vocs_port", &o::vocs_port}, "its port"},
      {{"--vos", &o::vos}, "media server"},
      {{"--vos_port", &o::vos_port}, "its port"},
      {{"--mix_resolution", &o::mix_resolution}, "width,height,fps,kbps of the mix"},
      {{"--min_port", &o::min_port}, "lowest UDP port"},
      {{"--max_port", &o::max_port}, "highest UDP port"},
      {{"--triggerMode", &o::trigger_mode, 0, 1}, "1: wait for a start command"},
      {{"--lang", &o::lang, 0, 1}, "language of the application"},
      {{"--proxy_server", &o::proxy_server}, "proxy"},
      {{"--audioProfile", &o::audio_profile, 0, 2}, "quality of the mixed sound"},
      {{"--defaultVideoBg", &o::default_video_bg}, "image behind the mix"},
      {{"--defaultUserBg", &o::default_user_bg}, "image of a user without video"},
      {{"--logLevel", &o::log_level}, "1 fatal to 6 debug"},
      {{"--enabledModules", &o::enabled_modules}, "mask of log modules"},
      {{"--avSyncType", &o::av_sync_type, 0, 2}, "way of lip sync"},
      {{"--recoveryid", &o::recovery_id}, "number of this relaunch"},
      {{"--recoverytime", &o::recovery_time}, "when it happened, milliseconds"},
      {{"--read", &o::read_fd}, "descriptor with the engine's commands"},
      {{"--write", &o::write_fd}, "descriptor for events and frames"},
  };
  return kKnown;
}

std::vector<const char*> secret_options() {
  std::vector<const char*> names;
  for (const option& one : known_options()) {
    if (one.kind == option::kSecret) names.push_back(one.name);
  }
  return names;
}

option_parser::option_parser()
    : app_(std::make_unique<CLI::App>(
          "Records one channel. The engine starts it; run by hand it records until SIGINT.",
          "ZeltaCoreService")) {
  app_->allow_extras();
  // A session that was joined twice passes both command lines, one behind the other.
  app_->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  for (const option& one : known_options()) {
    const auto add = [&](auto to) { return app_->add_option(one.name, values_.*to, one.help); };
    std::visit(add, one.value)->required(one.kind == option::kRequired);
  }
}

option_parser::~option_parser() = default;

parsed_options option_parser::parse(int argc, const char* const* argv) {
  values_ = options();
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    std::ostringstream text;
    const int status = app_->exit(e, text, text);
    return {std::nullopt, text.str(), status};
  }
  values_.unknown = app_->remaining();
  if (values_.recording_file_dir.empty()) values_.recording_file_dir = ".";
  if (values_.recording_file_dir.back() != '/') values_.recording_file_dir += '/';
  return {values_, "", 0};
}

}  // namespace zelta::core_service
