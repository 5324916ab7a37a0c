// SPDX-License-Identifier: Apache-2.0
// The recorder's command line and the texts in it: arguments with a zero byte between them.
#include <algorithm>

#include "core_service/rtp/settings.h"
#include "core_service/task/options.h"
#include "core_service/task/recording_plan.h"
#include "target.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  std::vector<std::string> all{
      "--channel_id room --uid 7 --mix 1 --mixedVideoAudio 1 --mix_resolution 640,360,15,500",
      "--channel_id=room --encrypt_mode aes-128-gcm --encrypt_secret AAAAAAAAAAAAAAAAAAAAAAAAAAA=",
      "--channel_id room --decode_video 5 --capture_interval 2 --chunk_time_span 60 --read 3",
      "--channel_id room --min_port 40000 --max_port 41000 --audioProfile 2 --unknown x",
  };
  for (std::string& one : all) std::replace(one.begin(), one.end(), ' ', '\0');
  return all;
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  std::vector<std::string> arguments{"ZeltaCoreService"};
  for (const uint8_t* end = data + size; data <= end;) {
    const uint8_t* const stop = std::find(data, end, uint8_t{0});
    arguments.push_back(fuzz::text_of(data, static_cast<size_t>(stop - data)));
    data = stop + 1;
  }
  std::vector<const char*> argv;
  for (const std::string& one : arguments) argv.push_back(one.c_str());
  argv.push_back(nullptr);
  static core_service::option_parser parser;
  const auto parsed = parser.parse(static_cast<int>(argv.size()) - 1, argv.data());
  fuzz::require(parsed.values || !parsed.message.empty(), "a refusal without a word");
  if (!parsed.values) return 0;
  std::vector<std::string> warnings;
  core_service::plan_of(*parsed.values, warnings);
  std::string error;
  core_service::rtp::parse_key(parsed.values->encrypt_mode, parsed.values->encrypt_secret, error);
  return 0;
}
