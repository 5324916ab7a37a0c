// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/message_log.h"

#include <cerrno>
#include <utility>

#include <json/json.h>

#include "core_service/media/timeline.h"

namespace zelta::core_service::files {
namespace {

constexpr int kCloseLimitMs = 5000;
constexpr size_t kBacklogLimitBytes = size_t{16} << 20;

std::string line_of(uint32_t uid, const std::string& channel_id, const media::user_text& what) {
  Json::Value line(Json::objectValue);
  line["utc_ms"] = Json::Int64{media::utc_ms_of(what.time)};
  line["uid"] = uid;
  line["channel_id"] = channel_id;
  line["label"] = what.label;
  line["text"] = what.text;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  return Json::writeString(writer, line) + "\n";
}

}  // namespace

message_log::message_log(std::string path, std::string channel_id, base::event_loop& loop,
                         file_writer& disk, std::function<void(int error)> failed)
    : path_(std::move(path)),
      channel_id_(std::move(channel_id)),
      loop_(loop),
      disk_(disk),
      failed_(std::move(failed)) {}

void message_log::open() {
  to_ = disk_.open(
      path_,
      [this](int error) {
        to_.reset();
        failed_(error);
        closed();
      },
      placement::kNextLine);
}

bool message_log::add(uint32_t uid, const media::user_text& what) {
  if (!to_) open();
  if (to_->waiting_bytes() > kBacklogLimitBytes) return false;
  const std::string line = line_of(uid, channel_id_, what);
  std::vector<media::buffer_ptr> bytes;
  bytes.emplace_back(gst_buffer_new_memdup(line.data(), line.size()));
  to_->append(std::move(bytes));
  return true;
}

void message_log::close(std::function<void()> done) {
  if (!to_ || done_) return;
  done_ = std::move(done);
  limit_ = {loop_, kCloseLimitMs, [this] {
              failed_(ETIMEDOUT);
              closed();
            }};
  to_->close([this] { closed(); });
}

void message_log::closed() {
  to_.reset();
  limit_.stop();
  if (const auto done = std::exchange(done_, nullptr)) done();
}

}  // namespace zelta::core_service::files
