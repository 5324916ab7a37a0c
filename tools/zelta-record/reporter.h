// SPDX-License-Identifier: Apache-2.0
// The engine's handler of zelta-record: shows what happens.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "IZeltaRecordingEngine.h"
#include "frame_files.h"

namespace zelta::record {

enum exit_status : int {
  kRecorded = 0,
  kRecorderError = 1,
  kUsage = 2,
  kRefused = 3,
  kRecorderLost = 4,
};

// Callbacks come on the engine thread, the rest is called on the main one.
class reporter : public recording::IRecordingEngineEventHandler {
 public:
  // `frames` may be null.
  reporter(bool json, std::string channel_id, std::unique_ptr<frame_files> frames);

  enum class state { kJoining, kRecording, kOver };
  // Waits until the state isn't `from` any more, until `limit` at most; returns the present one.
  state wait_change(state from, std::chrono::steady_clock::time_point limit);
  // Ends the recording from outside. Any thread.
  void stop() { change(state::kOver, kRecorded); }
  int status() const;
  // Redraws the progress line: on a terminal, or as a line of JSON.
  void show_progress();
  // Says what was recorded, from the manifests in `folder`.
  void show_files(const std::string& folder);

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
  struct field;
  void event(const char* name, std::initializer_list<field> fields);
  void print(const std::string& line);
  void change(state to, int status);
  void count_frame(size_t bytes);
  void clear_progress_locked();
  std::string recorded_bytes_locked() const;

  const bool json_;
  const bool terminal_;
  const std::unique_ptr<frame_files> frames_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  state state_ = state::kJoining;
  int status_ = kRecorded;
  bool user_failed_ = false;
  int64_t start_ms_;
  const std::string channel_id_;
  std::string folder_;
  int users_ = 0;
  uint64_t frame_count_ = 0;
  uint64_t frame_bytes_ = 0;
  // At the last progress line, for rates.
  int64_t shown_ms_ = 0;
  uint64_t shown_frames_ = 0;
  uint64_t shown_bytes_ = 0;
  bool progress_on_line_ = false;
};

}  // namespace zelta::record
