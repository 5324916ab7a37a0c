// SPDX-License-Identifier: Apache-2.0
// Packet decoder of the engine's side: turns what the recorder sends into on_* calls.
//
// A packet that lacks fields, has bytes left over, or holds what can't be (fewer volumes than uids,
// planes outside their picture) is counted as an error, logged once a second at most, and skipped;
// an unknown uri is counted and skipped. Everything runs on the thread that delivers packets.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "base/router.h"
#include "protocol/ipc_protocol.h"

namespace zelta::protocol {

class ProtocolHandler : public base::router_listener {
 public:
  // Packets received since the last clean().
  struct PacketStats {
    uint32_t totalPackets = 0;
    uint32_t pcmPackets = 0;       // PCM frames delivered
    uint32_t pcmTotalPackets = 0;  // PCM frames received
    uint32_t aacPackets = 0;
    uint32_t yuvPackets = 0;
    uint32_t h264Packets = 0;
    uint32_t yuvF2Packets = 0;
    uint32_t h264F2Packets = 0;
    uint32_t jpgPackets = 0;
    uint32_t errPackets = 0;    // could not be decoded
    uint32_t otherPackets = 0;  // events and unknown uris

    PacketStats() = default;
    void clean() { *this = PacketStats(); }
  };

  bool on_receive_packet(base::unpacker& u, uint16_t uri) override;
  // For a packet that is an object already: no bytes to count or refuse.
  bool on_receive_packet(const base::packet& p, uint16_t uri) override;
  bool on_error(int error) override = 0;
  virtual ~ProtocolHandler() = default;

  // References are valid during the call only; a frame's payload is `data`, in reused storage.
  virtual void on_user_joined(uint32_t uid, const std::string& info) = 0;
  virtual void on_user_dropped(uint32_t uid) = 0;
  virtual void on_active_speaker(uint32_t uid) = 0;
  virtual void on_audio_volume_indication(const std::vector<unsigned int>& uids,
                                          const std::vector<unsigned int>& volumes) = 0;
  virtual void on_audio_frame(const pcm_frame& frame) = 0;
  virtual void on_audio_frame(const aac_frame& frame) = 0;
  virtual void on_video_frame(const yuv_frame& frame) = 0;
  virtual void on_video_frame(const h264_frame& frame) = 0;
  virtual void on_video_frame(const yuv_frame2& frame) = 0;
  virtual void on_video_frame(const h264_frame2& frame) = 0;
  virtual void on_video_frame(const jpg_frame& frame) = 0;
  virtual void on_recorder_error(int32_t error, uint32_t stat_code) = 0;
  virtual void on_leave(uint32_t reason) = 0;
  virtual void on_set_user_background(uint32_t uid, const std::string& img_path) = 0;
  virtual void on_join_channel_success(uint32_t uid, const char* channel_id) = 0;
  virtual void on_first_video_decoded(uint32_t uid, int width, int height, int elapsed) = 0;
  virtual void on_first_audio_frame(uint32_t uid, int elapsed) = 0;
  virtual void on_receiving_stream_status_changed(int audio, int video) = 0;
  virtual void on_connection_interrupted() = 0;
  virtual void on_connection_lost() = 0;

 protected:
  ProtocolHandler() = default;

  // Folder of every log line of the engine; empty until the recording folder is known.
  std::string logdir_;
  PacketStats stats_;

 private:
  // Reads one kind of packet and delivers it; false when it was refused.
  using decode_fn = bool (ProtocolHandler::*)(base::unpacker&);
  using deliver_fn = void (ProtocolHandler::*)(const base::packet&);
  struct route {
    uint16_t uri;
    decode_fn decode;
    deliver_fn deliver;
    // Counts a packet that was delivered.
    uint32_t PacketStats::*counter;
  };
  template <class... Events, class... Frames>
  static const route* find_route(uint16_t uri, packet_list<Events...>, packet_list<Frames...>);
  static const route* find_route(uint16_t uri);

  template <class Event>
  bool decode_event(base::unpacker& u);
  template <class Frame>
  bool decode_frame(base::unpacker& u);
  template <class Packet>
  void deliver_as(const base::packet& p);

  void deliver(const hello_packet& p);
  void deliver(const join_channel_success_packet& p);
  void deliver(const user_joined_packet& p);
  void deliver(const user_dropped_packet& p);
  void deliver(const active_speaker_packet& p);
  void deliver(const audio_volume_indication_packet& p);
  void deliver(const recorder_error_packet& p);
  void deliver(const recorder_leave_packet& p);
  void deliver(const first_video_decoded_packet& p);
  void deliver(const first_audio_frame_packet& p);
  void deliver(const receiving_stream_status_packet& p);
  void deliver(const connection_interrupted_packet& p);
  void deliver(const connection_lost_packet& p);
  void deliver(const user_background_packet& p);
  void deliver(const pcm_frame& p) { on_audio_frame(p); }
  void deliver(const aac_frame& p) { on_audio_frame(p); }
  void deliver(const yuv_frame& p) { on_video_frame(p); }
  void deliver(const h264_frame& p) { on_video_frame(p); }
  void deliver(const yuv_frame2& p) { on_video_frame(p); }
  void deliver(const h264_frame2& p) { on_video_frame(p); }
  void deliver(const jpg_frame& p) { on_video_frame(p); }

  void log_bad_packet(uint16_t uri);

  // One object a kind, so that the storage of its payload is used again for the next frame.
  std::tuple<pcm_frame, aac_frame, yuv_frame, h264_frame, yuv_frame2, h264_frame2, jpg_frame>
      frames_;
  // Of the last "bad packet" line, in milliseconds of the monotonic clock.
  int64_t bad_logged_ms_ = 0;
  uint32_t bad_since_logged_ = 0;
};

}  // namespace zelta::protocol
