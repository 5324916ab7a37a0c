// SPDX-License-Identifier: Apache-2.0
#include "c_interface/event_translator.h"

#include <cstddef>

#include "c_interface/event_parts.h"

namespace zelta::c_interface {

using namespace recording;

namespace {

// Arrays of the one are handed out as arrays of the other.
static_assert(sizeof(zelta_volume) == sizeof(AudioVolumeInfo) &&
              offsetof(zelta_volume, volume) == offsetof(AudioVolumeInfo, volume));

// Numbers of the one header are passed on as those of the other.
template <class Ours, class Engines>
constexpr bool same(Ours ours, Engines engines) {
  return static_cast<int>(ours) == static_cast<int>(engines);
}
static_assert(same(ZELTA_SESSION_FAILED, ERR_FAILED) &&
              same(ZELTA_SESSION_USER_FAILED, ERR_INVALID_ARGUMENT) &&
              same(ZELTA_SESSION_RECORDER_GONE, ERR_INTERNAL_FAILED));
static_assert(same(ZELTA_STAT_MEDIA_ENGINE, STAT_ERR_FROM_ENGINE) &&
              same(ZELTA_STAT_JOIN, STAT_ERR_ZRS_JOIN_CHANNEL) &&
              same(ZELTA_STAT_PROCESS, STAT_ERR_CREATE_PROCESS) &&
              same(ZELTA_STAT_MIXED_VIDEO, STAT_ERR_MIXED_INVALID_VIDEO_PARAM) &&
              same(ZELTA_STAT_NOT_GIVEN, STAT_ERR_NULL_POINTER) &&
              same(ZELTA_STAT_PROXY, STAT_ERR_PROXY_SERVER_INVALID_PARAM) &&
              same(ZELTA_STAT_POLL_ERROR, STAT_POLL_ERR) &&
              same(ZELTA_STAT_POLL_HANG_UP, STAT_POLL_HANG_UP) &&
              same(ZELTA_STAT_POLL_INVALID, STAT_POLL_NVAL));
static_assert(same(ZELTA_WARNING_NO_AVAILABLE_CHANNEL, WARN_NO_AVAILABLE_CHANNEL) &&
              same(ZELTA_WARNING_LOOKUP_TIMEOUT, WARN_LOOKUP_CHANNEL_TIMEOUT) &&
              same(ZELTA_WARNING_LOOKUP_REJECTED, WARN_LOOKUP_CHANNEL_REJECTED) &&
              same(ZELTA_WARNING_OPEN_TIMEOUT, WARN_OPEN_CHANNEL_TIMEOUT) &&
              same(ZELTA_WARNING_OPEN_REJECTED, WARN_OPEN_CHANNEL_REJECTED) &&
              same(ZELTA_WARNING_RECOVERED, WARN_RECOVERY_CORE_SERVICE_FAILURE));
static_assert(same(ZELTA_LEAVE_SIGNAL, LEAVE_CODE_SIG) &&
              same(ZELTA_LEAVE_NO_USERS, LEAVE_CODE_NO_USERS) &&
              same(ZELTA_LEAVE_GUARD, LEAVE_CODE_TIMER_CATCH) &&
              same(ZELTA_LEAVE_APPLICATION, LEAVE_CODE_CLIENT_LEAVE));
static_assert(same(ZELTA_OFFLINE_QUIT, USER_OFFLINE_QUIT) &&
              same(ZELTA_OFFLINE_DROPPED, USER_OFFLINE_DROPPED) &&
              same(ZELTA_OFFLINE_BECOME_AUDIENCE, USER_OFFLINE_BECOME_AUDIENCE));

}  // namespace

void event_translator::onError(int error, STAT_CODE_TYPE stat_code) {
  zelta_event e = event_of(ZELTA_EVENT_ERROR, sizeof e.as.error);
  e.as.error.error = error;
  e.as.error.stat_code = stat_code;
  sink_.take(e);
}

void event_translator::onWarning(int warn) {
  zelta_event e = event_of(ZELTA_EVENT_WARNING, sizeof e.as.warning);
  e.as.warning.warning = warn;
  sink_.take(e);
}

void event_translator::onJoinChannelSuccess(const char* channelId, recording::uid_t uid) {
  zelta_event e = event_of(ZELTA_EVENT_JOINED, sizeof e.as.joined, uid);
  e.as.joined.channel_id = channelId != nullptr ? channelId : "";
  sink_.take(e);
}

void event_translator::onLeaveChannel(LEAVE_PATH_CODE code) {
  zelta_event e = event_of(ZELTA_EVENT_LEFT, sizeof e.as.left);
  e.as.left.reason = code;
  sink_.take(e);
}

void event_translator::onUserJoined(recording::uid_t uid, UserJoinInfos& infos) {
  zelta_event e = event_of(ZELTA_EVENT_USER_JOINED, sizeof e.as.user_joined, uid);
  e.as.user_joined.storage_dir = infos.storageDir != nullptr ? infos.storageDir : "";
  sink_.take(e);
}

void event_translator::onUserOffline(recording::uid_t uid, USER_OFFLINE_REASON_TYPE reason) {
  zelta_event e = event_of(ZELTA_EVENT_USER_OFFLINE, sizeof e.as.user_offline, uid);
  e.as.user_offline.reason = reason;
  sink_.take(e);
}

void event_translator::audioFrameReceived(unsigned int uid, const AudioFrame* frame) {
  zelta_event e = event_of(ZELTA_EVENT_AUDIO_FRAME, sizeof e.as.audio, uid);
  zelta_audio_frame& to = e.as.audio;
  if (frame->type == AUDIO_FRAME_AAC) {
    const AudioAacFrame& aac = *frame->frame.aac;
    to.format = ZELTA_AUDIO_AAC;
    to.time_ms = aac.frame_ms_;
    to.data = aac.aacBuf_;
    to.data_bytes = aac.aacBufSize_;
    to.channels = aac.channels_;
    to.bitrate = aac.bitrate_;
  } else {
    const AudioPcmFrame& pcm = *frame->frame.pcm;
    to.format = ZELTA_AUDIO_PCM;
    to.time_ms = pcm.frame_ms_;
    to.data = pcm.pcmBuf_;
    to.data_bytes = pcm.pcmBufSize_;
    to.channels = pcm.channels_;
    to.sample_rate = pcm.sample_rates_;
    to.sample_bits = pcm.sample_bits_;
    to.samples = pcm.samples_;
  }
  sink_.take(e);
}

void event_translator::videoFrameReceived(unsigned int uid, const VideoFrame* frame) {
  zelta_event e = event_of(ZELTA_EVENT_VIDEO_FRAME, sizeof e.as.video, uid);
  zelta_video_frame& to = e.as.video;
  to.rotation = frame->rotation_;
  const auto take = [&to](const auto& from, zelta_video_format format) {
    to.format = format;
    to.time_ms = from.frame_ms_;
    to.data = from.buf_;
    to.data_bytes = from.bufSize_;
  };
  if (frame->type == VIDEO_FRAME_H264) {
    take(*frame->frame.h264, ZELTA_VIDEO_H264);
    to.frame_number = frame->frame.h264->frame_num_;
  } else if (frame->type == VIDEO_FRAME_JPG) {
    take(*frame->frame.jpg, ZELTA_VIDEO_JPG);
  } else {
    const VideoYuvFrame& yuv = *frame->frame.yuv;
    take(yuv, ZELTA_VIDEO_YUV);
    to.width = yuv.width_;
    to.height = yuv.height_;
    to.planes[0] = yuv.ybuf_;
    to.planes[1] = yuv.ubuf_;
    to.planes[2] = yuv.vbuf_;
    to.strides[0] = yuv.ystride_;
    to.strides[1] = yuv.ustride_;
    to.strides[2] = yuv.vstride_;
  }
  sink_.take(e);
}

void event_translator::onActiveSpeaker(recording::uid_t uid) {
  sink_.take(event_of(ZELTA_EVENT_SPEAKER, 0, uid));
}

void event_translator::onAudioVolumeIndication(const AudioVolumeInfo* speakers,
                                               unsigned int speakerNum) {
  zelta_event e = event_of(ZELTA_EVENT_VOLUMES, sizeof e.as.volumes);
  e.as.volumes.speakers = reinterpret_cast<const zelta_volume*>(speakers);
  e.as.volumes.count = speakerNum;
  sink_.take(e);
}

void event_translator::onFirstRemoteVideoDecoded(recording::uid_t uid, int width, int height,
                                                 int elapsed) {
  zelta_event e = event_of(ZELTA_EVENT_FIRST_VIDEO, sizeof e.as.first_video, uid);
  e.as.first_video.width = width;
  e.as.first_video.height = height;
  e.as.first_video.elapsed_ms = elapsed;
  sink_.take(e);
}

void event_translator::onFirstRemoteAudioFrame(recording::uid_t uid, int elapsed) {
  zelta_event e = event_of(ZELTA_EVENT_FIRST_AUDIO, sizeof e.as.first_audio, uid);
  e.as.first_audio.elapsed_ms = elapsed;
  sink_.take(e);
}

void event_translator::onReceivingStreamStatusChanged(bool receivingAudio, bool receivingVideo) {
  zelta_event e = event_of(ZELTA_EVENT_RECEIVING, sizeof e.as.receiving);
  e.as.receiving.audio = receivingAudio ? 1 : 0;
  e.as.receiving.video = receivingVideo ? 1 : 0;
  sink_.take(e);
}

void event_translator::onConnectionLost() {
  sink_.take(event_of(ZELTA_EVENT_LOST, 0));
}

void event_translator::onConnectionInterrupted() {
  sink_.take(event_of(ZELTA_EVENT_INTERRUPTED, 0));
}

}  // namespace zelta::c_interface
