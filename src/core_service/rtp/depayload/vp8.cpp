// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/vp8.h"

namespace zelta::core_service::rtp {
namespace {

// RFC 7741, section 4.2.
void skip_extension(byte_reader& in) {
  const unsigned has = in.byte();
  const bool picture_id = (has & 0x80U) != 0;
  const bool tl0_index = (has & 0x40U) != 0;
  const bool layer_or_key_index = (has & 0x30U) != 0;
  if (picture_id && (in.byte() & 0x80U) != 0) in.byte();
  if (tl0_index) in.byte();
  if (layer_or_key_index) in.byte();
}

}  // namespace

void vp8_depayloader::add(byte_reader in, bool /*lost*/) {
  const unsigned descriptor = in.byte();
  if ((descriptor & 0x80U) != 0) skip_extension(in);
  if (in.left() == 0) return discard();
  if (size() == 0) {
    const bool starts_partition = (descriptor & 0x10U) != 0;
    const unsigned partition = descriptor & 0x07U;
    if (!starts_partition || partition != 0) return discard();
    // Section 4.3: the inverse key frame flag.
    if ((*in.rest() & 0x01U) == 0) mark_key();
  }
  // Discards the frame itself where there is no room.
  static_cast<void>(append(in.rest(), in.left()));
}

}  // namespace zelta::core_service::rtp
