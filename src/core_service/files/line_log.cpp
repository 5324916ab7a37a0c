// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/line_log.h"

#include <cerrno>
#include <utility>

#include <json/json.h>

namespace zelta::core_service::files {
namespace {

constexpr int kCloseLimitMs = 5000;
constexpr size_t kBacklogLimitBytes = size_t{16} << 20;

std::string text_of(const Json::Value& line) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  return Json::writeString(writer, line) + "\n";
}

}  // namespace

line_log::line_log(std::string path, base::event_loop& loop, file_writer& disk,
                   std::function<void(int error)> failed)
    : path_(std::move(path)), loop_(loop), disk_(disk), failed_(std::move(failed)) {}

void line_log::open() {
  to_ = disk_.open(
      path_,
      [this](int error) {
        to_.reset();
        failed_(error);
        closed();
      },
      placement::kNextLine);
}

bool line_log::add(const Json::Value& line) {
  if (!to_) open();
  if (to_->waiting_bytes() > kBacklogLimitBytes) return false;
  const std::string text = text_of(line);
  std::vector<media::buffer_ptr> bytes;
  bytes.emplace_back(gst_buffer_new_memdup(text.data(), text.size()));
  to_->append(std::move(bytes));
  return true;
}

void line_log::close(std::function<void()> done) {
  if (!to_ || done_) return;
  done_ = std::move(done);
  limit_ = {loop_, kCloseLimitMs, [this] {
              failed_(ETIMEDOUT);
              closed();
            }};
  to_->close([this] { closed(); });
}

void line_log::closed() {
  to_.reset();
  limit_.stop();
  if (const auto done = std::exchange(done_, nullptr)) done();
}

}  // namespace zelta::core_service::files
