// SPDX-License-Identifier: Apache-2.0
// A handler that writes down what it is told, one line a call, and can be waited for.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "IZeltaRecordingEngine.h"

namespace zelta::test {

using namespace recording;

struct Releaser {
  void operator()(IRecordingEngine* engine) const { engine->release(); }
};

class RecordingHandler : public IRecordingEngineEventHandler {
 public:
  void onError(int error, STAT_CODE_TYPE stat) override { say("error", error, int{stat}); }
  void onWarning(int warn) override { say("warning", warn); }
  void onJoinChannelSuccess(const char* channel, uid_t uid) override {
    say("joined", channel, uid);
  }
  void onLeaveChannel(LEAVE_PATH_CODE code) override { say("leave", int{code}); }
  void onUserJoined(uid_t uid, UserJoinInfos& infos) override {
    say("user in", uid, infos.storageDir);
  }
  void onUserOffline(uid_t uid, USER_OFFLINE_REASON_TYPE reason) override {
    say("user out", uid, int{reason});
  }
  void audioFrameReceived(unsigned int uid, const AudioFrame* f) override {
    if (f->type == AUDIO_FRAME_RAW_PCM) {
      const AudioPcmFrame& p = *f->frame.pcm;
      payload = p.pcmBuf_;
      say("pcm", uid, p.frame_ms_, p.channels_, p.sample_bits_, p.sample_rates_, p.samples_,
          p.pcmBufSize_, int{f->mType});
    } else {
      const AudioAacFrame& a = *f->frame.aac;
      payload = a.aacBuf_;
      say("aac", uid, a.frame_ms_, a.channels_, a.bitrate_, a.aacBufSize_);
    }
  }
  void videoFrameReceived(unsigned int uid, const VideoFrame* f) override {
    if (f->type == VIDEO_FRAME_RAW_YUV) {
      const VideoYuvFrame& y = *f->frame.yuv;
      payload = y.buf_;
      say("yuv", uid, y.frame_ms_, y.width_, y.height_, y.ystride_, y.ustride_, y.vstride_,
          y.bufSize_, y.ybuf_ - y.buf_, y.ubuf_ - y.buf_, y.vbuf_ - y.buf_, f->rotation_);
    } else if (f->type == VIDEO_FRAME_H264) {
      const VideoH264Frame& h = *f->frame.h264;
      payload = h.buf_;
      say("h264", uid, h.frame_ms_, h.frame_num_, h.bufSize_, f->rotation_);
    } else {
      const VideoJpgFrame& j = *f->frame.jpg;
      payload = j.buf_;
      say("jpg", uid, j.frame_ms_, j.bufSize_, f->rotation_);
    }
  }
  void onActiveSpeaker(uid_t uid) override { say("speaker", uid); }
  void onAudioVolumeIndication(const AudioVolumeInfo* s, unsigned int n) override {
    std::string all;
    for (unsigned int i = 0; i < n; ++i) {
      all += std::to_string(s[i].uid) + "=" + std::to_string(s[i].volume) + ",";
    }
    say("volumes", all);
  }
  void onFirstRemoteVideoDecoded(uid_t uid, int w, int h, int elapsed) override {
    say("first video", uid, w, h, elapsed);
  }
  void onFirstRemoteAudioFrame(uid_t uid, int elapsed) override {
    say("first audio", uid, elapsed);
  }
  void onReceivingStreamStatusChanged(bool audio, bool video) override {
    say("receiving", audio, video);
  }
  void onConnectionLost() override { say("lost"); }
  void onConnectionInterrupted() override { say("interrupted"); }

  // Waits, 20 s at most, for a call whose line starts with `start`, `count` of them.
  bool wait_for(const std::string& start, int count = 1) { return wait_for_any({{start, count}}); }
  // The same for whichever comes first.
  bool wait_for_any(const std::vector<std::pair<std::string, int>>& any) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] {
      return std::any_of(any.begin(), any.end(),
                         [this](const auto& one) { return count_locked(one.first) >= one.second; });
    });
  }
  int count(const std::string& start) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return count_locked(start);
  }
  std::vector<std::string> calls() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return calls_;
  }
  std::set<std::thread::id> threads() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return threads_;
  }
  void clear() {
    const std::lock_guard<std::mutex> guard(mutex_);
    calls_.clear();
  }

  // Of the last frame.
  const unsigned char* payload = nullptr;
  // Called from inside every callback, with its line.
  std::function<void(const std::string&)> also;

 private:
  static std::string text(const char* value) { return value; }
  static std::string text(const std::string& value) { return value; }
  template <class T>
  static std::string text(T value) {
    return std::to_string(value);
  }

  template <class... Values>
  void say(const char* name, Values... values) {
    std::string line = name;
    ((line += " " + text(values)), ...);
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      calls_.push_back(line);
      threads_.insert(std::this_thread::get_id());
    }
    changed_.notify_all();
    if (also) also(line);
  }
  int count_locked(const std::string& start) const {
    int found = 0;
    for (const std::string& call : calls_) found += call.rfind(start, 0) == 0 ? 1 : 0;
    return found;
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> calls_;
  std::set<std::thread::id> threads_;
};

}  // namespace zelta::test
