// SPDX-License-Identifier: Apache-2.0
// The engine's callbacks as events. On the engine's thread.
#pragma once

#include "IZeltaRecordingEngine.h"
#include "zelta_recording.h"

namespace zelta::c_interface {

class event_sink {
 public:
  // `event` and what it points to are lent for the call.
  virtual void take(const zelta_event& event) = 0;

 protected:
  ~event_sink() = default;
};

class event_translator final : public recording::IRecordingEngineEventHandler {
 public:
  explicit event_translator(event_sink& sink) : sink_(sink) {}

  void onError(int error, recording::STAT_CODE_TYPE stat_code) override;
  void onWarning(int warn) override;
  void onJoinChannelSuccess(const char* channelId, recording::uid_t uid) override;
  void onLeaveChannel(recording::LEAVE_PATH_CODE code) override;
  void onUserJoined(recording::uid_t uid, recording::UserJoinInfos& infos) override;
  void onUserOffline(recording::uid_t uid, recording::USER_OFFLINE_REASON_TYPE reason) override;
  void audioFrameReceived(unsigned int uid, const recording::AudioFrame* frame) override;
  void videoFrameReceived(unsigned int uid, const recording::VideoFrame* frame) override;
  void onActiveSpeaker(recording::uid_t uid) override;
  void onAudioVolumeIndication(const recording::AudioVolumeInfo* speakers,
                               unsigned int speakerNum) override;
  void onFirstRemoteVideoDecoded(recording::uid_t uid, int width, int height, int elapsed) override;
  void onFirstRemoteAudioFrame(recording::uid_t uid, int elapsed) override;
  void onReceivingStreamStatusChanged(bool receivingAudio, bool receivingVideo) override;
  void onConnectionLost() override;
  void onConnectionInterrupted() override;

 private:
  event_sink& sink_;
};

}  // namespace zelta::c_interface
