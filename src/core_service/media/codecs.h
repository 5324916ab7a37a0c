// SPDX-License-Identifier: Apache-2.0
// Which elements parse, decode and encode each codec, in gst-launch syntax.
#pragma once

#include <string>

#include <gst/gst.h>

namespace zelta::core_service::media {

enum class media_kind { kAudio, kVideo };

// One codec as it comes from a channel.
struct codec {
  media_kind kind;
  const char* name;    // as the manifest has it
  const char* caps;    // media type of its caps
  const char* parse;   // brings the stream into a form that muxers and decoders take
  const char* decode;  // to raw samples or pictures
};

// The codec of `caps`; null for one that isn't supported.
const codec* find_codec(const GstCaps* caps);
const codec* find_codec(const std::string& name);

// An H.264 encoder for live use, x264 where it is installed, else OpenH264; empty: neither is.
std::string h264_encoder(int kbps, int key_frame_distance);

}  // namespace zelta::core_service::media
