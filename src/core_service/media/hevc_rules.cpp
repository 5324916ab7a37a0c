// SPDX-License-Identifier: Apache-2.0
// ITU-T H.265; the box "hvcC" of ISO/IEC 14496-15, 8.3.3.1.
#include <algorithm>
#include <memory>

#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth265parser.h>

#include "core_service/media/bit_reader.h"
#include "core_service/media/nal_rules.h"

namespace zelta::core_service::media {
namespace {

constexpr uint32_t kMostVpsId = 15;
constexpr uint32_t kMostSpsId = 15;
constexpr uint32_t kMostPpsId = 63;
constexpr int kMostReordered = 16;
constexpr size_t kFixedBytes = 23;  // of the box, up to the first array
constexpr unsigned kHeaderBits = 16;
constexpr unsigned kProfileBits = 88;
constexpr unsigned kLevelBits = 8;
constexpr unsigned kSubLayerFlags = 16;

unsigned type_of(const uint8_t* nal) {
  return nal[0] >> 1U & 0x3FU;
}

nal_role role_of(const uint8_t* nal, size_t bytes) {
  // Of the base layer alone.
  if (bytes < 3 || (nal[0] & 1U) != 0 || nal[1] >> 3U != 0) return nal_role::kOther;
  const unsigned type = type_of(nal);
  if (type <= GST_H265_NAL_SLICE_RASL_R) return nal_role::kSlice;
  if (type >= GST_H265_NAL_SLICE_BLA_W_LP && type <= GST_H265_NAL_SLICE_CRA_NUT) {
    return nal_role::kSlice;
  }
  if (type == GST_H265_NAL_VPS) return nal_role::kVps;
  if (type == GST_H265_NAL_SPS) return nal_role::kSps;
  if (type == GST_H265_NAL_PPS) return nal_role::kPps;
  return nal_role::kOther;
}

// Up to the id: 7.3.2.2.1, 7.3.3.
void read_start(bit_reader& in, parameter_set& out) {
  in.skip(kHeaderBits);
  out.refers_to = in.read(4);
  const uint32_t more_layers = in.read(3);
  out.facts.layers = static_cast<uint8_t>(more_layers + 1);
  out.facts.nested = in.read(1) != 0;
  for (uint8_t& part : out.facts.profile_tier_level) part = static_cast<uint8_t>(in.read(8));
  const uint32_t flags = more_layers > 0 ? in.read(kSubLayerFlags) : 0;
  for (uint32_t i = 0; i < more_layers; ++i) {
    const uint32_t present = flags >> (kSubLayerFlags - 2 - 2 * i) & 3U;
    if ((present & 2U) != 0) in.skip(kProfileBits);
    if ((present & 1U) != 0) in.skip(kLevelBits);
  }
  out.id = in.read_ue();
}

void read_size(const GstH265SPS& sps, sequence_facts& out) {
  cropping cut;
  if (sps.conformance_window_flag != 0) {
    cut.across = int64_t{sps.conf_win_left_offset} + sps.conf_win_right_offset;
    cut.down = int64_t{sps.conf_win_top_offset} + sps.conf_win_bottom_offset;
  }
  set_size(sps.pic_width_in_luma_samples, sps.pic_height_in_luma_samples, cut,
           sps.chroma_array_type, 1, out);
}

void read_facts(const GstH265SPS& sps, sequence_facts& out) {
  read_size(sps, out);
  out.reordered =
      std::min<int>(sps.max_num_reorder_pics[sps.max_sub_layers_minus1], kMostReordered);
  out.chroma_format = sps.chroma_format_idc;
  out.luma_bits_above_8 = sps.bit_depth_luma_minus8;
  out.chroma_bits_above_8 = sps.bit_depth_chroma_minus8;
  if (sps.vui_parameters_present_flag == 0) return;
  const GstH265VUIParams& vui = sps.vui_params;
  set_aspect(vui.par_n, vui.par_d, out);
  if (vui.bitstream_restriction_flag != 0) {
    out.spatial_segmentation = vui.min_spatial_segmentation_idc;
  }
}

bool read_sps(const uint8_t* nal, size_t bytes, parameter_set& out) {
  bit_reader in(nal, bytes);
  read_start(in, out);
  if (in.failed() || out.id > kMostSpsId) return false;
  GstH265NalUnit unit{};
  unit.type = GST_H265_NAL_SPS;
  unit.data = const_cast<uint8_t*>(nal);  // only read
  unit.size = static_cast<guint>(bytes);
  unit.header_bytes = 2;
  unit.valid = TRUE;
  // A megabyte, of which an SPS by itself needs nothing, so that one serves all.
  static thread_local const std::unique_ptr<GstH265Parser, decltype(&gst_h265_parser_free)> kParser(
      gst_h265_parser_new(), gst_h265_parser_free);
  const auto sps = std::make_unique<GstH265SPS>();
  if (gst_h265_parse_sps(kParser.get(), &unit, sps.get(), TRUE) == GST_H265_PARSER_OK) {
    read_facts(*sps, out.facts);
    out.usable = out.facts.width > 0;
  }
  return true;
}

bool read_set(nal_role role, const uint8_t* nal, size_t bytes, parameter_set& out) {
  if (role == nal_role::kSps) return read_sps(nal, bytes, out);
  bit_reader in(nal, bytes);
  in.skip(kHeaderBits);
  out.usable = true;
  if (role == nal_role::kVps) {
    out.id = in.read(4);
    return !in.failed() && out.id <= kMostVpsId;
  }
  out.id = in.read_ue();
  out.refers_to = in.read_ue();
  return !in.failed() && out.id <= kMostPpsId && out.refers_to <= kMostSpsId;
}

std::optional<uint32_t> pps_of(const uint8_t* slice, size_t bytes) {
  bit_reader in(slice, bytes);
  in.skip(kHeaderBits);
  in.skip(1);  // the first of its picture
  const unsigned type = type_of(slice);
  if (type >= GST_H265_NAL_SLICE_BLA_W_LP) in.skip(1);  // what is output before
  const uint32_t id = in.read_ue();
  if (in.failed()) return std::nullopt;
  return id;
}

void put_array(std::vector<uint8_t>& to, const std::vector<const parameter_set*>& sets,
               nal_role role, unsigned type) {
  // Complete, as the sample entry "hvc1" requires: what the stream repeats adds nothing.
  to.push_back(static_cast<uint8_t>(0x80U | type));
  to.push_back(0);
  const size_t count_at = to.size();
  to.push_back(0);
  const uint8_t count = put_sets(to, sets, role);
  to[count_at] = count;
}

std::vector<uint8_t> config_of(const std::vector<const parameter_set*>& sets,
                               const parameter_set& active) {
  const sequence_facts& facts = active.facts;
  std::vector<uint8_t> config{1};
  config.insert(config.end(), facts.profile_tier_level.begin(), facts.profile_tier_level.end());
  config.push_back(static_cast<uint8_t>(0xF0U | (facts.spatial_segmentation >> 8U & 0xFU)));
  config.push_back(static_cast<uint8_t>(facts.spatial_segmentation & 0xFFU));
  config.push_back(0xFC);  // how it may be decoded in parallel: unknown
  config.push_back(static_cast<uint8_t>(0xFCU | facts.chroma_format));
  config.push_back(static_cast<uint8_t>(0xF8U | facts.luma_bits_above_8));
  config.push_back(static_cast<uint8_t>(0xF8U | facts.chroma_bits_above_8));
  config.insert(config.end(), {0, 0});  // pictures a second: unknown
  config.push_back(static_cast<uint8_t>((facts.layers & 7U) << 3U | (facts.nested ? 4U : 0U) | 3U));
  config.push_back(3);
  put_array(config, sets, nal_role::kVps, GST_H265_NAL_VPS);
  put_array(config, sets, nal_role::kSps, GST_H265_NAL_SPS);
  put_array(config, sets, nal_role::kPps, GST_H265_NAL_PPS);
  return config;
}

bool read_config(const std::vector<uint8_t>& config, const take_nal& take) {
  if (config.size() < kFixedBytes || config[0] != 1) return false;
  size_t at = kFixedBytes;
  for (unsigned arrays = config[kFixedBytes - 1]; arrays > 0; --arrays) {
    if (config.size() - at < 3) return false;
    const size_t count = static_cast<size_t>(config[at + 1]) << 8U | config[at + 2];
    at += 3;
    if (!read_sets(config, at, count, take)) return false;
  }
  return true;
}

}  // namespace

const nal_rules kHevcRules{true, role_of, read_set, pps_of, config_of, read_config};

}  // namespace zelta::core_service::media
