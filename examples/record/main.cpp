// SPDX-License-Identifier: Apache-2.0
// Records three seconds of the channel "meeting" below the current folder. The argument is a
// configuration file that names the channel server. Exit status 0: recorded, 1: not, 2: no
// argument.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include <IZeltaRecordingEngine.h>

using namespace zelta::recording;

// Callbacks come on the engine's thread, the waits are for the application's.
class MyHandler : public IRecordingEngineEventHandler {
 public:
  // False: not within `limit`, or the session ended first.
  bool wait_joined(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, limit, [this] { return joined_ || ended_; });
    return joined_ && !ended_;
  }
  // True: the session ended before `limit`, by an error or because the recorder left.
  bool wait_ended(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return ended_; });
  }

  void onJoinChannelSuccess(const char* channelId, uid_t) override {
    std::printf("joined %s\n", channelId);
    set(joined_);
  }
  void onError(int error, STAT_CODE_TYPE stat_code) override {
    std::fprintf(stderr, "error %d, %d\n", error, static_cast<int>(stat_code));
    // Of one user's: all else is recorded on.
    if (error != ERR_INVALID_ARGUMENT) set(ended_);
  }
  void onLeaveChannel(LEAVE_PATH_CODE) override { set(ended_); }
  void onUserJoined(uid_t uid, UserJoinInfos& infos) override {
    std::printf("user %u is recorded in %s\n", uid, infos.storageDir);
  }
  void onFirstRemoteVideoDecoded(uid_t uid, int width, int height, int) override {
    std::printf("user %u sends pictures of %dx%d\n", uid, width, height);
  }
  void onFirstRemoteAudioFrame(uid_t uid, int) override {
    std::printf("user %u sends sound\n", uid);
  }
  void onWarning(int) override {}
  void onUserOffline(uid_t, USER_OFFLINE_REASON_TYPE) override {}
  void audioFrameReceived(unsigned int, const AudioFrame*) override {}
  void videoFrameReceived(unsigned int, const VideoFrame*) override {}
  void onActiveSpeaker(uid_t) override {}
  void onAudioVolumeIndication(const AudioVolumeInfo*, unsigned int) override {}
  void onReceivingStreamStatusChanged(bool, bool) override {}
  void onConnectionLost() override {}
  void onConnectionInterrupted() override {}

 private:
  void set(bool& what) {
    const std::lock_guard<std::mutex> guard(mutex_);
    what = true;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool joined_ = false;
  bool ended_ = false;
};

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: record CONFIGURATION.json\n", stderr);
    return 2;
  }
  MyHandler handler;  // an IRecordingEngineEventHandler
  auto* engine = IRecordingEngine::createZeltaRecordingEngine("my-app", &handler);
  if (engine == nullptr) return 1;
  RecordingConfig config;
  config.cfgFilePath = argv[1];  // names the channel server
  bool recorded = engine->joinChannel("", "meeting", 0, config) == 0 &&
                  handler.wait_joined(std::chrono::seconds(20));
  // Callbacks come on the engine's thread while this one waits.
  recorded = recorded && !handler.wait_ended(std::chrono::seconds(3));
  engine->leaveChannel();
  engine->release();  // the files are complete
  std::puts(recorded ? "recorded" : "not recorded");
  return recorded ? 0 : 1;
}
