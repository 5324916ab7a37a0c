// SPDX-License-Identifier: Apache-2.0
// Every packet between the engine and the recorder.
//
// A packet states its fields once, in wire order, in `fields`; the list writes, reads and tells
// where a frame's payload stands, so the directions can't drift apart. How integers, strings and
// vectors are written is in base/packer.h; docs/protocol.md has the whole picture.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "base/packet.h"

namespace zelta::protocol {

// Raised whenever a packet's bytes change their meaning. The recorder says its own in hello_packet.
constexpr uint32_t kProtocolVersion = 1;

// Longest packet on the pipe, length prefix included. A longer one means that the stream is out of
// step.
constexpr uint32_t kMaxPacketBytes = 64U << 20;
// A length prefix and a uri.
constexpr uint32_t kMinPacketBytes = 6;

// One kind of packet. `Derived::fields(self)` gives a std::tie of the members in wire order, of
// const members when `self` is const.
template <class Derived, uint16_t Uri>
class wire_packet : public base::packet {
 public:
  static constexpr uint16_t kUri = Uri;

  explicit wire_packet(uint16_t server = 0) : packet(server, Uri) {}

  void unmarshall(base::unpacker& u) override {
    u >> uri;
    std::apply([&u](auto&... field) { ((u >> field), ...); },
               Derived::fields(static_cast<Derived&>(*this)));
  }
  void marshall(base::packer& p) const override {
    p << uri;
    std::apply([&p](const auto&... field) { ((p << field), ...); },
               Derived::fields(static_cast<const Derived&>(*this)));
  }
};

// Reads a whole body; false when a field is missing or bytes are left over.
template <class Packet>
[[nodiscard]] bool decode(base::unpacker& u, Packet& packet) {
  packet.unmarshall(u);
  return u.complete();
}

#define ZELTA_PACKET(name, uri_number) class name : public wire_packet<name, uri_number>

#define ZELTA_FIELDS(...)                        \
  template <class Self>                          \
  static auto fields([[maybe_unused]] Self& s) { \
    return std::tie(__VA_ARGS__);                \
  }                                              \
  using wire_packet::wire_packet

// ---- Engine to recorder --------------------------------------------------------------------

// Ends the recording; the recorder completes its files.
ZELTA_PACKET(leave_packet, 1) {
 public:
  uint32_t reason = 0;
  ZELTA_FIELDS(s.reason);
};

// Free-form parameters, a JSON text.
ZELTA_PACKET(parameters_packet, 13) {
 public:
  std::string parameters;
  ZELTA_FIELDS(s.parameters);
};

// A layout as protocol/mixing_layout.h encodes it.
ZELTA_PACKET(video_mixing_layout_packet, 14) {
 public:
  std::vector<uint8_t> data;
  ZELTA_FIELDS(s.data);
};

ZELTA_PACKET(user_join_confirm_packet, 15) {
 public:
  uint32_t uid = 0;
  ZELTA_FIELDS(s.uid);
};

ZELTA_PACKET(user_drop_confirm_packet, 16) {
 public:
  uint32_t uid = 0;
  ZELTA_FIELDS(s.uid);
};

// Frames that reached the application since each user joined; entry i of every vector belongs to
// entry i of `uids`.
ZELTA_PACKET(media_frame_confirm_packet, 17) {
 public:
  std::vector<uint32_t> uids;
  std::vector<uint32_t> pcmCnts;
  std::vector<uint32_t> yuvCnts;
  std::vector<uint32_t> h264Cnts;
  std::vector<uint32_t> jpgCnts;
  ZELTA_FIELDS(s.uids, s.pcmCnts, s.yuvCnts, s.h264Cnts, s.jpgCnts);
};

ZELTA_PACKET(audio_frame_confirm_packet, 18) {
 public:
  std::vector<uint32_t> uids;
  std::vector<uint32_t> pcmCnts;
  ZELTA_FIELDS(s.uids, s.pcmCnts);
};

ZELTA_PACKET(video_frame_confirm_packet, 19) {
 public:
  std::vector<uint32_t> uids;
  std::vector<uint32_t> yuvCnts;
  std::vector<uint32_t> h264Cnts;
  std::vector<uint32_t> jpgCnts;
  ZELTA_FIELDS(s.uids, s.yuvCnts, s.h264Cnts, s.jpgCnts);
};

ZELTA_PACKET(start_service_packet, 20) {
 public:
  uint32_t uid = 0;
  ZELTA_FIELDS(s.uid);
};

ZELTA_PACKET(stop_service_packet, 21) {
 public:
  uint32_t uid = 0;
  ZELTA_FIELDS(s.uid);
};

ZELTA_PACKET(set_user_background_packet, 23) {
 public:
  uint32_t uid = 0;
  std::string img_path;
  ZELTA_FIELDS(s.uid, s.img_path);
};

ZELTA_PACKET(set_log_level_packet, 24) {
 public:
  uint32_t level = 0;
  ZELTA_FIELDS(s.level);
};

ZELTA_PACKET(log_enable_module_packet, 26) {
 public:
  uint32_t module = 0;
  int32_t enable = 0;
  ZELTA_FIELDS(s.module, s.enable);
};

// ---- Recorder to engine: events ------------------------------------------------------------

// The first packet of every recorder.
ZELTA_PACKET(hello_packet, 100) {
 public:
  uint32_t version = kProtocolVersion;
  std::string software;
  ZELTA_FIELDS(s.version, s.software);
};

ZELTA_PACKET(join_channel_success_packet, 101) {
 public:
  uint32_t uid = 0;
  std::string channel_id;
  ZELTA_FIELDS(s.uid, s.channel_id);
};

// `info` is the recording folder.
ZELTA_PACKET(user_joined_packet, 102) {
 public:
  uint32_t uid = 0;
  std::string info;
  ZELTA_FIELDS(s.uid, s.info);
};

ZELTA_PACKET(user_dropped_packet, 103) {
 public:
  uint32_t uid = 0;
  ZELTA_FIELDS(s.uid);
};

ZELTA_PACKET(active_speaker_packet, 104) {
 public:
  uint32_t uid = 0;
  ZELTA_FIELDS(s.uid);
};

ZELTA_PACKET(audio_volume_indication_packet, 105) {
 public:
  std::vector<uint32_t> uids;
  std::vector<uint32_t> volumes;
  ZELTA_FIELDS(s.uids, s.volumes);
};

ZELTA_PACKET(recorder_error_packet, 106) {
 public:
  int32_t error = 0;
  uint32_t stat_code = 0;
  ZELTA_FIELDS(s.error, s.stat_code);
};

// The recorder left; `reason` holds LEAVE_PATH_CODE bits. Its files are complete.
ZELTA_PACKET(recorder_leave_packet, 107) {
 public:
  uint32_t reason = 0;
  ZELTA_FIELDS(s.reason);
};

// `elapsed` is in milliseconds since the channel was joined.
ZELTA_PACKET(first_video_decoded_packet, 108) {
 public:
  uint32_t uid = 0;
  int32_t width = 0;
  int32_t height = 0;
  int32_t elapsed = 0;
  ZELTA_FIELDS(s.uid, s.width, s.height, s.elapsed);
};

ZELTA_PACKET(first_audio_frame_packet, 109) {
 public:
  uint32_t uid = 0;
  int32_t elapsed = 0;
  ZELTA_FIELDS(s.uid, s.elapsed);
};

// Whether any user's audio, and any user's video, is coming in: 1 or 0.
ZELTA_PACKET(receiving_stream_status_packet, 110) {
 public:
  int32_t audio = 0;
  int32_t video = 0;
  ZELTA_FIELDS(s.audio, s.video);
};

ZELTA_PACKET(connection_interrupted_packet, 111) {
 public:
  ZELTA_FIELDS();
};

ZELTA_PACKET(connection_lost_packet, 112) {
 public:
  ZELTA_FIELDS();
};

ZELTA_PACKET(user_background_packet, 113) {
 public:
  uint32_t uid = 0;
  std::string img_path;
  ZELTA_FIELDS(s.uid, s.img_path);
};

// ---- Recorder to engine: media frames ------------------------------------------------------
//
// `frame_ms` is the media time in milliseconds, `data` the payload, `rotation` degrees clockwise,
// strides are bytes a row. `avsync_type` is the recorder's way of lip sync (base::avsyncType).

// Interleaved samples of `bits` bits.
ZELTA_PACKET(pcm_frame, 131) {
 public:
  uint32_t uid = 0;
  uint64_t frame_ms = 0;
  uint8_t channels = 0;
  uint8_t bits = 0;
  uint32_t sample_rates = 0;
  std::string data;
  int32_t avsync_type = 0;
  ZELTA_FIELDS(s.uid, s.frame_ms, s.channels, s.bits, s.sample_rates, s.data, s.avsync_type);
};

// One ADTS frame; `bitrate` in bits a second.
ZELTA_PACKET(aac_frame, 132) {
 public:
  uint32_t uid = 0;
  uint64_t frame_ms = 0;
  std::string data;
  int32_t avsync_type = 0;
  uint32_t channels = 0;
  uint32_t bitrate = 0;
  ZELTA_FIELDS(s.uid, s.frame_ms, s.data, s.avsync_type, s.channels, s.bitrate);
};

// I420: the planes stand back to back, the chroma planes with half the rows.
ZELTA_PACKET(yuv_frame, 133) {
 public:
  uint32_t uid = 0;
  uint64_t frame_ms = 0;
  uint16_t width = 0;
  uint16_t height = 0;
  uint16_t ystride = 0;
  uint16_t ustride = 0;
  uint16_t vstride = 0;
  std::string data;
  ZELTA_FIELDS(s.uid, s.frame_ms, s.width, s.height, s.ystride, s.ustride, s.vstride, s.data);
};

// One access unit in byte-stream format.
ZELTA_PACKET(h264_frame, 134) {
 public:
  uint32_t uid = 0;
  uint64_t frame_ms = 0;
  uint32_t frame_num = 0;
  std::string data;
  ZELTA_FIELDS(s.uid, s.frame_ms, s.frame_num, s.data);
};

ZELTA_PACKET(yuv_frame2, 135) {
 public:
  uint16_t rotation = 0;
  uint32_t uid = 0;
  uint64_t frame_ms = 0;
  uint16_t width = 0;
  uint16_t height = 0;
  uint16_t ystride = 0;
  uint16_t ustride = 0;
  uint16_t vstride = 0;
  std::string data;
  int32_t avsync_type = 0;
  ZELTA_FIELDS(s.rotation, s.uid, s.frame_ms, s.width, s.height, s.ystride, s.ustride, s.vstride,
               s.data, s.avsync_type);
};

ZELTA_PACKET(h264_frame2, 136) {
 public:
  uint16_t rotation = 0;
  uint32_t uid = 0;
  uint64_t frame_ms = 0;
  uint32_t frame_num = 0;
  std::string data;
  int32_t avsync_type = 0;
  ZELTA_FIELDS(s.rotation, s.uid, s.frame_ms, s.frame_num, s.data, s.avsync_type);
};

// One JPEG image.
ZELTA_PACKET(jpg_frame, 137) {
 public:
  uint16_t rotation = 0;
  uint32_t uid = 0;
  uint64_t frame_ms = 0;
  std::string data;
  ZELTA_FIELDS(s.rotation, s.uid, s.frame_ms, s.data);
};

#undef ZELTA_FIELDS
#undef ZELTA_PACKET

// ---- The packets of each direction, as lists ------------------------------------------------

template <class... Packets>
struct packet_list {};

using control_packets =
    packet_list<leave_packet, parameters_packet, video_mixing_layout_packet,
                user_join_confirm_packet, user_drop_confirm_packet, media_frame_confirm_packet,
                audio_frame_confirm_packet, video_frame_confirm_packet, start_service_packet,
                stop_service_packet, set_user_background_packet, set_log_level_packet,
                log_enable_module_packet>;

using event_packets =
    packet_list<hello_packet, join_channel_success_packet, user_joined_packet, user_dropped_packet,
                active_speaker_packet, audio_volume_indication_packet, recorder_error_packet,
                recorder_leave_packet, first_video_decoded_packet, first_audio_frame_packet,
                receiving_stream_status_packet, connection_interrupted_packet,
                connection_lost_packet, user_background_packet>;

using frame_packets =
    packet_list<pcm_frame, aac_frame, yuv_frame, h264_frame, yuv_frame2, h264_frame2, jpg_frame>;

namespace detail {

// Bytes of a frame's body in front of its payload: the uri, the fields before `data`, and the
// payload's own byte count.
template <class Frame, class... Fields>
constexpr size_t payload_position(std::tuple<Fields&...>*) {
  size_t position = sizeof(uint16_t) + sizeof(uint32_t);
  bool before = true;
  ((before = before && !std::is_same_v<Fields, std::string>,
    position += before ? sizeof(Fields) : 0),
   ...);
  return position;
}

template <class... Frames>
constexpr std::optional<size_t> payload_position_of(uint16_t uri, packet_list<Frames...>) {
  std::optional<size_t> position;
  ((uri == Frames::kUri
        ? void(position = payload_position<Frames>(
                   static_cast<decltype(Frames::fields(std::declval<Frames&>()))*>(nullptr)))
        : void()),
   ...);
  return position;
}

}  // namespace detail

// Where the payload of the frame `uri` starts in its body; none for other packets.
constexpr std::optional<size_t> frame_payload_position(uint16_t uri) {
  return detail::payload_position_of(uri, frame_packets{});
}

}  // namespace zelta::protocol
