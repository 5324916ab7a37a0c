// SPDX-License-Identifier: Apache-2.0
// The engine's handler of zelta-record: shows what happens, and remembers what the end depends on.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "IZeltaRecordingEngine.h"
#include "base/unique_fd.h"
#include "exit_status.h"
#include "frame_files.h"
#include "printer.h"

namespace zelta::record {

// Callbacks come on the engine thread; the rest may be called from any.
class reporter : public recording::IRecordingEngineEventHandler {
 public:
  // `frames` may be null. The printer is borrowed.
  reporter(printer& out, std::unique_ptr<frame_files> frames);

  enum class state { kJoining, kRecording, kOver };
  struct facts {
    reporter::state state = reporter::state::kJoining;
    exit_status status = kRecorded;
    int error = 0;  // of onError, when that was the end
    int stat_code = 0;
    int users = 0;            // present
    int user_errors = 0;      // media of one user that can't be recorded
    int restarts = 0;         // recorders that died
    bool media_came = false;  // from anybody
    uint64_t frames = 0;      // delivered
  };
  facts now() const;
  // Readable when the state has changed, until it is drained.
  int changes() const { return changes_.get(); }
  void drain();
  // Ends the recording from outside.
  void stop() { change(state::kOver, kRecorded); }
  // What could not be written of delivered frames. After the last callback.
  std::string frame_fault() const { return frames_ ? frames_->fault() : ""; }

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
  void change(state to, exit_status status);
  template <class Change>
  void note(Change made) {
    const std::lock_guard<std::mutex> guard(mutex_);
    made(facts_);
  }

  printer& out_;
  const std::unique_ptr<frame_files> frames_;
  const base::unique_fd changes_;
  mutable std::mutex mutex_;
  facts facts_;
};

}  // namespace zelta::record
