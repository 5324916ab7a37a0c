// SPDX-License-Identifier: Apache-2.0
// Bytes of an engine: through the recorder's link, into what reads parameters and layouts.
#include "core_service/engine/engine_link.h"
#include "core_service/task/parameters.h"
#include "protocol/mixing_layout.h"
#include "support/pipe.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace protocol;

class reading_listener final : public core_service::engine_listener {
 public:
  bool gone = false;

  void on_leave_command() override {}
  void on_log_level(uint32_t) override {}
  void on_log_modules(uint32_t, bool) override {}
  void on_parameters(const std::string& text) override {
    std::vector<std::string> warnings;
    core_service::parse_parameters(text, warnings);
  }
  void on_layout(const std::vector<uint8_t>& bytes) override {
    recording::mixing_layout layout;
    static_cast<void>(recording::decodeMixingLayout(bytes, layout));
  }
  void on_start_service() override {}
  void on_stop_service() override {}
  void on_user_background(uint32_t, const std::string&) override {}
  void on_engine_gone() override { gone = true; }
};

}  // namespace

std::vector<std::string> seeds() {
  using list = std::vector<uint32_t>;
  return {
      bytes_with<leave_packet>(0U),
      bytes_with<parameters_packet>(R"({"idle": 30, "captureInterval": 2})"),
      bytes_with<video_mixing_layout_packet>(layout_of(1)),
      bytes_with<user_join_confirm_packet>(7U) + bytes_with<user_drop_confirm_packet>(7U),
      bytes_with<media_frame_confirm_packet>(list{7}, list{1}, list{2}, list{3}, list{4}),
      bytes_with<audio_frame_confirm_packet>(list{7, 8}, list{1, 2}),
      bytes_with<video_frame_confirm_packet>(list{7}, list{1}, list{2}, list{3}),
      bytes_with<start_service_packet>(0U) + bytes_with<stop_service_packet>(0U),
      bytes_with<set_user_background_packet>(7U, "image.png"),
      bytes_with<set_log_level_packet>(5U) + bytes_with<log_enable_module_packet>(16U, 1),
  };
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  // What fits into a pipe.
  if (size > (1 << 16) || fuzz::claims_much(data, size)) return 0;
  test::Pipe commands;
  test::Pipe reports;
  static base::event_loop loop;
  fuzz::reading_listener listener;
  core_service::engine_link link(commands.read.release(), reports.write.release(), loop, {});
  link.listen(listener);
  fuzz::require(commands.put(fuzz::text_of(data, size)), "write");
  commands.write.reset();
  // The end of the stream is told after what was in it.
  while (!listener.gone) loop.run(true);
  return 0;
}
