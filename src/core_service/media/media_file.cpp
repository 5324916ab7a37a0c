// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/media_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <gst/app/gstappsrc.h>
#include <unistd.h>

#include "base/clocks.h"
#include "base/unique_fd.h"
#include "core_service/descriptors.h"

namespace zelta::core_service::media {
namespace {

// Completing a file takes milliseconds unless the disk hangs; the engine waits 10 s.
constexpr int kFinishLimitMs = 5000;
// A disk that is behind by so much will not catch up, and the memory is needed for the others.
constexpr guint64 kBacklogLimitBytes = 256U << 20;

// Unbuffered: what a fragment has closed must outlive this process.
constexpr const char* kSink = " ! filesink name=file async=false sync=false buffer-mode=unbuffered";

std::string description_of(const media_file::contents& holds) {
  if (holds.kind != container::kWebm) {
    return std::string("appsrc name=bytes format=bytes max-bytes=0") + kSink;
  }
  std::string text = std::string("webmmux name=muxer offset-to-zero=true") + kSink;
  const std::string source = "appsrc format=time max-bytes=0 name=";
  if (holds.video) text += " " + source + "video ! muxer.video_0";
  if (holds.sound) text += " " + source + "sound ! muxer.audio_0";
  return text;
}

GstClockTime clock_time(media_time time) {
  return static_cast<GstClockTime>(std::max(time, media_time::zero()).count());
}

}  // namespace

std::unique_ptr<media_file> media_file::make(const std::string& path, const contents& holds,
                                             base::event_loop& loop, done_callback done,
                                             std::string& error) {
  element_ptr pipeline = make_pipeline(description_of(holds), error);
  if (!pipeline) return nullptr;
  g_object_set(child(pipeline.get(), "file"), "location", path.c_str(), nullptr);
  return std::unique_ptr<media_file>(
      new media_file(std::move(pipeline), path, holds, loop, std::move(done)));
}

media_file::media_file(element_ptr pipeline, std::string path, const contents& holds,
                       base::event_loop& loop, done_callback done)
    : loop_(loop),
      posting_(loop),
      done_(std::move(done)),
      holds_(holds),
      pipeline_(std::move(pipeline)),
      path_(std::move(path)),
      video_(child(pipeline_.get(), "video")),
      sound_(child(pipeline_.get(), "sound")),
      bytes_(child(pipeline_.get(), "bytes")) {
  if (bytes_ != nullptr) {
    mp4_.emplace(holds.kind == container::kM4a ? "M4A " : "isom", holds.video, holds.sound,
                 base::utc_ms() / 1000);
  }
  watch_.emplace(
      pipeline_.get(), loop_,
      bus_watch::events{[this] { on_written(); },
                        [this](const std::string& why, const std::string& from, bool disk) {
                          disk = disk && from == "file" && !are_descriptors_used_up();
                          give_up(why, disk);
                        }});
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
}

media_file::~media_file() {
  if (limit_ != nullptr) loop_.remove_timer(limit_);
  watch_.reset();
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

void media_file::write(media_kind kind, const media_sample& sample) {
  if (failed_ || !(kind == media_kind::kVideo ? holds_.video : holds_.sound)) return;
  mux(kind, sample);
  first_ = written_ ? std::min(first_, sample.time) : sample.time;
  last_ = written_ ? std::max(last_, sample.end()) : sample.end();
  written_ = true;
  for (GstElement* const source : {video_, sound_, bytes_}) {
    if (source == nullptr ||
        gst_app_src_get_current_level_bytes(GST_APP_SRC(source)) <= kBacklogLimitBytes) {
      continue;
    }
    // Later, because who writes still holds this.
    posting_.post([this] { give_up("the disk is too slow", true); });
  }
}

void media_file::mux(media_kind kind, const media_sample& sample) {
  if (mp4_) return push(mp4_->add(kind, sample));
  // The samples are shared with others, the times are this file's own.
  GstBuffer* const buffer = gst_buffer_copy(sample.buffer.get());
  set_times(
      buffer,
      {clock_time(sample.time),
       kind == media_kind::kVideo ? clock_time(sample.decode_time) : GST_CLOCK_TIME_NONE,
       sample.duration > media_time::zero() ? clock_time(sample.duration) : GST_CLOCK_TIME_NONE});
  const sample_ptr whole(gst_sample_new(buffer, sample.caps.get(), nullptr, nullptr));
  gst_buffer_unref(buffer);
  GstElement* const to = kind == media_kind::kVideo ? video_ : sound_;
  gst_app_src_push_sample(GST_APP_SRC(to), whole.get());
}

// As one list, which the sink writes with few system calls.
void media_file::push(std::vector<buffer_ptr> bytes) {
  if (bytes.empty()) return;
  GstBufferList* const list = gst_buffer_list_new_sized(static_cast<guint>(bytes.size()));
  for (buffer_ptr& one : bytes) gst_buffer_list_add(list, one.release());
  gst_app_src_push_buffer_list(GST_APP_SRC(bytes_), list);
}

void media_file::finish() {
  if (limit_ != nullptr || failed_) return;
  limit_ = loop_.add_timer(
      kFinishLimitMs,
      [](int, void* self) {
        static_cast<media_file*>(self)->give_up("not completed in time; it stays fragmented", true);
      },
      this);
  if (mp4_) push(mp4_->finish());
  for (GstElement* const source : {video_, sound_, bytes_}) {
    if (source != nullptr) gst_app_src_end_of_stream(GST_APP_SRC(source));
  }
}

void media_file::abandon() {
  // Later, because who asks still holds this.
  posting_.post([this] { give_up("not completed, because the disk failed", false); });
}

// All that was pushed is in the file: the last step makes a plain file of the fragmented one.
void media_file::on_written() {
  if (!mp4_ || failed_) return give_up("", false);
  const base::unique_fd file(open(path_.c_str(), O_WRONLY | O_CLOEXEC));
  const auto bytes = mp4_->switch_bytes();
  const auto all = static_cast<ssize_t>(bytes.size());
  if (file.valid() &&
      pwrite(file.get(), bytes.data(), bytes.size(), mp4::muxer::kSwitchAt) == all) {
    return give_up("", false);
  }
  const int error = errno;
  give_up(std::string("not completed; it stays fragmented: ") + std::strerror(error),
          !is_shortage(error));
}

void media_file::give_up(const std::string& why, bool disk) {
  if (std::exchange(failed_, true)) return;
  // Everything is written to the file before this returns.
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  const done_callback done = done_;
  done(why, disk);
}

}  // namespace zelta::core_service::media
