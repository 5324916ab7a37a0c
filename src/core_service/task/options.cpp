// SPDX-License-Identifier: Apache-2.0
#include "core_service/task/options.h"

#include <sstream>

#include <CLI/CLI.hpp>

namespace zelta::core_service {

option_parser::option_parser()
    : app_(std::make_unique<CLI::App>(
          "Records one channel. The engine starts it; run by hand it records until SIGINT.",
          "ZeltaCoreService")) {
  app_->allow_extras();
  // A session that was joined twice passes both command lines, one behind the other.
  app_->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app_->add_option("--app_id", values_.app_id, "application id");
  app_->add_option("--channel_key", values_.channel_key, "key for the channel");
  app_->add_option("--channel_id", values_.channel_id, "name of the channel")->required();
  app_->add_option("--uid", values_.uid, "the recorder's own user id; 0: chosen here");
  app_->add_option("--audio_only", values_.audio_only, "1: record audio only");
  app_->add_option("--video_only", values_.video_only, "1: record video only");
  app_->add_option("--mix", values_.mix, "1: mix all users");
  app_->add_option("--mixedVideoAudio", values_.mixed_video_audio,
                   "mixed sound and picture in one file");
  app_->add_option("--live", values_.live, "1: live broadcasting");
  app_->add_option("--encrypt_mode", values_.encrypt_mode, "how the channel is encrypted");
  app_->add_option("--encrypt_secret", values_.encrypt_secret, "its secret");
  app_->add_option("--chunk_time_span", values_.chunk_time_span, "seconds a file; 0: one file");
  app_->add_option("--idle", values_.idle, "seconds without users after which to leave");
  app_->add_option("--decode_audio", values_.decode_audio,
                   "0 file, 1 AAC frames, 2 PCM frames, 3 mixed");
  app_->add_option("--decode_video", values_.decode_video,
                   "0 file, 1 H.264 frames, 2 YUV frames, 3-5 JPG");
  app_->add_option("--capture_interval", values_.capture_interval, "seconds between pictures");
  app_->add_option("--audio_indication_interval", values_.audio_indication_interval,
                   "milliseconds between volume reports");
  app_->add_option("--syslog_fclt", values_.syslog_fclt, "syslog facility");
  app_->add_option("--streamType", values_.stream_type, "0 high, 1 low stream");
  app_->add_option("--serviceMode", values_.service_mode, "mode of the service");
  app_->add_option("--recording_file_dir", values_.recording_file_dir, "folder of the recording");
  app_->add_option("--vocs", values_.vocs, "channel server");
  app_->add_option("--vocs_port", values_.vocs_port, "its port");
  app_->add_option("--vos", values_.vos, "media server");
  app_->add_option("--vos_port", values_.vos_port, "its port");
  app_->add_option("--mix_resolution", values_.mix_resolution, "width,height,fps,kbps of the mix");
  app_->add_option("--min_port", values_.min_port, "lowest UDP port");
  app_->add_option("--max_port", values_.max_port, "highest UDP port");
  app_->add_option("--triggerMode", values_.trigger_mode, "1: wait for a start command");
  app_->add_option("--lang", values_.lang, "language of the application");
  app_->add_option("--proxy_server", values_.proxy_server, "proxy");
  app_->add_option("--audioProfile", values_.audio_profile, "quality of the mixed sound");
  app_->add_option("--defaultVideoBg", values_.default_video_bg, "image behind the mix");
  app_->add_option("--defaultUserBg", values_.default_user_bg, "image of a user without video");
  app_->add_option("--logLevel", values_.log_level, "1 fatal to 6 debug");
  app_->add_option("--enabledModules", values_.enabled_modules, "mask of log modules");
  app_->add_option("--avSyncType", values_.av_sync_type, "way of lip sync");
  app_->add_option("--recoveryid", values_.recovery_id, "number of this relaunch");
  app_->add_option("--recoverytime", values_.recovery_time, "when it happened, milliseconds");
  app_->add_option("--read", values_.read_fd, "descriptor with the engine's commands");
  app_->add_option("--write", values_.write_fd, "descriptor for events and frames");
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
  options o = values_;
  o.unknown = app_->remaining();
  if (o.recording_file_dir.empty()) o.recording_file_dir = ".";
  if (o.recording_file_dir.back() != '/') o.recording_file_dir += '/';
  return {o, "", 0};
}

}  // namespace zelta::core_service
