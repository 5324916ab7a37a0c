// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/codecs.h"

#include "core_service/media/gst.h"

namespace zelta::core_service::media {
namespace {

constexpr codec kCodecs[] = {
    {media_kind::kVideo, "h264", "video/x-h264", "h264parse", "avdec_h264"},
    {media_kind::kVideo, "vp8", "video/x-vp8", "identity", "vp8dec"},
    {media_kind::kVideo, "vp9", "video/x-vp9", "vp9parse", "vp9dec"},
    {media_kind::kAudio, "opus", "audio/x-opus", "opusparse", "opusdec"},
    {media_kind::kAudio, "aac", "audio/mpeg,mpegversion=(int){2,4}", "aacparse", "avdec_aac"},
    {media_kind::kAudio, "mp3", "audio/mpeg,mpegversion=(int)1", "mpegaudioparse", "avdec_mp3"},
    {media_kind::kAudio, "vorbis", "audio/x-vorbis", "vorbisparse", "vorbisdec"},
    {media_kind::kAudio, "flac", "audio/x-flac", "flacparse", "flacdec"},
    {media_kind::kAudio, "pcmu", "audio/x-mulaw", "identity", "mulawdec"},
    {media_kind::kAudio, "pcma", "audio/x-alaw", "identity", "alawdec"},
    {media_kind::kAudio, "pcm", "audio/x-raw", "identity", "identity"},
};

}  // namespace

const codec* find_codec(const GstCaps* caps) {
  for (const codec& c : kCodecs) {
    const caps_ptr wanted(gst_caps_from_string(c.caps));
    if (gst_caps_can_intersect(caps, wanted.get()) != FALSE) return &c;
  }
  return nullptr;
}

const codec* find_codec(const std::string& name) {
  for (const codec& c : kCodecs) {
    if (name == c.name) return &c;
  }
  return nullptr;
}

std::string h264_encoder(int kbps, int key_frame_distance) {
  const std::string distance = std::to_string(key_frame_distance);
  if (have_element("x264enc")) {
    return "x264enc tune=zerolatency speed-preset=ultrafast bitrate=" + std::to_string(kbps) +
           " key-int-max=" + distance + " ! video/x-h264,profile=constrained-baseline";
  }
  if (have_element("openh264enc")) {
    return "openh264enc bitrate=" + std::to_string(kbps * 1000) + " gop-size=" + distance;
  }
  return "";
}

}  // namespace zelta::core_service::media
