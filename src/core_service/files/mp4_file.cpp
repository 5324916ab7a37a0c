// SPDX-License-Identifier: Apache-2.0
// MP4, written in fragments of a fifth of a second, of which a killed recorder loses the last;
// a plain seekable file after a clean end.
#include <cstring>
#include <utility>

#include "base/clocks.h"
#include "core_service/descriptors.h"
#include "core_service/files/media_file.h"
#include "core_service/media/mp4/muxer.h"

namespace zelta::core_service::files {
namespace {

using media::mp4::muxer;

class mp4_file final : public media_file {
 public:
  mp4_file(const std::string& path, const contents& holds, base::event_loop& loop,
           file_writer& disk, done_callback done)
      : media_file(holds, loop, std::move(done)),
        muxer_(holds.kind == container::kM4a ? "M4A " : "isom", holds.video, holds.sound,
               base::utc_ms() / 1000),
        output_(disk.open(path, [this](int error) {
          give_up((completing_ ? "not completed; it stays fragmented: " : "it can't be written: ") +
                      std::string(std::strerror(error)),
                  !is_shortage(error));
        })) {}

 private:
  void mux(media::media_kind kind, const media::media_sample& sample) override {
    std::vector<media::buffer_ptr> bytes = muxer_.add(kind, sample);
    if (!bytes.empty()) output_->append(std::move(bytes));
  }

  // The last step makes a plain file of the fragmented one.
  void complete() override {
    completing_ = true;
    output_->append(muxer_.finish());
    const auto plain = muxer_.switch_bytes();
    output_->overwrite(muxer::kSwitchAt, {plain.begin(), plain.end()});
    output_->close([this] { give_up("", false); });
  }

  void stop() override { output_.reset(); }
  size_t waiting_bytes() const override { return output_->waiting_bytes(); }

  muxer muxer_;
  bool completing_ = false;
  std::unique_ptr<output> output_;
};

}  // namespace

std::unique_ptr<media_file> make_mp4_file(const std::string& path,
                                          const media_file::contents& holds, base::event_loop& loop,
                                          file_writer& disk, media_file::done_callback done) {
  return std::make_unique<mp4_file>(path, holds, loop, disk, std::move(done));
}

}  // namespace zelta::core_service::files
