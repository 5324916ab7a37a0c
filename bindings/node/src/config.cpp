// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <string>

#include "parts.h"
#include "values.h"

namespace zelta::node {

namespace {

template <class T>
struct member {
  const char* name;
  T zelta_config::*at;
};

constexpr member<int32_t> kNumbers[] = {
    {"isAudioOnly", &zelta_config::is_audio_only},
    {"isVideoOnly", &zelta_config::is_video_only},
    {"isMixingEnabled", &zelta_config::is_mixing_enabled},
    {"mixedVideoAudio", &zelta_config::mixed_video_audio},
    {"decodeVideo", &zelta_config::decode_video},
    {"decodeAudio", &zelta_config::decode_audio},
    {"lowUdpPort", &zelta_config::low_udp_port},
    {"highUdpPort", &zelta_config::high_udp_port},
    {"idleLimitSec", &zelta_config::idle_limit_sec},
    {"captureInterval", &zelta_config::capture_interval},
    {"audioIndicationInterval", &zelta_config::audio_indication_interval},
    {"channelProfile", &zelta_config::channel_profile},
    {"streamType", &zelta_config::stream_type},
    {"triggerMode", &zelta_config::trigger_mode},
    {"audioProfile", &zelta_config::audio_profile}};

constexpr member<const char*> kTexts[] = {
    {"mixResolution", &zelta_config::mix_resolution},
    {"decryptionMode", &zelta_config::decryption_mode},
    {"secret", &zelta_config::secret},
    {"appliteDir", &zelta_config::applite_dir},
    {"recordFileRootDir", &zelta_config::record_file_root_dir},
    {"cfgFilePath", &zelta_config::cfg_file_path},
    {"proxyServer", &zelta_config::proxy_server},
    {"defaultVideoBg", &zelta_config::default_video_bg},
    {"defaultUserBg", &zelta_config::default_user_bg}};

template <class Members>
napi_value names_of(napi_env env, const Members& members) {
  napi_value names = array_value(env);
  for (const auto& of : members) append(env, names, text_value(env, of.name));
  return names;
}

int32_t int_at(napi_env env, napi_value array, uint32_t i) {
  napi_value element = nullptr;
  int32_t number = 0;
  if (napi_get_element(env, array, i, &element) != napi_ok) return 0;
  return napi_get_value_int32(env, element, &number) == napi_ok ? number : 0;
}

}  // namespace

napi_value config_numbers(napi_env env) {
  return names_of(env, kNumbers);
}

napi_value config_texts(napi_env env) {
  return names_of(env, kTexts);
}

int join_with(napi_env env, zelta_recording* recording, const char* key, const char* channel,
              uint32_t uid, napi_value numbers, napi_value texts) {
  zelta_config config{};
  config.size = sizeof config;
  uint32_t i = 0;
  for (const auto& of : kNumbers) config.*of.at = int_at(env, numbers, i++);
  std::array<std::string, std::size(kTexts)> kept;
  i = 0;
  for (const auto& of : kTexts) {
    std::string& text = kept.at(i);
    if (text_at(env, texts, i++, text)) config.*of.at = text.c_str();
  }
  return zelta_recording_join(recording, key, channel, uid, &config);
}

}  // namespace zelta::node
