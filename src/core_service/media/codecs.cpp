// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/codecs.h"

#include <strings.h>

#include "core_service/media/gst.h"

namespace zelta::core_service::media {
namespace {

constexpr const char* kAvc = "h264parse ! video/x-h264,stream-format=avc,alignment=au";
// Keeps decoding what a loss has damaged, as a player does.
constexpr const char* kDecodeH264 = "avdec_h264";

constexpr codec kCodecs[] = {
    {media_kind::kVideo, "h264", "video/x-h264", kAvc, kDecodeH264, false, "H264",
     "rtph264depay request-keyframe=true ! h264parse ! h264timestamper"},
    {media_kind::kVideo, "vp8", "video/x-vp8", "identity", "vp8dec", true, "VP8",
     "rtpvp8depay request-keyframe=true"},
    {media_kind::kVideo, "vp9", "video/x-vp9", "vp9parse", "vp9dec", true, "VP9",
     "rtpvp9depay request-keyframe=true"},
    {media_kind::kAudio, "opus", "audio/x-opus", "opusparse", "opusdec", false, "OPUS",
     "rtpopusdepay"},
    {media_kind::kAudio, "aac", "audio/mpeg,mpegversion=(int){2,4}", "aacparse", "avdec_aac", false,
     nullptr, nullptr},
    {media_kind::kAudio, "mp3", "audio/mpeg,mpegversion=(int)1", "mpegaudioparse", "avdec_mp3",
     false, nullptr, nullptr},
    {media_kind::kAudio, "vorbis", "audio/x-vorbis", "vorbisparse", "vorbisdec", false, nullptr,
     nullptr},
    {media_kind::kAudio, "flac", "audio/x-flac", "flacparse", "flacdec", false, nullptr, nullptr},
    {media_kind::kAudio, "pcmu", "audio/x-mulaw", "identity", "mulawdec", false, "PCMU",
     "rtppcmudepay"},
    {media_kind::kAudio, "pcma", "audio/x-alaw", "identity", "alawdec", false, "PCMA",
     "rtppcmadepay"},
    {media_kind::kAudio, "pcm", "audio/x-raw", "identity", "identity", false, nullptr, nullptr},
};

}  // namespace

const char* name_of(media_kind kind) {
  return kind == media_kind::kAudio ? "audio" : "video";
}

std::optional<media_kind> kind_of(const std::string& type) {
  if (type.rfind("audio/", 0) == 0) return media_kind::kAudio;
  if (type.rfind("video/", 0) == 0 || type.rfind("image/", 0) == 0) return media_kind::kVideo;
  return std::nullopt;
}

std::vector<std::string> missing_plugins() {
  const struct {
    const char* element;
    const char* costs;
    const char* package;
  } rows[] = {
      {"x264enc", "mixing uses OpenH264, which needs more time", "gstreamer1.0-plugins-ugly"},
      {"avenc_aac", "no sound can be recorded in MP4", "gstreamer1.0-libav"},
      {"avdec_h264", "H.264 can't be mixed, captured or decoded", "gstreamer1.0-libav"},
      {"mp4mux", "no MP4 file can be written", "gstreamer1.0-plugins-good"},
      {"webmmux", "VP8 and VP9 can't be recorded", "gstreamer1.0-plugins-good"},
      {"vp8dec", "VP8 can't be mixed, captured or decoded", "gstreamer1.0-plugins-good"},
      {"rtpbin", "no RTP can be received", "gstreamer1.0-plugins-good"},
      {"opusdec", "Opus can't be recorded", "gstreamer1.0-plugins-base"},
      {"h264parse", "H.264 can't be recorded", "gstreamer1.0-plugins-bad"},
      {"srtpdec", "no SRTP can be received", "gstreamer1.0-plugins-bad"},
      {"compositor", "pictures can't be mixed", "gstreamer1.0-plugins-base"},
      {"jpegenc", "no pictures can be captured", "gstreamer1.0-plugins-good"},
  };
  std::vector<std::string> missing;
  for (const auto& row : rows) {
    if (have_element(row.element)) continue;
    missing.push_back(std::string(row.element) + " is not installed: " + row.costs +
                      "; it is in the package " + row.package);
  }
  return missing;
}

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

const codec* find_rtp_codec(const std::string& encoding_name) {
  for (const codec& c : kCodecs) {
    if (c.rtp != nullptr && strcasecmp(encoding_name.c_str(), c.rtp) == 0) return &c;
  }
  return nullptr;
}

std::string h264_encoder(const h264_settings& wanted) {
  const std::string distance = std::to_string(wanted.key_frame_distance);
  const std::string profile = std::string(" ! video/x-h264,profile=") +
                              (wanted.high_profile ? "high" : "constrained-baseline");
  if (have_element("x264enc")) {
    return std::string("x264enc tune=zerolatency bframes=0 speed-preset=") + wanted.preset +
           " bitrate=" + std::to_string(wanted.kbps) + " key-int-max=" + distance + profile;
  }
  if (have_element("openh264enc")) {
    return "openh264enc rate-control=bitrate bitrate=" + std::to_string(wanted.kbps * 1000) +
           " gop-size=" + distance + profile;
  }
  return "";
}

}  // namespace zelta::core_service::media
