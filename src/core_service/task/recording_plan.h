// SPDX-License-Identifier: Apache-2.0
// What a recording makes of its users' media, as the command line asks for it.
#pragma once

#include <string>
#include <vector>

#include "core_service/media/timeline.h"
#include "core_service/task/options.h"

namespace zelta::core_service {

enum class sound_frames { kNone, kAac, kPcm, kMixedPcm };
enum class video_frames { kNone, kH264, kYuv };

struct recording_plan {
  bool take_sound = true;
  bool take_video = true;
  // A medium that is delivered to the application is not recorded.
  bool record_sound = true;
  bool record_video = true;
  sound_frames sound_out = sound_frames::kNone;
  video_frames video_out = video_frames::kNone;
  bool jpg_packets = false;
  bool jpg_files = false;

  bool mix_sound = false;  // into a file or for the application
  bool mix_video = false;
  bool mix_apart = false;  // sound and picture of the mix in files of their own
  bool mix_high_profile = false;
  int mix_width = 640;
  int mix_height = 360;
  int mix_fps = 15;
  int mix_kbps = 500;

  // Opus goes into a user's files as it came, where it comes in packets.
  bool keep_opus = true;
  int channels = 1;
  int sound_bits_per_second = 48'000;  // of the mix's file
  media::media_time chunk{};
  media::media_time longest_gap{};
  int avsync_type = 2;
};

// The plan of `given`, with a warning in words for every value that can't be used and what is done
// instead.
recording_plan plan_of(const options& given, std::vector<std::string>& warnings);

}  // namespace zelta::core_service
