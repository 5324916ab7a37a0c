// SPDX-License-Identifier: Apache-2.0
#include "core_service/engine/event_port.h"

#include <tuple>
#include <utility>

#include "IZeltaRecordingEngine.h"
#include "base/clocks.h"
#include "protocol/ipc_protocol.h"
#include "zelta_revision.h"

namespace zelta::core_service {
namespace {

using namespace linuxsdk;
using namespace protocol;

template <class Packet, class... Values>
Packet make(Values&&... values) {
  Packet packet;
  Packet::fields(packet) = std::make_tuple(std::forward<Values>(values)...);
  return packet;
}

}  // namespace

void event_port::hello() {
  link_.send(make<hello_packet>(kProtocolVersion, std::string("ZeltaCoreService " ZELTA_REVISION)));
}

void event_port::joined(uint32_t uid, const std::string& channel_id) {
  joined_ms_ = base::tick_ms();
  link_.send(make<join_channel_success_packet>(uid, channel_id));
}

void event_port::not_joined() {
  link_.send(make<recorder_error_packet>(int32_t{ERR_FAILED}, uint32_t{STAT_ERR_ZRS_JOIN_CHANNEL}));
}

void event_port::user_in(uint32_t uid, const std::string& folder) {
  link_.send(make<user_joined_packet>(uid, folder));
}

void event_port::user_out(uint32_t uid) {
  link_.send(make<user_dropped_packet>(uid));
}

void event_port::first_video(uint32_t uid, int width, int height) {
  link_.send(make<first_video_decoded_packet>(uid, width, height, elapsed_ms()));
}

void event_port::first_sound(uint32_t uid) {
  link_.send(make<first_audio_frame_packet>(uid, elapsed_ms()));
}

void event_port::receiving(bool sound, bool video) {
  if (sound == receives_sound_ && video == receives_video_) return;
  receives_sound_ = sound;
  receives_video_ = video;
  link_.send(make<receiving_stream_status_packet>(int32_t{sound}, int32_t{video}));
}

void event_port::volumes(std::vector<uint32_t> uids, std::vector<uint32_t> volumes) {
  link_.send(make<audio_volume_indication_packet>(std::move(uids), std::move(volumes)));
}

void event_port::active_speaker(uint32_t uid) {
  link_.send(make<active_speaker_packet>(uid));
}

void event_port::not_recorded() {
  link_.send(
      make<recorder_error_packet>(int32_t{ERR_INVALID_ARGUMENT}, uint32_t{STAT_ERR_FROM_ENGINE}));
}

void event_port::failed() {
  link_.send(make<recorder_error_packet>(int32_t{ERR_FAILED}, uint32_t{STAT_ERR_FROM_ENGINE}));
}

void event_port::interrupted() {
  link_.send(connection_interrupted_packet());
}

void event_port::channel_lost() {
  link_.send(connection_lost_packet());
}

void event_port::left(uint32_t reason) {
  link_.send(make<recorder_leave_packet>(reason));
}

int event_port::elapsed_ms() const {
  return static_cast<int>(base::tick_ms() - joined_ms_);
}

}  // namespace zelta::core_service
