// SPDX-License-Identifier: Apache-2.0
#include "base/protocol/ProtocolHandler.h"

#include <algorithm>
#include <array>

#include "base/clocks.h"
#include "base/log.h"

namespace zelta::protocol {
namespace {

constexpr int64_t kBadLogIntervalMs = 1000;

using PacketStats = ProtocolHandler::PacketStats;

template <class Packet>
constexpr uint32_t PacketStats::*counter_of() {
  return &PacketStats::otherPackets;
}
template <>
constexpr uint32_t PacketStats::*counter_of<pcm_frame>() {
  return &PacketStats::pcmPackets;
}
template <>
constexpr uint32_t PacketStats::*counter_of<aac_frame>() {
  return &PacketStats::aacPackets;
}
template <>
constexpr uint32_t PacketStats::*counter_of<yuv_frame>() {
  return &PacketStats::yuvPackets;
}
template <>
constexpr uint32_t PacketStats::*counter_of<h264_frame>() {
  return &PacketStats::h264Packets;
}
template <>
constexpr uint32_t PacketStats::*counter_of<yuv_frame2>() {
  return &PacketStats::yuvF2Packets;
}
template <>
constexpr uint32_t PacketStats::*counter_of<h264_frame2>() {
  return &PacketStats::h264F2Packets;
}
template <>
constexpr uint32_t PacketStats::*counter_of<jpg_frame>() {
  return &PacketStats::jpgPackets;
}

// What the bytes may say but a packet can't mean.
template <class Packet>
bool plausible(const Packet&) {
  return true;
}

bool plausible(const audio_volume_indication_packet& p) {
  return p.volumes.empty() || p.volumes.size() >= p.uids.size();
}

// The application is handed plane pointers computed from these numbers; none may leave the payload.
// A picture without a payload has no planes to read.
template <class Yuv>
bool planes_fit(const Yuv& p) {
  const uint64_t y = uint64_t{p.ystride} * p.height;
  const uint64_t u = uint64_t{p.ustride} * p.height / 2;
  const uint64_t v = uint64_t{p.vstride} * p.height / 2;
  const uint32_t chroma_width = p.width / 2U;
  return p.data.empty() || (p.ystride >= p.width && p.ustride >= chroma_width &&
                            p.vstride >= chroma_width && y + u + v <= p.data.size());
}
bool plausible(const yuv_frame& p) {
  return planes_fit(p);
}
bool plausible(const yuv_frame2& p) {
  return planes_fit(p);
}

}  // namespace

template <class Event>
bool ProtocolHandler::decode_event(base::unpacker& u) {
  Event event;
  if (!decode(u, event) || !plausible(event)) return false;
  deliver(event);
  return true;
}

template <class Frame>
bool ProtocolHandler::decode_frame(base::unpacker& u) {
  Frame& frame = std::get<Frame>(frames_);
  if (!decode(u, frame) || !plausible(frame)) return false;
  deliver(frame);
  return true;
}

template <class Packet>
void ProtocolHandler::deliver_as(const base::packet& p) {
  deliver(static_cast<const Packet&>(p));
}

template <class... Events, class... Frames>
const ProtocolHandler::route* ProtocolHandler::find_route(uint16_t uri, packet_list<Events...>,
                                                          packet_list<Frames...>) {
  static constexpr std::array<route, sizeof...(Events) + sizeof...(Frames)> kRoutes{
      {{Events::kUri, &ProtocolHandler::decode_event<Events>, &ProtocolHandler::deliver_as<Events>,
        counter_of<Events>()}...,
       {Frames::kUri, &ProtocolHandler::decode_frame<Frames>, &ProtocolHandler::deliver_as<Frames>,
        counter_of<Frames>()}...}};
  // The lists stand in the order of their uris.
  const auto* const found =
      std::lower_bound(kRoutes.begin(), kRoutes.end(), uri,
                       [](const route& entry, uint16_t wanted) { return entry.uri < wanted; });
  return found != kRoutes.end() && found->uri == uri ? found : nullptr;
}

const ProtocolHandler::route* ProtocolHandler::find_route(uint16_t uri) {
  return find_route(uri, event_packets{}, frame_packets{});
}

bool ProtocolHandler::on_receive_packet(base::unpacker& u, uint16_t uri) {
  ++stats_.totalPackets;
  if (uri == pcm_frame::kUri) ++stats_.pcmTotalPackets;
  const route* const known = find_route(uri);
  if (known == nullptr) return ++stats_.otherPackets, true;
  if ((this->*known->decode)(u)) return ++(stats_.*known->counter), true;
  ++stats_.errPackets;
  log_bad_packet(uri);
  return false;
}

bool ProtocolHandler::on_receive_packet(const base::packet& p, uint16_t uri) {
  ++stats_.totalPackets;
  if (uri == pcm_frame::kUri) ++stats_.pcmTotalPackets;
  const route* const known = find_route(uri);
  if (known == nullptr) return ++stats_.otherPackets, true;
  (this->*known->deliver)(p);
  ++(stats_.*known->counter);
  return true;
}

void ProtocolHandler::log_bad_packet(uint16_t uri) {
  ++bad_since_logged_;
  const int64_t now = base::tick_ms();
  if (bad_logged_ms_ != 0 && now - bad_logged_ms_ < kBadLogIntervalMs) return;
  base::log_dir(logdir_.c_str(), base::WARN_LOG, base::ZELTA_LOG_MODULE_IPC,
                "skipped %u packets of the recorder that make no sense, the last with uri %d",
                bad_since_logged_, uri);
  bad_logged_ms_ = now;
  bad_since_logged_ = 0;
}

void ProtocolHandler::deliver(const hello_packet& p) {
  const bool known = p.version == kProtocolVersion;
  base::log_dir(logdir_.c_str(), known ? base::NOTICE_LOG : base::ERROR_LOG,
                base::ZELTA_LOG_MODULE_IPC, "recorder says hello: %s, protocol %u%s",
                p.software.c_str(), p.version,
                known ? "" : ", which is not ours: engine and recorder are of different releases");
}

void ProtocolHandler::deliver(const join_channel_success_packet& p) {
  on_join_channel_success(p.uid, p.channel_id.c_str());
}
void ProtocolHandler::deliver(const user_joined_packet& p) {
  on_user_joined(p.uid, p.info);
}
void ProtocolHandler::deliver(const user_dropped_packet& p) {
  on_user_dropped(p.uid);
}
void ProtocolHandler::deliver(const active_speaker_packet& p) {
  on_active_speaker(p.uid);
}
void ProtocolHandler::deliver(const audio_volume_indication_packet& p) {
  on_audio_volume_indication(p.uids, p.volumes);
}
void ProtocolHandler::deliver(const recorder_error_packet& p) {
  on_recorder_error(p.error, p.stat_code);
}
void ProtocolHandler::deliver(const recorder_leave_packet& p) {
  on_leave(p.reason);
}
void ProtocolHandler::deliver(const first_video_decoded_packet& p) {
  on_first_video_decoded(p.uid, p.width, p.height, p.elapsed);
}
void ProtocolHandler::deliver(const first_audio_frame_packet& p) {
  on_first_audio_frame(p.uid, p.elapsed);
}
void ProtocolHandler::deliver(const receiving_stream_status_packet& p) {
  on_receiving_stream_status_changed(p.audio, p.video);
}
void ProtocolHandler::deliver(const connection_interrupted_packet&) {
  on_connection_interrupted();
}
void ProtocolHandler::deliver(const connection_lost_packet&) {
  on_connection_lost();
}
void ProtocolHandler::deliver(const user_background_packet& p) {
  on_set_user_background(p.uid, p.img_path);
}

}  // namespace zelta::protocol
