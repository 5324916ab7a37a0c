// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/codecs.h"

#include <algorithm>

#include <strings.h>

#include "core_service/media/gst.h"

namespace zelta::core_service::media {
namespace {

constexpr const char* kAvc = "h264parse ! video/x-h264,stream-format=avc,alignment=au";
constexpr const char* kHvc =
    "h265parse ! video/x-h265,stream-format=hvc1,alignment=au ! h265timestamper";
constexpr const char* kObu = "av1parse ! video/x-av1,stream-format=obu-stream,alignment=tu";
// Keeps decoding what a loss has damaged, as a player does.
constexpr const char* kDecodeH264 = "avdec_h264";

// Pictures that are encoded anew look as before at so many pixels a bit.
constexpr double kPixelsABit = 8;
constexpr int kLeastKbps = 300;
constexpr int kMostKbps = 20'000;
constexpr int kAssumedWidth = 1280;
constexpr int kAssumedHeight = 720;
constexpr int kAssumedRate = 25;
constexpr int kHighestRate = 120;

// Only the decoders that are named here ever see strangers' media.
constexpr codec kCodecs[] = {
    {media_kind::kVideo, "h264", "video/x-h264", kAvc, kDecodeH264, storage::kMp4, "H264"},
    {media_kind::kVideo, "hevc", "video/x-h265", kHvc, "avdec_h265", storage::kMp4, "H265"},
    {media_kind::kVideo, "av1", "video/x-av1", kObu, "av1dec", storage::kMp4, "AV1"},
    {media_kind::kVideo, "vp8", "video/x-vp8", "identity", "vp8dec", storage::kWebm, "VP8"},
    {media_kind::kVideo, "vp9", "video/x-vp9", "vp9parse", "vp9dec", storage::kWebm, "VP9"},
    {media_kind::kVideo, "mpeg4", "video/mpeg,mpegversion=(int)4,systemstream=false",
     "mpeg4videoparse", "avdec_mpeg4", storage::kAsH264, nullptr},
    {media_kind::kVideo, "mpeg2", "video/mpeg,mpegversion=(int){1,2},systemstream=false",
     "mpegvideoparse", "avdec_mpeg2video", storage::kAsH264, nullptr},
    {media_kind::kVideo, "mjpeg", "image/jpeg", "jpegparse", "jpegdec", storage::kAsH264, nullptr},
    {media_kind::kVideo, "theora", "video/x-theora", "identity", "theoradec", storage::kAsH264,
     nullptr},
    {media_kind::kAudio, "opus", "audio/x-opus", "opusparse", "opusdec", storage::kSound, "OPUS"},
    {media_kind::kAudio, "aac", "audio/mpeg,mpegversion=(int){2,4}", "aacparse", "avdec_aac",
     storage::kSound, nullptr},
    {media_kind::kAudio, "mp3", "audio/mpeg,mpegversion=(int)1", "mpegaudioparse", "avdec_mp3",
     storage::kSound, nullptr},
    {media_kind::kAudio, "vorbis", "audio/x-vorbis", "vorbisparse", "vorbisdec", storage::kSound,
     nullptr},
    {media_kind::kAudio, "flac", "audio/x-flac", "flacparse", "flacdec", storage::kSound, nullptr},
    {media_kind::kAudio, "pcmu", "audio/x-mulaw", "identity", "mulawdec", storage::kSound, "PCMU"},
    {media_kind::kAudio, "pcma", "audio/x-alaw", "identity", "alawdec", storage::kSound, "PCMA"},
    {media_kind::kAudio, "pcm", "audio/x-raw", "identity", "identity", storage::kSound, nullptr},
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
      {"opusenc", "no sound can be recorded beside VP8 and VP9", "gstreamer1.0-plugins-base"},
      {"decodebin", "no media file can be played as a user", "gstreamer1.0-plugins-base"},
      {"qtdemux", "no MP4 file can be played as a user", "gstreamer1.0-plugins-good"},
      {"matroskademux", "no Matroska or WebM file can be played as a user",
       "gstreamer1.0-plugins-good"},
      {"h264parse", "H.264 can't be recorded", "gstreamer1.0-plugins-bad"},
      {"h265parse", "HEVC can't be recorded", "gstreamer1.0-plugins-bad"},
      {"h265timestamper", "HEVC can't be recorded", "gstreamer1.0-plugins-bad"},
      {"av1parse", "AV1 can't be recorded", "gstreamer1.0-plugins-bad"},
      {"vp9parse", "VP9 can't be recorded", "gstreamer1.0-plugins-bad"},
      {"avdec_h264", "H.264 can't be mixed, captured or decoded", "gstreamer1.0-libav"},
      {"avdec_h265", "HEVC can't be mixed, captured or decoded", "gstreamer1.0-libav"},
      {"av1dec", "AV1 can't be mixed, captured or decoded", "gstreamer1.0-plugins-bad"},
      {"vp8dec", "VP8 can't be mixed, captured or decoded", "gstreamer1.0-plugins-good"},
      {"vp9dec", "VP9 can't be mixed, captured or decoded", "gstreamer1.0-plugins-good"},
      {"mpeg4videoparse", "MPEG-4 part 2 can't be recorded", "gstreamer1.0-plugins-bad"},
      {"avdec_mpeg4", "MPEG-4 part 2 can't be recorded", "gstreamer1.0-libav"},
      {"mpegvideoparse", "MPEG-2 can't be recorded", "gstreamer1.0-plugins-bad"},
      {"avdec_mpeg2video", "MPEG-2 can't be recorded", "gstreamer1.0-libav"},
      {"jpegparse", "Motion JPEG can't be recorded", "gstreamer1.0-plugins-bad"},
      {"jpegdec", "Motion JPEG can't be recorded, JPEG can't be shown in the mix",
       "gstreamer1.0-plugins-good"},
      {"theoradec", "Theora can't be recorded", "gstreamer1.0-plugins-base"},
      {"opusparse", "Opus can't be recorded", "gstreamer1.0-plugins-bad"},
      {"opusdec", "Opus can't be recorded", "gstreamer1.0-plugins-base"},
      {"aacparse", "AAC can't be recorded", "gstreamer1.0-plugins-good"},
      {"avdec_aac", "AAC can't be recorded", "gstreamer1.0-libav"},
      {"mpegaudioparse", "MP3 can't be recorded", "gstreamer1.0-plugins-good"},
      {"avdec_mp3", "MP3 can't be recorded", "gstreamer1.0-libav"},
      {"vorbisdec", "Vorbis can't be recorded", "gstreamer1.0-plugins-base"},
      {"flacdec", "FLAC can't be recorded", "gstreamer1.0-plugins-good"},
      {"mulawdec", "PCMU can't be recorded", "gstreamer1.0-plugins-good"},
      {"alawdec", "PCMA can't be recorded", "gstreamer1.0-plugins-good"},
      {"compositor", "pictures can't be mixed", "gstreamer1.0-plugins-base"},
      {"videoflip", "pictures can't be mixed", "gstreamer1.0-plugins-good"},
      {"pngdec", "PNG can't be shown in the mix", "gstreamer1.0-plugins-good"},
      {"jpegenc", "no pictures can be captured", "gstreamer1.0-plugins-good"},
      {"deinterlace", "pictures can't be mixed, captured or decoded", "gstreamer1.0-plugins-good"},
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

std::string as_h264(const codec& c, const GstCaps* caps) {
  const GstStructure* const fields = gst_caps_get_structure(caps, 0);
  int width = kAssumedWidth;
  int height = kAssumedHeight;
  int pictures = kAssumedRate;
  int seconds = 1;
  gst_structure_get_int(fields, "width", &width);
  gst_structure_get_int(fields, "height", &height);
  gst_structure_get_fraction(fields, "framerate", &pictures, &seconds);
  // Unknown, or of a sender whose rate varies.
  if (pictures <= 0 || seconds <= 0 || pictures / seconds > kHighestRate) {
    pictures = kAssumedRate;
    seconds = 1;
  }
  const double rate = static_cast<double>(pictures) / seconds;
  const double kbps =
      std::clamp<double>(rate * width * height / kPixelsABit / 1000, kLeastKbps, kMostKbps);
  const std::string encoder = h264_encoder(
      {static_cast<int>(kbps), std::max(static_cast<int>(rate * 2), 1), true, "veryfast"});
  if (encoder.empty()) return "";
  return std::string(c.parse) + " ! " + c.decode +
         " ! deinterlace fields=top ! videoconvert ! video/x-raw,format=I420 ! " + encoder;
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
