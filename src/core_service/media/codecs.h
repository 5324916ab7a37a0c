// SPDX-License-Identifier: Apache-2.0
// Which elements parse, decode and encode each codec, in gst-launch syntax.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <gst/gst.h>

namespace zelta::core_service::media {

enum class media_kind { kAudio, kVideo };

// "audio", "video".
const char* name_of(media_kind kind);
// Of a media type such as "video/x-dirac"; none for what is neither.
std::optional<media_kind> kind_of(const std::string& type);

// What becomes of pictures. Sound is decoded and encoded once for all, as the container wants it.
enum class storage {
  kSound,
  kMp4,     // as they came
  kWebm,    // as they came
  kAsH264,  // no container takes them: decoded, encoded as H.264, in MP4
};

// One codec as it comes from a channel.
struct codec {
  media_kind kind;
  const char* name;    // as the manifest has it
  const char* caps;    // media type of its caps
  const char* parse;   // brings the stream into a form that muxers and decoders take
  const char* decode;  // to raw samples or pictures
  storage kept;
  const char* rtp;  // its name in a session description; null: none is received
};

// For every plugin that is missing what it costs and which package brings it.
std::vector<std::string> missing_plugins();

// The codec of `caps`; null for one that isn't supported.
const codec* find_codec(const GstCaps* caps);
const codec* find_codec(const std::string& name);
// By the encoding name of a session description, in any case.
const codec* find_rtp_codec(const std::string& encoding_name);

struct h264_settings {
  int kbps;
  int key_frame_distance;  // pictures
  bool high_profile;       // else constrained baseline
  const char* preset;      // x264's word for effort
};

// Elements from what can't be kept as it comes to H.264 as kept; `caps` are of the former, for the
// size. Empty: there is no encoder.
std::string as_h264(const codec& c, const GstCaps* caps);

// An H.264 encoder for live use, x264 where it is installed, else OpenH264; empty: neither is. It
// holds no picture back, so a recorder that is killed loses none.
std::string h264_encoder(const h264_settings& wanted);

}  // namespace zelta::core_service::media
