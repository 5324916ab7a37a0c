// SPDX-License-Identifier: Apache-2.0
// The native methods that make a recording, join, command and leave it.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "io_zelta_recording_Native.h"
#include "java_calls.h"

using namespace zelta::java;  // NOLINT(google-build-using-namespace): the functions below

namespace {

constexpr jsize kFolderBytes = 8192;
constexpr size_t kPlacesOfRegion = 5;

// In the order in which Config has them, which is the struct's.
constexpr std::array kNumbers = {
    &zelta_config::is_audio_only,
    &zelta_config::is_video_only,
    &zelta_config::is_mixing_enabled,
    &zelta_config::mixed_video_audio,
    &zelta_config::decode_video,
    &zelta_config::decode_audio,
    &zelta_config::low_udp_port,
    &zelta_config::high_udp_port,
    &zelta_config::idle_limit_sec,
    &zelta_config::capture_interval,
    &zelta_config::audio_indication_interval,
    &zelta_config::channel_profile,
    &zelta_config::stream_type,
    &zelta_config::trigger_mode,
    &zelta_config::lang,
    &zelta_config::audio_profile,
};
constexpr std::array kTexts = {
    &zelta_config::mix_resolution,
    &zelta_config::decryption_mode,
    &zelta_config::secret,
    &zelta_config::applite_dir,
    &zelta_config::record_file_root_dir,
    &zelta_config::cfg_file_path,
    &zelta_config::proxy_server,
    &zelta_config::default_video_bg,
    &zelta_config::default_user_bg,
};

std::vector<zelta_region> regions_of(const std::vector<jint>& numbers,
                                     const std::vector<jdouble>& places) {
  std::vector<zelta_region> regions(places.size() / kPlacesOfRegion);
  for (size_t i = 0; i < regions.size(); ++i) {
    const double* const place = &places[kPlacesOfRegion * i];
    regions[i] = {static_cast<uint32_t>(numbers[2 * i]),
                  numbers[2 * i + 1],
                  place[0],
                  place[1],
                  place[2],
                  place[3],
                  place[4]};
  }
  return regions;
}

}  // namespace

JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void*) {
  JNIEnv* env = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_10) != JNI_OK) return JNI_ERR;
  return remember_classes(env) ? JNI_VERSION_10 : JNI_ERR;
}

JNIEXPORT void JNICALL JNI_OnUnload(JavaVM* vm, void*) {
  JNIEnv* env = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_10) == JNI_OK) forget_classes(env);
}

jbyteArray Java_io_zelta_recording_Native_version(JNIEnv* env, jclass) {
  return bytes_of(env, zelta_version());
}

jlong Java_io_zelta_recording_Native_create(JNIEnv* env, jclass, jbyteArray app_id,
                                            jlong queue_bytes) {
  return guarded(env, [&]() -> jlong {
    std::string id;
    if (!copy_bytes(env, app_id, id)) return 0;
    zelta_options options{};
    options.size = sizeof options;
    options.delivery = ZELTA_DELIVERY_QUEUE;
    options.app_id = id.c_str();
    options.queue_bytes = static_cast<uint64_t>(queue_bytes);
    zelta_recording* made = nullptr;
    if (!succeeded(env, nullptr, zelta_recording_create(&options, &made))) return 0;
    return number_of(made);
  });
}

void Java_io_zelta_recording_Native_join(JNIEnv* env, jclass, jlong recording, jbyteArray key,
                                         jbyteArray channel, jint uid, jintArray numbers,
                                         jbyteArray texts) {
  guarded(env, [&] {
    std::string channel_key;
    std::string channel_id;
    std::vector<jint> given;
    std::string given_texts;
    if (!copy_bytes(env, key, channel_key) || !copy_bytes(env, channel, channel_id) ||
        !copy_numbers(env, numbers, given) || !copy_bytes(env, texts, given_texts)) {
      return;
    }
    zelta_config config{};
    config.size = sizeof config;
    for (size_t i = 0; i < kNumbers.size(); ++i) config.*kNumbers.at(i) = given.at(i);
    size_t at = 0;
    for (const auto text : kTexts) config.*text = next_text(given_texts, at);
    succeeded(env, recording_of(recording),
              zelta_recording_join(recording_of(recording), channel_key.c_str(), channel_id.c_str(),
                                   static_cast<uint32_t>(uid), &config));
  });
}

jbyteArray Java_io_zelta_recording_Native_folder(JNIEnv* env, jclass, jlong recording) {
  std::array<char, kFolderBytes> path{};
  const int code = zelta_recording_folder(recording_of(recording), path.data(), path.size());
  return succeeded(env, recording_of(recording), code) ? bytes_of(env, path.data()) : nullptr;
}

void Java_io_zelta_recording_Native_setLayout(JNIEnv* env, jclass, jlong recording,
                                              jbyteArray color, jintArray numbers,
                                              jdoubleArray places) {
  guarded(env, [&] {
    std::string background;
    std::vector<jint> uids_and_modes;
    std::vector<jdouble> given;
    if (!copy_bytes(env, color, background) || !copy_numbers(env, numbers, uids_and_modes) ||
        !copy_numbers(env, places, given)) {
      return;
    }
    const std::vector<zelta_region> regions = regions_of(uids_and_modes, given);
    size_t at = 0;
    zelta_layout layout{};
    layout.size = sizeof layout;
    layout.region_size = sizeof(zelta_region);
    layout.region_count = static_cast<uint32_t>(regions.size());
    layout.background_color = next_text(background, at);
    layout.regions = regions.data();
    succeeded(env, recording_of(recording),
              zelta_recording_set_layout(recording_of(recording), &layout));
  });
}

void Java_io_zelta_recording_Native_setUserBackground(JNIEnv* env, jclass, jlong recording,
                                                      jint uid, jbyteArray image_path) {
  guarded(env, [&] {
    std::string path;
    if (!copy_bytes(env, image_path, path)) return;
    succeeded(env, recording_of(recording),
              zelta_recording_set_user_background(recording_of(recording),
                                                  static_cast<uint32_t>(uid), path.c_str()));
  });
}

void Java_io_zelta_recording_Native_startService(JNIEnv* env, jclass, jlong recording) {
  succeeded(env, recording_of(recording), zelta_recording_start_service(recording_of(recording)));
}

void Java_io_zelta_recording_Native_stopService(JNIEnv* env, jclass, jlong recording) {
  succeeded(env, recording_of(recording), zelta_recording_stop_service(recording_of(recording)));
}

void Java_io_zelta_recording_Native_setLogLevel(JNIEnv* env, jclass, jlong recording, jint level) {
  succeeded(env, recording_of(recording),
            zelta_recording_set_log_level(recording_of(recording), level));
}

void Java_io_zelta_recording_Native_leave(JNIEnv* env, jclass, jlong recording) {
  succeeded(env, recording_of(recording), zelta_recording_leave(recording_of(recording)));
}

void Java_io_zelta_recording_Native_finish(JNIEnv* env, jclass, jlong recording) {
  succeeded(env, recording_of(recording), zelta_recording_finish(recording_of(recording)));
}

void Java_io_zelta_recording_Native_release(JNIEnv* env, jclass, jlong recording) {
  succeeded(env, recording_of(recording), zelta_recording_release(recording_of(recording)));
}
