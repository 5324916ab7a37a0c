// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/media_file.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "base/clocks.h"
#include "core_service/load/descriptors.h"
#include "core_service/media/mp4/muxer.h"
#include "core_service/media/webm/muxer.h"

namespace zelta::core_service::files {
namespace {

using media::media_kind;
using media::media_sample;
using media::media_time;

// Completing a file takes milliseconds unless the disk hangs; the engine waits 10 s.
constexpr int kFinishLimitMs = 5000;
// A disk that is behind by so much will not catch up, and the memory is needed for the others.
constexpr size_t kBacklogLimitBytes = 256U << 20;

std::unique_ptr<media::muxer> muxer_of(const file_contents& holds) {
  if (holds.kind == container::kWebm) {
    return std::make_unique<media::webm::muxer>(holds.video, holds.sound);
  }
  return std::make_unique<media::mp4::muxer>(holds.kind == container::kM4a ? "M4A " : "isom",
                                             holds.video, holds.sound, base::utc_ms() / 1000);
}

}  // namespace

media_file::media_file(const std::string& path, const file_contents& holds, base::event_loop& loop,
                       file_writer& disk, done_callback done)
    : poster_(loop),
      done_(std::move(done)),
      holds_(holds),
      muxer_(muxer_of(holds)),
      output_(disk.open(path, [this](int error) {
        give_up((completing_ ? "not completed: " : "it can't be written: ") +
                    std::string(std::strerror(error)),
                !is_shortage(error));
      })) {}

void media_file::write(media_kind kind, const media_sample& sample) {
  if (ended_ || !(kind == media_kind::kVideo ? holds_.video : holds_.sound)) return;
  std::vector<media::buffer_ptr> bytes = muxer_->add(kind, sample);
  if (!bytes.empty()) output_->append(std::move(bytes));
  first_ = written_ ? std::min(first_, sample.time) : sample.time;
  last_ = written_ ? std::max(last_, sample.end()) : sample.end();
  written_ = true;
  if (output_->waiting_bytes() <= kBacklogLimitBytes) return;
  // Later, because who writes still holds this.
  poster_.post([this] { give_up("the disk is too slow", true); });
}

void media_file::finish() {
  if (completing_ || ended_) return;
  completing_ = true;
  limit_ = {poster_.loop(), kFinishLimitMs, [this] { give_up("not completed in time", true); }};
  output_->append(muxer_->finish());
  media::muxer::patch last = muxer_->completion();
  output_->overwrite(last.at, std::move(last.bytes));
  output_->close([this] { give_up("", false); });
}

void media_file::abandon() {
  // Later, because who asks still holds this.
  poster_.post([this] { give_up("not completed, because the disk failed", false); });
}

void media_file::give_up(const std::string& why, bool disk) {
  if (std::exchange(ended_, true)) return;
  bytes_ = output_->written_bytes();
  if (why.empty()) crc32_ = output_->crc32();
  output_.reset();
  const done_callback done = done_;
  done(why, disk);
}

}  // namespace zelta::core_service::files
