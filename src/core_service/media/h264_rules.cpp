// SPDX-License-Identifier: Apache-2.0
// ITU-T H.264; the box "avcC" of ISO/IEC 14496-15, 5.3.3.1.
#include <algorithm>

#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>

#include "core_service/media/bit_reader.h"
#include "core_service/media/nal_rules.h"
#include "core_service/media/picture_size.h"

namespace zelta::core_service::media {
namespace {

constexpr uint32_t kMostSpsId = 31;
constexpr uint32_t kMostPpsId = 255;
constexpr uint32_t kMostReordered = 16;  // what the largest decoder holds
constexpr size_t kFixedBytes = 6;        // of the box, up to the first SPS
constexpr int kMacroblock = 16;

nal_role role_of(const uint8_t* nal, size_t /*bytes*/) {
  switch (nal[0] & 0x1FU) {
    case GST_H264_NAL_SLICE:
    case GST_H264_NAL_SLICE_DPA:
    case GST_H264_NAL_SLICE_IDR:
      return nal_role::kSlice;
    case GST_H264_NAL_SPS:
      return nal_role::kSps;
    case GST_H264_NAL_PPS:
      return nal_role::kPps;
    default:
      return nal_role::kOther;
  }
}

// Not as the parser adds it up: with numbers that no picture has, its sums wrap.
void read_size(const GstH264SPS& sps, sequence_facts& out) {
  constexpr uint32_t kMostBlocks = kMostPixelsAcross / kMacroblock + 1;
  if (sps.pic_width_in_mbs_minus1 > kMostBlocks || sps.pic_height_in_map_units_minus1 > kMostBlocks)
    return;
  const int64_t fields = sps.frame_mbs_only_flag != 0 ? 1 : 2;
  cropping cut;  // Equations 7-19 to 7-22.
  if (sps.frame_cropping_flag != 0) {
    cut.across = int64_t{sps.frame_crop_left_offset} + sps.frame_crop_right_offset;
    cut.down = int64_t{sps.frame_crop_top_offset} + sps.frame_crop_bottom_offset;
  }
  set_size((int64_t{sps.pic_width_in_mbs_minus1} + 1) * kMacroblock,
           (int64_t{sps.pic_height_in_map_units_minus1} + 1) * kMacroblock * fields, cut,
           sps.chroma_array_type, fields, out);
}

void read_vui(const GstH264VUIParams& vui, sequence_facts& out) {
  set_aspect(vui.par_n, vui.par_d, out);
  // A stream that doesn't say so might reorder as much as its level's decoder holds; but who sends
  // in real time doesn't reorder, and one that does is found out by its times.
  if (vui.bitstream_restriction_flag != 0) {
    out.reordered = static_cast<int>(std::min<uint32_t>(vui.num_reorder_frames, kMostReordered));
  }
}

bool read_sps(const uint8_t* nal, size_t bytes, parameter_set& out) {
  GstH264NalUnit unit{};
  unit.type = GST_H264_NAL_SPS;
  unit.data = const_cast<uint8_t*>(nal);  // only read
  unit.size = static_cast<guint>(bytes);
  unit.header_bytes = 1;
  unit.valid = TRUE;
  bit_reader in(nal, bytes);
  in.skip(4 * 8);  // header, profile, constraints, level
  out.id = in.read_ue();
  if (in.failed() || out.id > kMostSpsId) return false;
  GstH264SPS sps{};
  if (gst_h264_parse_sps(&unit, &sps) == GST_H264_PARSER_OK) {
    read_size(sps, out.facts);
    if (sps.vui_parameters_present_flag != 0) read_vui(sps.vui_parameters, out.facts);
    out.facts.chroma_format = sps.chroma_format_idc;
    out.facts.luma_bits_above_8 = sps.bit_depth_luma_minus8;
    out.facts.chroma_bits_above_8 = sps.bit_depth_chroma_minus8;
    // The order of decoding is that of presentation (8.2.1.3).
    if (sps.pic_order_cnt_type == 2) out.facts.reordered = 0;
    out.usable = out.facts.width > 0;
  }
  gst_h264_sps_clear(&sps);
  return true;
}

bool read_set(nal_role role, const uint8_t* nal, size_t bytes, parameter_set& out) {
  if (role == nal_role::kSps) return read_sps(nal, bytes, out);
  bit_reader in(nal, bytes);
  in.skip(8);
  out.id = in.read_ue();
  out.refers_to = in.read_ue();
  out.usable = true;
  return !in.failed() && out.id <= kMostPpsId && out.refers_to <= kMostSpsId;
}

std::optional<uint32_t> pps_of(const uint8_t* slice, size_t bytes) {
  bit_reader in(slice, bytes);
  in.skip(8);
  in.read_ue();  // the first macroblock
  in.read_ue();  // type
  const uint32_t id = in.read_ue();
  if (in.failed()) return std::nullopt;
  return id;
}

void put_all(std::vector<uint8_t>& to, const std::vector<const parameter_set*>& sets, nal_role role,
             unsigned flags) {
  const size_t count_at = to.size();
  to.push_back(0);
  const uint8_t count = put_sets(to, sets, role);
  to[count_at] = static_cast<uint8_t>(flags | count);
}

std::vector<uint8_t> config_of(const std::vector<const parameter_set*>& sets,
                               const parameter_set& active) {
  const uint8_t profile = active.nal[1];
  std::vector<uint8_t> config{1, profile, active.nal[2], active.nal[3], 0xFF};
  put_all(config, sets, nal_role::kSps, 0xE0);
  put_all(config, sets, nal_role::kPps, 0);
  // Baseline, main and extended profile have 8 bits and 4:2:0 without a word.
  if (profile == 66 || profile == 77 || profile == 88) return config;
  config.push_back(static_cast<uint8_t>(0xFCU | active.facts.chroma_format));
  config.push_back(static_cast<uint8_t>(0xF8U | active.facts.luma_bits_above_8));
  config.push_back(static_cast<uint8_t>(0xF8U | active.facts.chroma_bits_above_8));
  config.push_back(0);  // extensions of SPS
  return config;
}

bool read_config(const std::vector<uint8_t>& config, const take_nal& take) {
  if (config.size() < kFixedBytes || config[0] != 1) return false;
  size_t at = kFixedBytes;
  if (!read_sets(config, at, config[kFixedBytes - 1] & 0x1FU, take)) return false;
  if (at >= config.size()) return false;
  const size_t count = config[at++];
  return read_sets(config, at, count, take);
}

}  // namespace

const nal_rules kH264Rules{false, role_of, read_set, pps_of, config_of, read_config};

}  // namespace zelta::core_service::media
