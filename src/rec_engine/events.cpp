// SPDX-License-Identifier: Apache-2.0
// What the recorder reports, on its way to the application, and what is counted of it.
#include <tuple>
#include <vector>

#include "rec_engine/RecordingEngineImpl.h"
#include "rec_engine/engine_internals.h"

namespace zelta::recording {

namespace {

const uint8_t* bytes_of(const std::string& payload) {
  return reinterpret_cast<const uint8_t*>(payload.data());
}

uint32_t size_of(const std::string& payload) {
  return static_cast<uint32_t>(payload.size());
}

template <class Packet>
void add_pictures(Packet& p, const RecordingEngineImpl::mediaFrameCnt& counters) {
  p.yuvCnts.push_back(counters.yuvCnt);
  p.h264Cnts.push_back(counters.h264Cnt);
  p.jpgCnts.push_back(counters.jpgCnt);
}

}  // namespace

// ---- Events --------------------------------------------------------------------------------

void RecordingEngineImpl::on_user_joined(uint32_t uid, const std::string& info) {
  auto& counters = peers_[uid];
  // A user whom a new recorder reports again goes on with the old counts.
  if (!counters) counters = std::make_unique<mediaFrameCnt>();
  counters_[uid] = counters.get();
  if (m_handler != nullptr) {
    UserJoinInfos infos;
    infos.storageDir = info.c_str();
    m_handler->onUserJoined(uid, infos);
  }
  send<protocol::user_join_confirm_packet>([uid](auto& p) { p.uid = uid; });
}

void RecordingEngineImpl::on_user_dropped(uint32_t uid) {
  counters_.erase(uid);
  peers_.erase(uid);
  if (m_handler != nullptr) m_handler->onUserOffline(uid, USER_OFFLINE_QUIT);
  send<protocol::user_drop_confirm_packet>([uid](auto& p) { p.uid = uid; });
}

void RecordingEngineImpl::on_join_channel_success(uint32_t uid, const char* channel_id) {
  {
    const std::lock_guard<std::mutex> guard(recovery_.lock);
    recovery_.flag |= RECOVERY_FLAG_JOINED;
  }
  joined_ = true;
  if (m_handler != nullptr) m_handler->onJoinChannelSuccess(channel_id, uid);
}

void RecordingEngineImpl::on_recorder_error(int32_t error, uint32_t stat_code) {
  joined_ = false;
  isSessionActive_ = false;
  if (m_handler != nullptr) m_handler->onError(error, static_cast<STAT_CODE_TYPE>(stat_code));
}

void RecordingEngineImpl::on_active_speaker(uint32_t uid) {
  if (m_handler != nullptr) m_handler->onActiveSpeaker(uid);
}

void RecordingEngineImpl::on_audio_volume_indication(const std::vector<unsigned int>& uids,
                                                     const std::vector<unsigned int>& volumes) {
  if (uids.empty() || volumes.empty() || m_handler == nullptr) return;
  std::vector<AudioVolumeInfo> speakers(uids.size());
  for (size_t i = 0; i < uids.size(); ++i) {
    speakers[i].uid = uids[i];
    speakers[i].volume = volumes[i];
  }
  m_handler->onAudioVolumeIndication(speakers.data(), static_cast<unsigned int>(speakers.size()));
}

void RecordingEngineImpl::on_first_video_decoded(uint32_t uid, int width, int height, int elapsed) {
  if (m_handler != nullptr) m_handler->onFirstRemoteVideoDecoded(uid, width, height, elapsed);
}

void RecordingEngineImpl::on_first_audio_frame(uint32_t uid, int elapsed) {
  if (m_handler != nullptr) m_handler->onFirstRemoteAudioFrame(uid, elapsed);
}

void RecordingEngineImpl::on_receiving_stream_status_changed(int audio, int video) {
  if (m_handler != nullptr) m_handler->onReceivingStreamStatusChanged(audio != 0, video != 0);
}

void RecordingEngineImpl::on_connection_interrupted() {
  if (m_handler != nullptr) m_handler->onConnectionInterrupted();
}

void RecordingEngineImpl::on_connection_lost() {
  if (m_handler != nullptr) m_handler->onConnectionLost();
}

// Applications set backgrounds; that a recorder shows one is no news to them.
void RecordingEngineImpl::on_set_user_background(uint32_t /*uid*/,
                                                 const std::string& /*img_path*/) {}

// ---- Frames --------------------------------------------------------------------------------
//
// The public frames are locals whose pointers go into the packet's payload: nothing is copied. Only
// what current recorders send is counted: pcm_frame, jpg_frame and the "2" video frames.

RecordingEngineImpl::mediaFrameCnt* RecordingEngineImpl::counters_of(uint32_t uid) {
  const auto peer = counters_.find(uid);
  return peer != counters_.end() ? peer->second : nullptr;
}

void RecordingEngineImpl::on_audio_frame(const protocol::pcm_frame& packet) {
  // Ten milliseconds at 16 kHz, until the payload tells.
  constexpr uint_t kNominalSamples = 160;
  AudioPcmFrame pcm(packet.frame_ms, packet.sample_rates, kNominalSamples);
  pcm.channels_ = packet.channels;
  pcm.sample_bits_ = packet.bits;
  pcm.pcmBuf_ = bytes_of(packet.data);
  pcm.pcmBufSize_ = size_of(packet.data);
  // Samples are of 16 bits, and those of all channels are counted together.
  pcm.samples_ = static_cast<uint_t>(packet.data.size() >> 1);
  if (mediaFrameCnt* const counters = counters_of(packet.uid)) ++counters->pcmCnt;
  if (m_handler == nullptr) return;
  AudioFrame frame;
  frame.type = AUDIO_FRAME_RAW_PCM;
  frame.frame.pcm = &pcm;
  m_handler->audioFrameReceived(packet.uid, &frame);
}

void RecordingEngineImpl::on_audio_frame(const protocol::aac_frame& packet) {
  AudioAacFrame aac(packet.frame_ms);
  aac.aacBuf_ = bytes_of(packet.data);
  aac.aacBufSize_ = size_of(packet.data);
  aac.channels_ = packet.channels;
  aac.bitrate_ = packet.bitrate;
  if (m_handler == nullptr) return;
  AudioFrame frame;
  frame.type = AUDIO_FRAME_AAC;
  frame.frame.aac = &aac;
  m_handler->audioFrameReceived(packet.uid, &frame);
}

template <class Frame>
void RecordingEngineImpl::deliver_yuv(const Frame& packet, int rotation) {
  VideoYuvFrame yuv(packet.frame_ms, packet.width, packet.height, packet.ystride, packet.ustride,
                    packet.vstride);
  yuv.buf_ = bytes_of(packet.data);
  yuv.bufSize_ = size_of(packet.data);
  // The U plane has half the rows of the picture; where V starts doesn't depend on V's stride.
  yuv.ybuf_ = yuv.buf_;
  const uint_t y_bytes = yuv.ystride_ * yuv.height_;
  const uint_t u_bytes = (yuv.ustride_ * yuv.height_) >> 1;
  yuv.ubuf_ = yuv.ybuf_ + y_bytes;
  yuv.vbuf_ = yuv.ybuf_ + (y_bytes + u_bytes);
  if (m_handler == nullptr) return;
  VideoFrame frame;
  frame.type = VIDEO_FRAME_RAW_YUV;
  frame.frame.yuv = &yuv;
  frame.rotation_ = rotation;
  m_handler->videoFrameReceived(packet.uid, &frame);
}

template <class Frame>
void RecordingEngineImpl::deliver_h264(const Frame& packet, int rotation) {
  if (m_handler == nullptr) return;
  VideoH264Frame h264;
  h264.frame_ms_ = packet.frame_ms;
  h264.frame_num_ = packet.frame_num;
  h264.buf_ = bytes_of(packet.data);
  h264.bufSize_ = size_of(packet.data);
  VideoFrame frame;
  frame.type = VIDEO_FRAME_H264;
  frame.frame.h264 = &h264;
  frame.rotation_ = rotation;
  m_handler->videoFrameReceived(packet.uid, &frame);
}

void RecordingEngineImpl::on_video_frame(const protocol::yuv_frame& packet) {
  deliver_yuv(packet, 0);
}

void RecordingEngineImpl::on_video_frame(const protocol::h264_frame& packet) {
  deliver_h264(packet, 0);
}

void RecordingEngineImpl::on_video_frame(const protocol::yuv_frame2& packet) {
  if (mediaFrameCnt* const counters = counters_of(packet.uid)) ++counters->yuvCnt;
  deliver_yuv(packet, packet.rotation);
}

void RecordingEngineImpl::on_video_frame(const protocol::h264_frame2& packet) {
  if (mediaFrameCnt* const counters = counters_of(packet.uid)) ++counters->h264Cnt;
  deliver_h264(packet, packet.rotation);
}

void RecordingEngineImpl::on_video_frame(const protocol::jpg_frame& packet) {
  if (mediaFrameCnt* const counters = counters_of(packet.uid)) ++counters->jpgCnt;
  if (m_handler == nullptr) return;
  VideoJpgFrame jpg;
  jpg.frame_ms_ = packet.frame_ms;
  jpg.buf_ = bytes_of(packet.data);
  jpg.bufSize_ = size_of(packet.data);
  VideoFrame frame;
  frame.type = VIDEO_FRAME_JPG;
  frame.frame.jpg = &jpg;
  frame.rotation_ = packet.rotation;
  m_handler->videoFrameReceived(packet.uid, &frame);
}

// ---- Reports -------------------------------------------------------------------------------

void RecordingEngineImpl::report_counts() {
  const bool audio = config_.decodeAudio != AUDIO_FORMAT_DEFAULT_TYPE;
  const bool video = config_.decodeVideo != VIDEO_FORMAT_DEFAULT_TYPE;
  if (audio && video) {
    report_media_count();
  } else if (video) {
    report_video_count();
  } else if (audio) {
    report_audio_count();
  }
}

// `fill` gets the packet and a user's counters, once a user and in ascending order of uids.
template <class Packet, class Fill>
void RecordingEngineImpl::report(Fill fill) {
  if (peers_.empty()) return;
  send<Packet>([this, &fill](Packet& p) {
    std::apply([this](auto&... vectors) { (vectors.reserve(peers_.size()), ...); },
               Packet::fields(p));
    for (const auto& [uid, counters] : peers_) {
      p.uids.push_back(uid);
      fill(p, *counters);
    }
  });
}

void RecordingEngineImpl::report_media_count() {
  report<protocol::media_frame_confirm_packet>([](auto& p, const auto& counters) {
    p.pcmCnts.push_back(counters.pcmCnt);
    add_pictures(p, counters);
  });
}

void RecordingEngineImpl::report_video_count() {
  report<protocol::video_frame_confirm_packet>(
      [](auto& p, const auto& counters) { add_pictures(p, counters); });
}

void RecordingEngineImpl::report_audio_count() {
  report<protocol::audio_frame_confirm_packet>(
      [](auto& p, const auto& counters) { p.pcmCnts.push_back(counters.pcmCnt); });
}

}  // namespace zelta::recording
