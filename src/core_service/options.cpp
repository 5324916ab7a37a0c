// SPDX-License-Identifier: Apache-2.0
#include "core_service/options.h"

#include <sstream>

#include <CLI/CLI.hpp>

namespace zelta::core_service {

parsed_options parse_options(int argc, const char* const* argv) {
  options o;
  CLI::App app("Records one channel. The engine starts it; run by hand it records until SIGINT.",
               "ZeltaCoreService");
  app.allow_extras();
  // A session that was joined twice passes both command lines, one behind the other.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.add_option("--app_id", o.app_id, "application id");
  app.add_option("--channel_key", o.channel_key, "key for the channel");
  app.add_option("--channel_id", o.channel_id, "name of the channel")->required();
  app.add_option("--uid", o.uid, "the recorder's own user id; 0: chosen here");
  app.add_option("--audio_only", o.audio_only, "1: record audio only");
  app.add_option("--video_only", o.video_only, "1: record video only");
  app.add_option("--mix", o.mix, "1: mix all users");
  app.add_option("--mixedVideoAudio", o.mixed_video_audio, "mixed sound and picture in one file");
  app.add_option("--live", o.live, "1: live broadcasting");
  app.add_option("--encrypt_mode", o.encrypt_mode, "how the channel is encrypted");
  app.add_option("--encrypt_secret", o.encrypt_secret, "its secret");
  app.add_option("--chunk_time_span", o.chunk_time_span, "seconds a file; 0: one file");
  app.add_option("--idle", o.idle, "seconds without users after which to leave");
  app.add_option("--decode_audio", o.decode_audio, "0 file, 1 AAC frames, 2 PCM frames, 3 mixed");
  app.add_option("--decode_video", o.decode_video, "0 file, 1 H.264 frames, 2 YUV frames, 3-5 JPG");
  app.add_option("--capture_interval", o.capture_interval, "seconds between pictures");
  app.add_option("--audio_indication_interval", o.audio_indication_interval,
                 "milliseconds between volume reports");
  app.add_option("--syslog_fclt", o.syslog_fclt, "syslog facility");
  app.add_option("--streamType", o.stream_type, "0 high, 1 low stream");
  app.add_option("--serviceMode", o.service_mode, "mode of the service");
  app.add_option("--recording_file_dir", o.recording_file_dir, "folder of the recording");
  app.add_option("--vocs", o.vocs, "channel server");
  app.add_option("--vocs_port", o.vocs_port, "its port");
  app.add_option("--vos", o.vos, "media server");
  app.add_option("--vos_port", o.vos_port, "its port");
  app.add_option("--mix_resolution", o.mix_resolution, "width,height,fps,kbps of the mix");
  app.add_option("--min_port", o.min_port, "lowest UDP port");
  app.add_option("--max_port", o.max_port, "highest UDP port");
  app.add_option("--triggerMode", o.trigger_mode, "1: wait for a start command");
  app.add_option("--lang", o.lang, "language of the application");
  app.add_option("--proxy_server", o.proxy_server, "proxy");
  app.add_option("--audioProfile", o.audio_profile, "quality of the mixed sound");
  app.add_option("--defaultVideoBg", o.default_video_bg, "image behind the mix");
  app.add_option("--defaultUserBg", o.default_user_bg, "image of a user without video");
  app.add_option("--logLevel", o.log_level, "1 fatal to 6 debug");
  app.add_option("--enabledModules", o.enabled_modules, "mask of log modules");
  app.add_option("--avSyncType", o.av_sync_type, "way of lip sync");
  app.add_option("--recoveryid", o.recovery_id, "number of this relaunch");
  app.add_option("--recoverytime", o.recovery_time, "when it happened, milliseconds");
  app.add_option("--read", o.read_fd, "descriptor with the engine's commands");
  app.add_option("--write", o.write_fd, "descriptor for events and frames");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    std::ostringstream text;
    const int status = app.exit(e, text, text);
    return {std::nullopt, text.str(), status};
  }
  o.unknown = app.remaining();
  if (o.recording_file_dir.empty()) o.recording_file_dir = ".";
  if (o.recording_file_dir.back() != '/') o.recording_file_dir += '/';
  return {o, "", 0};
}

}  // namespace zelta::core_service
