// SPDX-License-Identifier: Apache-2.0
// A handler that ignores everything; what a test wants to hear it overrides.
#pragma once

#include "IZeltaRecordingEngine.h"

namespace zelta::test {

class QuietHandler : public recording::IRecordingEngineEventHandler {
 public:
  void onError(int, recording::STAT_CODE_TYPE) override {}
  void onWarning(int) override {}
  void onJoinChannelSuccess(const char*, recording::uid_t) override {}
  void onLeaveChannel(recording::LEAVE_PATH_CODE) override {}
  void onUserJoined(recording::uid_t, recording::UserJoinInfos&) override {}
  void onUserOffline(recording::uid_t, recording::USER_OFFLINE_REASON_TYPE) override {}
  void audioFrameReceived(unsigned int, const recording::AudioFrame*) override {}
  void videoFrameReceived(unsigned int, const recording::VideoFrame*) override {}
  void onActiveSpeaker(recording::uid_t) override {}
  void onAudioVolumeIndication(const recording::AudioVolumeInfo*, unsigned int) override {}
  void onFirstRemoteVideoDecoded(recording::uid_t, int, int, int) override {}
  void onFirstRemoteAudioFrame(recording::uid_t, int) override {}
  void onReceivingStreamStatusChanged(bool, bool) override {}
  void onConnectionLost() override {}
  void onConnectionInterrupted() override {}
};

}  // namespace zelta::test
