// SPDX-License-Identifier: Apache-2.0
#include "reporter.h"

#include <chrono>
#include <cstdio>
#include <iterator>

#include <json/json.h>
#include <unistd.h>

#include "recorded_files.h"

namespace zelta::record {
namespace {

using namespace recording;

int64_t now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string readable_bytes(double bytes) {
  const char* const units[] = {"B", "kB", "MB", "GB", "TB"};
  size_t unit = 0;
  while (bytes >= 1000 && unit + 1 < std::size(units)) bytes /= 1000, ++unit;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return text;
}

size_t payload_bytes(const AudioFrame& frame) {
  return frame.type == AUDIO_FRAME_RAW_PCM ? frame.frame.pcm->pcmBufSize_
                                           : frame.frame.aac->aacBufSize_;
}

size_t payload_bytes(const VideoFrame& frame) {
  switch (frame.type) {
    case VIDEO_FRAME_RAW_YUV:
      return frame.frame.yuv->bufSize_;
    case VIDEO_FRAME_H264:
      return frame.frame.h264->bufSize_;
    case VIDEO_FRAME_JPG:
      return frame.frame.jpg->bufSize_;
  }
  return 0;
}

}  // namespace

struct reporter::field {
  const char* name;
  Json::Value value;
};

reporter::reporter(bool json, std::string channel_id, std::unique_ptr<frame_files> frames)
    : json_(json),
      terminal_(!json && isatty(STDOUT_FILENO) == 1),
      frames_(std::move(frames)),
      start_ms_(now_ms()),
      channel_id_(std::move(channel_id)) {}

reporter::state reporter::wait_change(state from, std::chrono::steady_clock::time_point limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_until(lock, limit, [this, from] { return state_ != from; });
  return state_;
}

int reporter::status() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return status_ == kRecorded && user_failed_ ? kRecorderError : status_;
}

void reporter::change(state to, int status) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    // The first end counts: what follows it is its consequence.
    if (state_ == state::kOver) return;
    state_ = to;
    status_ = status;
  }
  changed_.notify_all();
}

// ---- Printing ------------------------------------------------------------------------------

// One object a line for --json, else "   3.2 s  user joined  uid 1".
void reporter::event(const char* name, std::initializer_list<field> fields) {
  const double elapsed = static_cast<double>(now_ms() - start_ms_) / 1000;
  if (json_) {
    Json::Value object(Json::objectValue);
    object["event"] = name;
    object["elapsed_s"] = elapsed;
    for (const field& f : fields) object[f.name] = f.value;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["precision"] = 6;
    return print(Json::writeString(writer, object));
  }
  char start[64];
  std::snprintf(start, sizeof start, "%7.2f s  %-22s", elapsed, name);
  std::string line = start;
  for (const field& f : fields) line += std::string("  ") + f.name + " " + f.value.asString();
  print(line);
}

void reporter::print(const std::string& line) {
  const std::lock_guard<std::mutex> guard(mutex_);
  clear_progress_locked();
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void reporter::clear_progress_locked() {
  if (progress_on_line_) std::fputs("\r\033[K", stdout);
  progress_on_line_ = false;
}

std::string reporter::recorded_bytes_locked() const {
  uint64_t bytes = 0;
  const std::vector<recorded_file> files = recorded_files(folder_, channel_id_);
  for (const recorded_file& file : files) bytes += file.bytes;
  return std::to_string(files.size()) + " files, " + readable_bytes(static_cast<double>(bytes));
}

void reporter::show_progress() {
  const std::lock_guard<std::mutex> guard(mutex_);
  const int64_t now = now_ms();
  const double span = static_cast<double>(now - shown_ms_) / 1000;
  const double frames = static_cast<double>(frame_count_ - shown_frames_) / span;
  const double bytes = static_cast<double>(frame_bytes_ - shown_bytes_) / span;
  shown_ms_ = now;
  shown_frames_ = frame_count_;
  shown_bytes_ = frame_bytes_;
  if (!terminal_) return;
  std::printf("\r\033[K%7.2f s  %d users  %.0f frames/s  %s/s  %s",
              static_cast<double>(now - start_ms_) / 1000, users_, frames,
              readable_bytes(bytes).c_str(), recorded_bytes_locked().c_str());
  std::fflush(stdout);
  progress_on_line_ = true;
}

void reporter::show_files(const std::string& folder) {
  event("folder", {{"path", folder}});
  for (const recorded_file& file : recorded_files(folder, channel_id_)) {
    event("file", {{"name", file.name},
                   {"uid", file.uid},
                   {"codecs", file.codecs},
                   {"duration_ms", Json::Int64{file.duration_ms}},
                   {"bytes", Json::UInt64{file.bytes}},
                   {"closed", file.closed}});
  }
}

// ---- Events --------------------------------------------------------------------------------

void reporter::onError(int error, STAT_CODE_TYPE stat_code) {
  event("error", {{"error", error}, {"stat_code", static_cast<int>(stat_code)}});
  if (error == ERR_INVALID_ARGUMENT) {
    // One user's; the others are recorded on.
    const std::lock_guard<std::mutex> guard(mutex_);
    user_failed_ = true;
    return;
  }
  change(state::kOver, error == ERR_INTERNAL_FAILED ? kRecorderLost : kRecorderError);
}

void reporter::onWarning(int warn) {
  event("warning", {{"code", warn}});
}

void reporter::onJoinChannelSuccess(const char* channelId, uid_t uid) {
  event("joined", {{"channel", channelId}, {"uid", uid}});
  change(state::kRecording, kRecorded);
}

void reporter::onLeaveChannel(LEAVE_PATH_CODE code) {
  event("recorder left", {{"reason", static_cast<int>(code)}});
  change(state::kOver, kRecorded);
}

void reporter::onUserJoined(uid_t uid, UserJoinInfos& infos) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++users_;
    folder_ = infos.storageDir;
  }
  event("user joined", {{"uid", uid}});
}

void reporter::onUserOffline(uid_t uid, USER_OFFLINE_REASON_TYPE reason) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    --users_;
  }
  event("user offline", {{"uid", uid}, {"reason", static_cast<int>(reason)}});
}

void reporter::count_frame(size_t bytes) {
  const std::lock_guard<std::mutex> guard(mutex_);
  ++frame_count_;
  frame_bytes_ += bytes;
}

void reporter::audioFrameReceived(unsigned int uid, const AudioFrame* frame) {
  count_frame(payload_bytes(*frame));
  if (frames_) frames_->write(uid, *frame);
}

void reporter::videoFrameReceived(unsigned int uid, const VideoFrame* frame) {
  count_frame(payload_bytes(*frame));
  if (frames_) frames_->write(uid, *frame);
}

void reporter::onActiveSpeaker(uid_t uid) {
  event("active speaker", {{"uid", uid}});
}

void reporter::onAudioVolumeIndication(const AudioVolumeInfo* speakers, unsigned int speakerNum) {
  for (unsigned int i = 0; i < speakerNum; ++i) {
    event("volume", {{"uid", speakers[i].uid}, {"volume", speakers[i].volume}});
  }
}

void reporter::onFirstRemoteVideoDecoded(uid_t uid, int width, int height, int elapsed) {
  event("first video", {{"uid", uid}, {"width", width}, {"height", height}, {"after_ms", elapsed}});
}

void reporter::onFirstRemoteAudioFrame(uid_t uid, int elapsed) {
  event("first audio", {{"uid", uid}, {"after_ms", elapsed}});
}

void reporter::onReceivingStreamStatusChanged(bool receivingAudio, bool receivingVideo) {
  event("receiving", {{"audio", receivingAudio}, {"video", receivingVideo}});
}

void reporter::onConnectionLost() {
  event("connection lost", {});
}

void reporter::onConnectionInterrupted() {
  event("connection interrupted", {});
}

}  // namespace zelta::record
