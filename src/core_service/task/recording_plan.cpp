// SPDX-License-Identifier: Apache-2.0
#include "core_service/task/recording_plan.h"

#include <cstdio>

#include "IZeltaRecordingEngine.h"

namespace zelta::core_service {
namespace {

using namespace linuxsdk;
using namespace std::chrono_literals;

// Where silence isn't asked for, a short gap stays one.
constexpr media::media_time kLongestGap = 1s;

struct audio_profile {
  int channels;
  int bits_per_second;
};
constexpr audio_profile kAudioProfiles[] = {{1, 48'000}, {1, 128'000}, {2, 192'000}};

void plan_delivery(const options& o, recording_plan& plan) {
  if (o.decode_audio == AUDIO_FORMAT_AAC_FRAME_TYPE) plan.sound_out = sound_frames::kAac;
  if (o.decode_audio == AUDIO_FORMAT_PCM_FRAME_TYPE) plan.sound_out = sound_frames::kPcm;
  if (o.decode_audio == AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE) plan.sound_out = sound_frames::kMixedPcm;
  if (o.decode_video == VIDEO_FORMAT_H264_FRAME_TYPE) plan.video_out = video_frames::kH264;
  if (o.decode_video == VIDEO_FORMAT_YUV_FRAME_TYPE) plan.video_out = video_frames::kYuv;
  plan.jpg_packets = o.decode_video == VIDEO_FORMAT_JPG_FRAME_TYPE;
  plan.jpg_files = o.decode_video == VIDEO_FORMAT_JPG_FILE_TYPE ||
                   o.decode_video == VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
  const bool only_pictures = plan.jpg_packets || o.decode_video == VIDEO_FORMAT_JPG_FILE_TYPE;
  plan.record_sound = plan.take_sound && plan.sound_out == sound_frames::kNone;
  plan.record_video = plan.take_video && plan.video_out == video_frames::kNone && !only_pictures;
}

// "width,height,fps,kbps"; the engine has checked it, whoever runs the recorder by hand has not.
void plan_mix_size(const options& o, recording_plan& plan, std::vector<std::string>& warnings) {
  if (o.mix_resolution.empty()) return;
  int width = 0;
  int height = 0;
  int fps = 0;
  int kbps = 0;
  char rest = 0;
  const int read =
      std::sscanf(o.mix_resolution.c_str(), "%d,%d,%d,%d%c", &width, &height, &fps, &kbps, &rest);
  const bool fits = read == 4 && width >= 16 && width <= 4096 && height >= 16 && height <= 4096 &&
                    fps >= 1 && fps <= 60 && kbps >= 1 && kbps <= 100'000;
  if (!fits) {
    warnings.push_back("--mix_resolution \"" + o.mix_resolution +
                       "\" should be width,height,fps,kbps such as 1280,720,25,1500; the mix is "
                       "640,360,15,500");
    return;
  }
  // 4:2:0 pictures have even sides.
  plan.mix_width = width & ~1;
  plan.mix_height = height & ~1;
  plan.mix_fps = fps;
  plan.mix_kbps = kbps;
}

void plan_mix(const options& o, recording_plan& plan, std::vector<std::string>& warnings) {
  plan.mix_sound = (o.mix && plan.record_sound) ||
                   (plan.take_sound && plan.sound_out == sound_frames::kMixedPcm);
  plan.mix_video = o.mix && plan.record_video;
  plan.mix_apart = o.mixed_video_audio == MIXED_AV_DEFAULT;
  plan.mix_high_profile = o.mixed_video_audio == MIXED_AV_CODEC_V2;
  plan_mix_size(o, plan, warnings);
  if (!o.mix) return;
  // Nobody gets a file of their own.
  plan.record_sound = false;
  plan.record_video = false;
}

}  // namespace

recording_plan plan_of(const options& o, std::vector<std::string>& warnings) {
  for (const option& known : known_options()) {
    const auto* const number = std::get_if<int options::*>(&known.value);
    if (number == nullptr || known.fits(o.**number)) continue;
    warnings.push_back(std::string(known.name) + " " + std::to_string(o.**number) + " should be " +
                       known.range() + "; it is taken as 0");
  }
  recording_plan plan;
  plan.take_sound = !o.video_only;
  plan.take_video = !o.audio_only;
  plan_delivery(o, plan);
  plan_mix(o, plan, warnings);
  if (o.mix && o.audio_profile >= 0 && o.audio_profile <= 2) {
    plan.channels = kAudioProfiles[o.audio_profile].channels;
    plan.sound_bits_per_second = kAudioProfiles[o.audio_profile].bits_per_second;
  }
  plan.chunk = std::chrono::seconds(o.chunk_time_span > 0 ? o.chunk_time_span : 0);
  plan.avsync_type = o.av_sync_type;
  plan.longest_gap = o.av_sync_type == 2 ? 0s : kLongestGap;
  return plan;
}

}  // namespace zelta::core_service
