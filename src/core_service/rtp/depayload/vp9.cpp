// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/vp9.h"

namespace zelta::core_service::rtp {
namespace {

// What is of interest in a descriptor.
struct descriptor {
  bool predicted;  // from other pictures
  bool begins;     // a layer frame
  bool ends;
  unsigned spatial_layer;
};

// RFC 9628, section 4.2.
constexpr unsigned kMostReferences = 3;

void skip_references(byte_reader& in) {
  for (unsigned i = 0; i < kMostReferences; ++i) {
    if ((in.byte() & 0x01U) == 0) return;
  }
  // The last one said that another follows: nothing behind it can be trusted.
  in.take(in.left() + 1);
}

// Section 4.2.1.
void skip_scalability_structure(byte_reader& in) {
  const unsigned has = in.byte();
  const unsigned layers = (has >> 5U) + 1;
  constexpr size_t kResolutionBytes = 4;
  if ((has & 0x10U) != 0) in.take(layers * kResolutionBytes);
  if ((has & 0x08U) == 0) return;
  const unsigned pictures = in.byte();
  for (unsigned i = 0; i < pictures; ++i) in.take(in.byte() >> 2U & 3U);
}

descriptor read_descriptor(byte_reader& in) {
  const unsigned has = in.byte();
  const bool picture_id = (has & 0x80U) != 0;
  const bool predicted = (has & 0x40U) != 0;
  const bool layers = (has & 0x20U) != 0;
  const bool flexible = (has & 0x10U) != 0;
  descriptor read{predicted, (has & 0x08U) != 0, (has & 0x04U) != 0, 0};
  if (picture_id && (in.byte() & 0x80U) != 0) in.byte();
  if (layers) {
    read.spatial_layer = in.byte() >> 1U & 7U;
    if (!flexible) in.byte();  // TL0PICIDX
  }
  if (flexible && predicted) skip_references(in);
  if ((has & 0x02U) != 0) skip_scalability_structure(in);
  return read;
}

}  // namespace

void vp9_depayloader::add(byte_reader in, bool lost) {
  const descriptor of = read_descriptor(in);
  if (in.left() == 0 || of.begins == in_layer_frame_) return discard();
  if (size() == 0) {
    // The layers below were in what is lost.
    if (lost && of.spatial_layer > 0) return discard();
    if (!of.predicted && of.spatial_layer == 0) mark_key();
  }
  in_layer_frame_ = !of.ends;
  // Discards the picture itself where there is no room.
  static_cast<void>(append(in.rest(), in.left()));
}

void vp9_depayloader::close() {
  if (in_layer_frame_) discard();
  in_layer_frame_ = false;
}

}  // namespace zelta::core_service::rtp
