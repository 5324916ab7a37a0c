// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/media_file.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service::files {
namespace {

using media::media_kind;
using media::media_sample;
using media::media_time;

// Completing a file takes milliseconds unless the disk hangs; the engine waits 10 s.
constexpr int kFinishLimitMs = 5000;
// A disk that is behind by so much will not catch up, and the memory is needed for the others.
constexpr size_t kBacklogLimitBytes = 256U << 20;

}  // namespace

std::unique_ptr<media_file> media_file::make(const std::string& path, const contents& holds,
                                             base::event_loop& loop, file_writer& disk,
                                             done_callback done, std::string& error) {
  if (holds.kind == container::kWebm) {
    return make_webm_file(path, holds, loop, std::move(done), error);
  }
  return make_mp4_file(path, holds, loop, disk, std::move(done));
}

media_file::media_file(const contents& holds, base::event_loop& loop, done_callback done)
    : loop_(loop), posting_(loop), done_(std::move(done)), holds_(holds) {}

media_file::~media_file() {
  if (limit_ != nullptr) loop_.remove_timer(limit_);
}

void media_file::write(media_kind kind, const media_sample& sample) {
  if (ended_ || !(kind == media_kind::kVideo ? holds_.video : holds_.sound)) return;
  mux(kind, sample);
  first_ = written_ ? std::min(first_, sample.time) : sample.time;
  last_ = written_ ? std::max(last_, sample.end()) : sample.end();
  written_ = true;
  if (waiting_bytes() <= kBacklogLimitBytes) return;
  // Later, because who writes still holds this.
  posting_.post([this] { give_up("the disk is too slow", true); });
}

void media_file::finish() {
  if (limit_ != nullptr || ended_) return;
  limit_ = loop_.add_timer(
      kFinishLimitMs,
      [](int, void* self) {
        static_cast<media_file*>(self)->give_up("not completed in time; it stays fragmented", true);
      },
      this);
  complete();
}

void media_file::abandon() {
  // Later, because who asks still holds this.
  posting_.post([this] { give_up("not completed, because the disk failed", false); });
}

void media_file::give_up(const std::string& why, bool disk) {
  if (std::exchange(ended_, true)) return;
  stop();
  const done_callback done = done_;
  done(why, disk);
}

}  // namespace zelta::core_service::files
