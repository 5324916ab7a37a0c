// SPDX-License-Identifier: Apache-2.0
// Whether a configuration can be recorded with: the rules of a join.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "rec_engine/RecordingEngineImpl.h"
#include "rec_engine/config_file.h"
#include "rec_engine/engine_internals.h"

namespace zelta::recording {

namespace {

constexpr int kMaxPort = 65535;
constexpr int kMinPortSpan = 2;
constexpr size_t kMaxChannelIdBytes = 64;
constexpr int kMinIdleSec = 2;
constexpr int kMaxTooShortChunkSec = 9;

bool captures(VIDEO_FORMAT_TYPE decode_video) {
  return captures_instead_of_video(decode_video) ||
         decode_video == VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
}

int to_int(const std::string& digits) {
  return static_cast<int>(std::strtol(digits.c_str(), nullptr, 10));
}

}  // namespace

// The first rule that fails decides; rules that take a value from the file keep it even when a
// later one refuses.
int RecordingEngineImpl::joinChannelValidationCheck(const char* /*channelKey*/,
                                                    const char* channelId, uid_t /*uid*/,
                                                    const RecordingConfig* config) {
  int refused = refuse_or_warn_media(*config);
  if (refused == 0) refused = refuse_mixing(*config);
  if (refused == 0) refused = refuse_channel(channelId, *config);
  if (refused == 0) refused = refuse_capture(*config);
  if (refused == 0) refused = refuse_file_settings(*config);
  return refused;
}

#define REFUSE_IF(condition, code, message) \
  do {                                      \
    if (condition) {                        \
      ENGINE_LOG(ERROR_LOG) << message;     \
      return code;                          \
    }                                       \
  } while (false)

int RecordingEngineImpl::refuse_or_warn_media(const RecordingConfig& config) {
  const int low = config.lowUdpPort;
  const int high = config.highUdpPort;
  const bool delivers_audio = config.decodeAudio != AUDIO_FORMAT_DEFAULT_TYPE;
  const bool delivers_video = config.decodeVideo != VIDEO_FORMAT_DEFAULT_TYPE;

  // Only the lower bound is checked from above: a high bound past the last port restricts nothing.
  REFUSE_IF(low < 0 || high < 0 || low > kMaxPort, kBadConfiguration,
            "Invalid port range! [" << low << ", " << high << ")");
  REFUSE_IF(config.isVideoOnly && config.isAudioOnly, kBadConfiguration,
            "Can't apply both isAudioOnly & isVideoOnly at same time.");
  // The recorder doesn't open the upper bound itself, so three ports need a difference of three.
  REFUSE_IF(low != 0 && high != 0 && high - low <= kMinPortSpan, kBadConfiguration,
            "Udp port range should contain at least 3 ports: [" << low << ", " << high << ")");
  REFUSE_IF(config.isMixingEnabled && delivers_audio, kBadConfiguration,
            "ERROR:raw audio data feature wasn't supported in mix mode !!!");
  REFUSE_IF(config.isMixingEnabled && delivers_video &&
                config.decodeVideo != VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE,
            kBadConfiguration, "ERROR:raw video data feature wasn't supported in mix mode !!!");
  REFUSE_IF(delivers_audio && (config.isVideoOnly || captures_instead_of_video(config.decodeVideo)),
            kBadConfiguration,
            "ERROR:decodeAudio feature wasn't supported with videoOnly & capture mode !!!");
  REFUSE_IF(config.isAudioOnly && delivers_video, kBadConfiguration,
            "ERROR:audioOnly doesn't supported with decodeVideo!!!");
  return 0;
}

int RecordingEngineImpl::refuse_mixing(const RecordingConfig& config) {
  REFUSE_IF(!config.isMixingEnabled && config.audioProfile != AUDIO_PROFILE_DEFAULT,
            kBadConfiguration,
            "ERROR: audio profile can be set only in case isMixingEnables is true!!!");
  if (config.mixResolution != nullptr) {
    if (!config.isMixingEnabled || config.isAudioOnly) {
      // Harmless, in spite of its prefix: nothing is mixed that could have a resolution.
      ENGINE_LOG(ERROR_LOG) << "ERROR:mixResolution only be enabled in video mix mode!!!";
    } else {
      int high_width = 0;
      int high_height = 0;
      int fps = 0;
      int kbps = 0;
      const int read =
          std::sscanf(config.mixResolution, "%d,%d,%d,%d", &high_width, &high_height, &fps, &kbps);
      if (read < 4 || high_width <= 0 || high_height <= 0 || fps <= 0 || kbps <= 0) {
        ENGINE_LOGF(ERROR_LOG, "Illegal resolution: %s", config.mixResolution);
        return kRefused;
      }
    }
  }
  REFUSE_IF(config.mixedVideoAudio != MIXED_AV_DEFAULT &&
                (!config.isMixingEnabled || config.isAudioOnly || config.isVideoOnly),
            kRefused, "ERROR:mixedVideoAudio only be enabled in video mix mode!!!");
  return 0;
}

int RecordingEngineImpl::refuse_channel(const char* channelId, const RecordingConfig& config) {
  REFUSE_IF(!is_set(channelId), kBadConfiguration, "channel id is empty");
  REFUSE_IF(std::strlen(channelId) > kMaxChannelIdBytes, kBadConfiguration,
            "The length of channel id should not be more than 64");
  REFUSE_IF(config.idleLimitSec <= kMinIdleSec, kBadConfiguration,
            "Idle limit should be more than 2 seconds");
  return 0;
}

// The flags that a capture mode overrides are only warned about: the command line is made right.
int RecordingEngineImpl::refuse_capture(const RecordingConfig& config) {
  if (!captures(config.decodeVideo)) return 0;
  if (config.decodeVideo != VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE && !config.isVideoOnly) {
    ENGINE_LOG(ERROR_LOG) << "Video capture mode must be set isVideoOnly = 1";
  }
  // Audio only together with any video format has been refused already; this stands guard should
  // that rule ever be loosened.
  if (config.isAudioOnly) {
    ENGINE_LOG(ERROR_LOG) << "Video capture mode must be set isAudioOnly = 0";
  }
  if (config.isMixingEnabled) {
    ENGINE_LOG(ERROR_LOG) << "Video capture mode must be set isMixingEnabled = 0";
  }
  REFUSE_IF(config.captureInterval < 1, kBadConfiguration, "Illegal video capture interval.");
  return 0;
}

int RecordingEngineImpl::refuse_file_settings(const RecordingConfig& config) {
  if (is_set(config.cfgFilePath)) {
    const std::string type = get_internal_val_from_cfg(config.cfgFilePath, "Avsync_Type");
    if (!type.empty()) avsync_type_ = static_cast<base::avsyncType>(to_int(type));
  }
  REFUSE_IF(static_cast<uint32_t>(config.triggerMode) > 1, kBadConfiguration,
            "triggerMode out of range, it should be 0 or 1");
  if (is_set(config.cfgFilePath)) {
    const int refused = refuse_chunk_span(config);
    if (refused != 0) return refused;
  }
  REFUSE_IF(config.audioIndicationInterval < 0, kBadConfiguration,
            "audioIndicationInterval out of range, it should be 0 more");
  return 0;
}

int RecordingEngineImpl::refuse_chunk_span(const RecordingConfig& config) {
  const std::string text = get_val_from_cfg(config.cfgFilePath, "Chunk_Time_Span");
  const int span = to_int(text);
  config_.chunkTimeSpan = span;
  REFUSE_IF(span > 0 && config.isMixingEnabled, kBadConfiguration,
            "we can't generate chunk file under mix mode");
  REFUSE_IF(span > 0 && config.channelProfile == CHANNEL_PROFILE_COMMUNICATION, kBadConfiguration,
            "we can only generate chunk file under broadcasting mode");
  REFUSE_IF(span < 0 || (span > 0 && span <= kMaxTooShortChunkSec), kBadConfiguration,
            "chunk time span should be more than 10s");
  return 0;
}

#undef REFUSE_IF

std::string RecordingEngineImpl::get_val_from_cfg(const char* cfgFile, const char* key) {
  const text_lookup found = look_up_text(cfgFile, key);
  switch (found.status) {
    case lookup_status::kFound:
      break;
    case lookup_status::kCannotOpen:
      ENGINE_LOG(ERROR_LOG) << "ERROR:failed to open config file";
      break;
    case lookup_status::kCannotParse:
      ENGINE_LOG(ERROR_LOG) << "ERROR:failed to parser config file";
      break;
    case lookup_status::kNoKey:
      ENGINE_LOG(ERROR_LOG) << "ERROR:config file does not contain recording";
      break;
  }
  return found.value;
}

// For keys that hardly any file has: their absence is not worth a line.
std::string RecordingEngineImpl::get_internal_val_from_cfg(const char* cfgFile, const char* key) {
  return look_up_text(cfgFile, key).value;
}

uint32_t RecordingEngineImpl::get_uint_val_from_cfg(const char* cfgFile, const char* key) {
  return look_up_uint(cfgFile, key);
}

int RecordingEngineImpl::get_internal_test_cfg(const RecordingConfig* config, std::string& vocs,
                                               uint32_t& vocsPort, std::string& vos,
                                               uint32_t& vosPort) {
  if (config == nullptr) return kRefused;
  const char* const path = config->cfgFilePath;
  if (!is_set(path)) return 0;
  vocs = get_internal_val_from_cfg(path, "vocs");
  vocsPort = get_uint_val_from_cfg(path, "vocs_port");
  vos = get_internal_val_from_cfg(path, "vos");
  vosPort = get_uint_val_from_cfg(path, "vos_port");
  return 0;
}

}  // namespace zelta::recording
