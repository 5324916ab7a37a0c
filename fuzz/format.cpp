// SPDX-License-Identifier: Apache-2.0
// Encoded units of strangers, as far as their formats are read. The first byte of an input picks
// the codec, and each unit stands behind a byte that says whether it is key and two of its length.
#include <algorithm>
#include <iterator>

#include "core_service/media/format_caps.h"
#include "core_service/media/format_tracker.h"
#include "core_service/media/nal_formats.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace core_service::media;

constexpr const char* kCodecs[] = {"h264", "hevc", "av1", "vp8", "vp9", "opus"};

std::string unit_of(const std::string& bytes) {
  return std::string{1, static_cast<char>(bytes.size() >> 8), static_cast<char>(bytes.size())} +
         bytes;
}

std::string nals(const std::vector<std::string>& all) {
  std::string unit;
  for (const std::string& nal : all) {
    unit += std::string{0, 0, 0, static_cast<char>(nal.size())} + nal;
  }
  return unit_of(unit);
}

// The unit without its parameter sets.
std::string without_sets(const std::vector<uint8_t>& unit, const nal_rules& rules) {
  std::string bare;
  for (size_t at = 0; unit.size() - at > 4;) {
    size_t length = 0;
    for (size_t i = 0; i < 4; ++i) length = length << 8U | unit[at + i];
    if (length > unit.size() - at - 4) break;
    if (length > 0 && rules.role(unit.data() + at + 4, length) == nal_role::kSlice) {
      bare += text_of(unit.data() + at, 4 + length);
    }
    at += 4 + length;
  }
  return bare;
}

// The sets of a box, in a new stream, must make the same box.
void parses_again(const stream_format& format, const nal_rules& rules,
                  const std::vector<uint8_t>& unit) {
  nal_formats again(*format.kind, rules);
  require(rules.read_config(format.config,
                            [&again](const uint8_t* nal, size_t bytes) { again.add(nal, bytes); }),
          "a box that is cut short");
  const std::string bare = without_sets(unit, rules);
  const format_ptr same =
      again.look(reinterpret_cast<const uint8_t*>(bare.data()), bare.size(), true);
  require(same != nullptr && *same == format, "a box that makes another");
}

}  // namespace

std::vector<std::string> seeds() {
  const std::string sps("\x67\x4d\x00\x28\xf2\x82\x82\xf7\xfe\x00\x08\x00\x06\x03\xc5\x8b\x65\x80",
                        18);
  const std::string pps("\x68\xce\x38\x80", 4);
  const std::string slice("\x65\x88\x80\x40", 4);
  const std::string larger("\x67\x42\x00\x28\xd9\x40\xa0\x2d\x90", 9);
  // 64x64, of x265, and the beginning of an IDR picture.
  const std::string vps(
      "\x40\x01\x0c\x01\xff\xff\x01\x60\x00\x00\x03\x00\x90\x00\x00\x03\x00\x00\x03\x00\x1e\x92\x80"
      "\x90",
      24);
  const std::string hevc_sps(
      "\x42\x01\x01\x01\x60\x00\x00\x03\x00\x90\x00\x00\x03\x00\x00\x03\x00\x1e\xa0\x20\x81\x05\x96"
      "\x4a\x92\x4c\xaf\x01\x68\x08\x00\x00\x03\x00\x08\x00\x00\x03\x00\xc8\x40",
      41);
  const std::string hevc_pps("\x44\x01\xc1\x72\xb4\x22\x40", 7);
  const std::string hevc_slice("\x28\x01\xaf\x1d\x80\xbf", 6);
  const std::string av1(
      "\x12\x00\x0a\x0a\x00\x00\x00\x02\xaf\xff\x9b\x5f\x20\x08\x32\x9e\x0d\x10\x00\x90\x00\x08\x20"
      "\x82",
      24);
  const std::string vp8("\x10\x00\x00\x9d\x01\x2a\x40\x01\x34\x00", 10);
  const std::string vp9(
      "\x82\x49\x83\x42\x00\x03\xf0\x03\xf6\x06\x38\x24\x1c\x18\x4a\x00\x05\xc0\x5f\x63\xf7\xe3\xfc"
      "\x4f",
      24);
  return {std::string(1, 0) + nals({sps, pps, slice}) + nals({larger, slice}),
          std::string(1, 1) + nals({vps, hevc_sps, hevc_pps, hevc_slice}),
          std::string(1, 2) + unit_of(av1), std::string(1, 3) + unit_of(vp8),
          std::string(1, 4) + unit_of(vp9)};
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta::core_service::media;
  using namespace zelta::fuzz;
  static const bool kReady = gst_init_check(nullptr, nullptr, nullptr) != FALSE;
  require(kReady, "GStreamer");
  if (size == 0) return 0;
  const size_t codec = data[0] % std::size(kCodecs);
  const nal_rules* const rules = codec == 0 ? &kH264Rules : codec == 1 ? &kHevcRules : nullptr;
  format_tracker tracker(*find_codec(kCodecs[codec]));
  format_ptr before;
  for (size_t at = 1; size - at >= 3;) {
    const bool key = (data[at] & 1U) != 0;
    const size_t claimed = static_cast<size_t>(data[at + 1]) << 8U | data[at + 2];
    at += 3;
    const size_t bytes = std::min(claimed, size - at);
    // In memory of its own size, so that nothing behind it is read unseen.
    const std::vector<uint8_t> unit(data + at, data + at + bytes);
    at += bytes;
    const format_ptr now = tracker.look(unit.data(), unit.size(), key);
    require(tracker.look(unit.data(), unit.size(), key) == now,
            "a unit that changes its own format");
    if (now == nullptr || now == before) continue;
    before = now;
    const format_ptr back = format_of(caps_of(*now).get());
    require(back != nullptr && *back == *now, "caps of another format");
    if (rules != nullptr) parses_again(*now, *rules, unit);
  }
  return 0;
}
