// SPDX-License-Identifier: Apache-2.0
// Prints how loud each user of the channel "meeting" is, second by second, and how large its
// pictures are, from the decoded frames; no media is written. Ends after three seconds of one
// user's sound. The argument is a configuration file that names the channel server. Exit status 0:
// heard, 1: not, 2: no argument.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <future>
#include <map>
#include <utility>

#include <IZeltaRecordingEngine.h>

using namespace zelta::recording;

// Only the engine's thread calls it, so that nothing but the end needs to be handed over.
class Meter : public IRecordingEngineEventHandler {
 public:
  // True: three seconds were heard; false: the session ended before.
  std::future<bool> done() { return done_.get_future(); }

  void audioFrameReceived(unsigned int uid, const AudioFrame* frame) override {
    const AudioPcmFrame& pcm = *frame->frame.pcm;
    Loudness& second = loudness_[uid];
    for (uint_t i = 0; i < pcm.samples_; ++i) {
      int16_t sample = 0;
      std::memcpy(&sample, pcm.pcmBuf_ + i * sizeof sample, sizeof sample);
      second.squares += std::pow(sample / 32768.0, 2);
    }
    second.samples += pcm.samples_;
    if (second.samples < pcm.sample_rates_ * pcm.channels_) return;
    std::printf("user %u: %.1f dBFS\n", uid, 10 * std::log10(second.squares / second.samples));
    second = {0, 0, second.seconds + 1};
    if (second.seconds == 3) end(true);
  }
  void videoFrameReceived(unsigned int uid, const VideoFrame* frame) override {
    const std::pair<uint_t, uint_t> size(frame->frame.yuv->width_, frame->frame.yuv->height_);
    if (std::exchange(sizes_[uid], size) == size) return;
    std::printf("user %u: pictures of %ux%u\n", uid, size.first, size.second);
  }
  void onError(int error, STAT_CODE_TYPE stat_code) override {
    std::fprintf(stderr, "error %d, %d\n", error, static_cast<int>(stat_code));
    // Of one user's: the others' frames go on.
    if (error != ERR_INVALID_ARGUMENT) end(false);
  }
  void onLeaveChannel(LEAVE_PATH_CODE) override { end(false); }
  void onJoinChannelSuccess(const char*, uid_t) override {}
  void onUserJoined(uid_t, UserJoinInfos&) override {}
  void onUserOffline(uid_t, USER_OFFLINE_REASON_TYPE) override {}
  void onFirstRemoteVideoDecoded(uid_t, int, int, int) override {}
  void onFirstRemoteAudioFrame(uid_t, int) override {}
  void onWarning(int) override {}
  void onActiveSpeaker(uid_t) override {}
  void onAudioVolumeIndication(const AudioVolumeInfo*, unsigned int) override {}
  void onReceivingStreamStatusChanged(bool, bool) override {}
  void onConnectionLost() override {}
  void onConnectionInterrupted() override {}

 private:
  struct Loudness {
    double squares = 0;
    uint_t samples = 0;
    int seconds = 0;
  };
  void end(bool heard) {
    if (!std::exchange(ended_, true)) done_.set_value(heard);
  }

  std::map<uint_t, Loudness> loudness_;
  std::map<uint_t, std::pair<uint_t, uint_t>> sizes_;
  std::promise<bool> done_;
  bool ended_ = false;
};

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: frames CONFIGURATION.json\n", stderr);
    return 2;
  }
  Meter meter;
  std::future<bool> done = meter.done();
  auto* engine = IRecordingEngine::createZeltaRecordingEngine("my-app", &meter);
  if (engine == nullptr) return 1;
  RecordingConfig config;
  config.cfgFilePath = argv[1];
  config.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE;
  config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
  const bool heard = engine->joinChannel("", "meeting", 0, config) == 0 &&
                     done.wait_for(std::chrono::seconds(20)) == std::future_status::ready &&
                     done.get();
  engine->leaveChannel();
  engine->release();
  return heard ? 0 : 1;
}
