// SPDX-License-Identifier: Apache-2.0
#include "reporter.h"

#include <utility>

#include <sys/eventfd.h>

namespace zelta::record {

using namespace recording;

reporter::reporter(printer& out, std::unique_ptr<frame_files> frames)
    : out_(out), frames_(std::move(frames)), changes_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

reporter::facts reporter::now() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return facts_;
}

void reporter::drain() {
  eventfd_t count = 0;
  eventfd_read(changes_.get(), &count);
}

void reporter::change(state to, exit_status status) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    // The first end counts: what follows it is its consequence.
    if (facts_.state == state::kOver) return;
    facts_.state = to;
    facts_.status = status;
  }
  eventfd_write(changes_.get(), 1);
}

void reporter::onError(int error, STAT_CODE_TYPE stat_code) {
  out_.event("error", {{"error", error}, {"stat_code", static_cast<int>(stat_code)}});
  // One user's; the others are recorded on.
  if (error == ERR_INVALID_ARGUMENT) return note([](facts& f) { ++f.user_errors; });
  note([=](facts& f) {
    if (f.state == state::kOver) return;
    f.error = error;
    f.stat_code = stat_code;
  });
  change(state::kOver, error == ERR_INTERNAL_FAILED ? kRecorderLost : kRecorderError);
}

void reporter::onWarning(int warn) {
  out_.event("warning", {{"code", warn}});
  if (warn == WARN_RECOVERY_CORE_SERVICE_FAILURE) {
    note([](facts& f) {
      ++f.restarts;
      // Those who are there are told anew.
      f.users = 0;
    });
  }
}

void reporter::onJoinChannelSuccess(const char* channelId, uid_t uid) {
  out_.event("joined", {{"channel", channelId}, {"uid", uid}});
  change(state::kRecording, kRecorded);
}

void reporter::onLeaveChannel(LEAVE_PATH_CODE code) {
  out_.event("recorder left", {{"reason", static_cast<int>(code)}});
  change(state::kOver, kRecorded);
}

void reporter::onUserJoined(uid_t uid, UserJoinInfos& /*infos*/) {
  note([](facts& f) { ++f.users; });
  out_.event("user joined", {{"uid", uid}});
}

void reporter::onUserOffline(uid_t uid, USER_OFFLINE_REASON_TYPE reason) {
  note([](facts& f) { --f.users; });
  out_.event("user offline", {{"uid", uid}, {"reason", static_cast<int>(reason)}});
}

void reporter::audioFrameReceived(unsigned int uid, const AudioFrame* frame) {
  note([](facts& f) { ++f.frames; });
  if (frames_) frames_->write(uid, *frame);
}

void reporter::videoFrameReceived(unsigned int uid, const VideoFrame* frame) {
  note([](facts& f) { ++f.frames; });
  if (frames_) frames_->write(uid, *frame);
}

void reporter::onActiveSpeaker(uid_t uid) {
  out_.event("active speaker", {{"uid", uid}});
}

void reporter::onAudioVolumeIndication(const AudioVolumeInfo* speakers, unsigned int speakerNum) {
  for (unsigned int i = 0; i < speakerNum; ++i) {
    out_.event("volume", {{"uid", speakers[i].uid}, {"volume", speakers[i].volume}});
  }
}

void reporter::onFirstRemoteVideoDecoded(uid_t uid, int width, int height, int elapsed) {
  out_.event("first video",
             {{"uid", uid}, {"width", width}, {"height", height}, {"after_ms", elapsed}});
}

void reporter::onFirstRemoteAudioFrame(uid_t uid, int elapsed) {
  out_.event("first audio", {{"uid", uid}, {"after_ms", elapsed}});
}

void reporter::onReceivingStreamStatusChanged(bool receivingAudio, bool receivingVideo) {
  if (receivingAudio || receivingVideo) note([](facts& f) { f.media_came = true; });
  out_.event("receiving", {{"audio", receivingAudio}, {"video", receivingVideo}});
}

void reporter::onConnectionLost() {
  out_.event("connection lost", {});
}

void reporter::onConnectionInterrupted() {
  out_.event("connection interrupted", {});
}

}  // namespace zelta::record
