// SPDX-License-Identifier: Apache-2.0
#include "checks.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

#include "core_service/task/settings.h"
#include "json_file.h"

namespace zelta::record {
namespace {

using namespace recording;

constexpr size_t kLongestChannel = 64;
constexpr int kLastPort = 65535;

// Three ports or more.
bool fit_ports(int low, int high) {
  if (low < 0 || low > kLastPort || high < 0 || high > kLastPort) return false;
  return low == 0 || high == 0 || high - low >= 3;
}

bool is_resolution(const char* text) {
  std::array<int, 4> n{};
  char more = 0;
  return std::sscanf(text, "%d,%d,%d,%d%c", &n[0], &n[1], &n[2], &n[3], &more) == 4 && n[0] > 0 &&
         n[1] > 0 && n[2] > 0 && n[3] > 0;
}

struct rule {
  bool broken;
  std::string says;
};

template <size_t N>
std::string first_broken(const std::array<rule, N>& rules) {
  for (const rule& r : rules) {
    if (r.broken) return r.says;
  }
  return "";
}

std::string in_channel(const options& o) {
  return first_broken(std::array{
      rule{o.channel_id.size() > kLongestChannel,
           "the channel's name should have 64 bytes at most, not " +
               std::to_string(o.channel_id.size())},
      rule{o.channel_id.find('/') != std::string::npos || o.channel_id == "." ||
               o.channel_id == "..",
           "the channel's name, \"" + o.channel_id +
               "\", becomes part of a folder's name: it can't be \".\" or \"..\" or have a \"/\""},
      rule{!fit_ports(o.config.lowUdpPort, o.config.highUdpPort),
           "--low-udp-port and --high-udp-port should be 0 to 65535 and the second at least 3 "
           "above the first"},
  });
}

std::string in_media(const options& o) {
  const RecordingConfig& c = o.config;
  const bool captures = c.decodeVideo >= VIDEO_FORMAT_JPG_FRAME_TYPE;
  const bool captures_alone = captures && c.decodeVideo != VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
  const bool video_to_file = c.decodeVideo == VIDEO_FORMAT_DEFAULT_TYPE ||
                             c.decodeVideo == VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
  const bool delivers_audio = c.decodeAudio != AUDIO_FORMAT_DEFAULT_TYPE;
  const bool delivers =
      delivers_audio || (!video_to_file && c.decodeVideo != VIDEO_FORMAT_JPG_FILE_TYPE);
  return first_broken(std::array{
      rule{c.isAudioOnly && c.isVideoOnly,
           "--is-audio-only and --is-video-only contradict each other: leave one out"},
      rule{c.isAudioOnly && c.decodeVideo != VIDEO_FORMAT_DEFAULT_TYPE,
           "--is-audio-only and --decode-video contradict each other: leave one out"},
      rule{delivers_audio && (c.isVideoOnly || captures_alone),
           "--decode-audio takes sound, which --is-video-only and --decode-video jpg or jpg-file "
           "leave out"},
      rule{c.isMixingEnabled && (delivers_audio || !video_to_file),
           "--is-mixing-enabled can't be had with frames: leave it or --decode-audio and "
           "--decode-video out (mixed sound as frames is --decode-audio mixed-pcm alone)"},
      rule{!o.frames_dir.empty() && !delivers,
           "--frames needs a medium that is delivered: --decode-video h264, yuv or jpg, or "
           "--decode-audio aac, pcm or mixed-pcm"},
      rule{o.given_capture_interval && !captures,
           "--capture-interval needs pictures: --decode-video jpg, jpg-file or jpg-and-file"},
  });
}

std::string in_mix(const options& o) {
  const RecordingConfig& c = o.config;
  const bool mixes_video = c.isMixingEnabled && !c.isAudioOnly;
  const auto needs_mix = [](const char* option) {
    return std::string(option) +
           " needs a mixed picture: --is-mixing-enabled, and not "
           "--is-audio-only";
  };
  return first_broken(std::array{
      rule{c.audioProfile != AUDIO_PROFILE_DEFAULT && !c.isMixingEnabled,
           "--audio-profile is of the mix: it needs --is-mixing-enabled"},
      rule{c.mixResolution != nullptr && !mixes_video, needs_mix("--mix-resolution")},
      rule{c.mixResolution != nullptr && !is_resolution(c.mixResolution),
           "--mix-resolution should be width,height,fps,kbps such as 640,360,15,500, not \"" +
               o.mix_resolution + "\""},
      rule{c.mixedVideoAudio != MIXED_AV_DEFAULT && (!mixes_video || c.isVideoOnly),
           "--mixed-video-audio puts sound and picture of a mix into one file: it needs "
           "--is-mixing-enabled, and neither --is-audio-only nor --is-video-only"},
      rule{!o.layout_path.empty() && !mixes_video, needs_mix("--layout")},
      rule{c.defaultVideoBg != nullptr && !mixes_video, needs_mix("--default-video-bg")},
      rule{c.defaultUserBg != nullptr && !mixes_video, needs_mix("--default-user-bg")},
      rule{o.chunk_s > 0 && c.isMixingEnabled, "--chunk can't be had with --is-mixing-enabled"},
      rule{o.chunk_s > 0 && c.channelProfile != CHANNEL_PROFILE_LIVE_BROADCASTING,
           "--chunk needs --channel-profile live"},
  });
}

std::string in_secrets(const options& o) {
  return first_broken(std::array{
      rule{!o.decryption_mode.empty() && o.secret.empty(),
           "--decryption-mode needs a secret: --secret-file FILE, or the environment variable "
           "ZELTA_SECRET"},
      rule{o.given_secret && o.decryption_mode.empty(),
           "a secret needs --decryption-mode: aes-128-cm-sha1-80, aes-128-gcm or aes-256-gcm"},
      rule{o.has_secrets() && o.log_level > kHighestLevelWithSecrets,
           "with a channel key or a secret --log-level goes up to notice: with more, a new start "
           "of the recorder would be logged with it"},
  });
}

bool is_folder(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return false;
  errno = ENOTDIR;
  return S_ISDIR(status.st_mode);
}

// Empty when files can be made in it.
std::string fault_of_folder(const std::string& option, const std::string& path) {
  if (is_folder(path) && access(path.c_str(), W_OK | X_OK) == 0) return "";
  return option + " " + path + ": " + std::strerror(errno) +
         "; it should be a folder that is there and that you may write";
}

std::string fault_of_configuration(options& o) {
  if (o.cfg_file_path.empty()) return "";
  std::string error;
  const Json::Value root = read_json_object(o.cfg_file_path, error);
  if (!root.isObject()) return "--cfg-file-path " + error;
  if (!o.server.empty() && !root["Channel_Server"].isNull()) {
    return "--server and Channel_Server of --cfg-file-path both name the channel server: leave one "
           "of them out";
  }
  if (root["Channel_Server"].isString()) {
    o.configured_server = root["Channel_Server"].asString();
  }
  if (!root["Recording_Dir"].isString() || root["Recording_Dir"].asString().empty()) return "";
  const std::string folder = root["Recording_Dir"].asString();
  o.fixed_folder = folder + (folder.back() == '/' ? "" : "/");
  std::error_code failed;
  if (!std::filesystem::exists(folder, failed)) {
    std::filesystem::path last(folder);
    if (last.filename().empty()) last = last.parent_path();
    const std::string parent = last.has_parent_path() ? last.parent_path().string() : ".";
    return fault_of_folder("Recording_Dir is to be made in", parent);
  }
  return fault_of_folder("Recording_Dir", folder);
}

std::string fault_of_files(const options& o) {
  const struct {
    const char* option;
    const std::string& path;
  } kFiles[] = {{"--default-video-bg", o.default_video_bg},
                {"--default-user-bg", o.default_user_bg}};
  for (const auto& file : kFiles) {
    if (file.path.empty() || access(file.path.c_str(), R_OK) == 0) continue;
    return std::string(file.option) + " " + file.path + ": " + std::strerror(errno) +
           "; it should be a PNG or JPEG image";
  }
  const std::string program = o.applite_dir + "/ZeltaCoreService";
  if (!o.applite_dir.empty() && access(program.c_str(), X_OK) != 0) {
    return "--applite-dir " + o.applite_dir + ": " + std::strerror(errno) +
           "; it should be the folder of the program ZeltaCoreService";
  }
  return "";
}

// All that is wrong, a line each, as it will stand behind the program's name.
std::string faults_of_settings(const options& o) {
  if (o.settings_path.empty()) return "";
  std::string faults;
  for (const std::string& error : core_service::load_settings(o.settings_path).errors) {
    faults += (faults.empty() ? "--settings " : "\nzelta-record: --settings ") + error;
  }
  return faults;
}

}  // namespace

std::string contradiction(const options& o) {
  for (const auto& look : {in_channel, in_media, in_mix, in_secrets}) {
    std::string found = look(o);
    if (!found.empty()) return found;
  }
  return "";
}

std::string obstacle(options& o) {
  std::string fault = fault_of_configuration(o);
  if (fault.empty() && o.fixed_folder.empty()) {
    fault = fault_of_folder("--record-file-root-dir",
                            o.record_file_root_dir.empty() ? "." : o.record_file_root_dir);
  }
  if (fault.empty()) fault = fault_of_files(o);
  if (fault.empty()) fault = faults_of_settings(o);
  const char* const server = std::getenv("ZELTA_CHANNEL_SERVER");
  // A configuration file may name one; the recorder says when it doesn't.
  if (fault.empty() && o.server.empty() && o.cfg_file_path.empty() &&
      (server == nullptr || *server == '\0')) {
    fault =
        "no channel server is named: give --server dir:PATH, --server whip:ADDRESS:PORT for "
        "browsers, or --server test: for generated users, or set the environment variable "
        "ZELTA_CHANNEL_SERVER";
  }
  if (fault.empty() && !o.frames_dir.empty()) {
    if (mkdir(o.frames_dir.c_str(), 0777) != 0 && errno != EEXIST) {
      return "--frames " + o.frames_dir + " can't be made: " + std::strerror(errno);
    }
    fault = fault_of_folder("--frames", o.frames_dir);
  }
  return fault;
}

}  // namespace zelta::record
