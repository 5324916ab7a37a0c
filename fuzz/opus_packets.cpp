// SPDX-License-Identifier: Apache-2.0
// Two packets of Opus, of which the second may tell of one between them.
#include <opus/opus.h>

#include "core_service/media/opus_repair.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace core_service::media;

shared_bytes shared(const std::string& bytes) {
  const auto owner = std::make_shared<const std::string>(bytes);
  return {owner, reinterpret_cast<const uint8_t*>(owner->data()), owner->size()};
}

void check(const std::string& input) {
  const size_t first = input.empty() ? 0 : static_cast<uint8_t>(input[0]);
  const shared_bytes before = shared(input.substr(std::min<size_t>(1, input.size()), first));
  const shared_bytes behind = shared(input.substr(std::min(1 + first, input.size())));
  const auto read = read_opus_packet(behind.data(), behind.size());
  const int samples = behind.empty()
                          ? -1
                          : opus_packet_get_nb_samples(
                                behind.data(), static_cast<opus_int32>(behind.size()), kOpusRate);
  require(!read || read->samples() == samples, "another duration than a decoder's");
  const auto made = repair_opus(before, behind);
  if (!made) return;
  require(read && made->about.duration() == read->steps_a_frame * kOpusStep,
          "a packet that doesn't fit into the gap");
  require(made->about.stereo == read->stereo, "of other channels");
}

std::string pair_of(const std::string& before, const std::string& behind) {
  return std::string(1, static_cast<char>(before.size())) + before + behind;
}

}  // namespace

std::vector<std::string> seeds() {
  return {pair_of("\x08\x61\x62\x63", "\x08\xc1\x62\x63\x64\x65"),
          pair_of("\x78\x61\x62", "\x78\x41\x62\x63"), pair_of("\x1c\x61\x62", "\x1f\x02\x41\x62"),
          pair_of("\xfc\xff\xfe", "\x4b\x41\x01\x41\x62")};
}

}  // namespace zelta::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zelta::fuzz::check(zelta::fuzz::text_of(data, size));
  return 0;
}
