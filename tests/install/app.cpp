// SPDX-License-Identifier: Apache-2.0
// A program of somebody else's, against an installed tree: records half a second.
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include <IZeltaRecordingEngine.h>

using namespace zelta::recording;

class Handler : public IRecordingEngineEventHandler {
 public:
  bool wait_joined() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [this] { return joined_; });
  }
  void onJoinChannelSuccess(const char*, uid_t) override {
    const std::lock_guard<std::mutex> guard(mutex_);
    joined_ = true;
    changed_.notify_all();
  }
  void onError(int, STAT_CODE_TYPE) override {}
  void onWarning(int) override {}
  void onLeaveChannel(LEAVE_PATH_CODE) override {}
  void onUserJoined(uid_t, UserJoinInfos&) override {}
  void onUserOffline(uid_t, USER_OFFLINE_REASON_TYPE) override {}
  void audioFrameReceived(unsigned int, const AudioFrame*) override {}
  void videoFrameReceived(unsigned int, const VideoFrame*) override {}
  void onActiveSpeaker(uid_t) override {}
  void onAudioVolumeIndication(const AudioVolumeInfo*, unsigned int) override {}
  void onFirstRemoteVideoDecoded(uid_t, int, int, int) override {}
  void onFirstRemoteAudioFrame(uid_t, int) override {}
  void onReceivingStreamStatusChanged(bool, bool) override {}
  void onConnectionLost() override {}
  void onConnectionInterrupted() override {}

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool joined_ = false;
};

int main(int, char** argv) {
  Handler handler;
  IRecordingEngine* const engine =
      IRecordingEngine::createZeltaRecordingEngine("installed", &handler);
  RecordingConfig config;
  config.recordFileRootDir = argv[1];
  if (engine == nullptr || engine->joinChannel("", "room", 1, config) != 0) return 1;
  const bool joined = handler.wait_joined();
  engine->release();
  std::puts(joined ? "joined" : "not joined");
  return joined ? 0 : 1;
}
