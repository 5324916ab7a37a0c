// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/nal_depayloader.h"

namespace zelta::core_service::rtp {
namespace {

constexpr size_t kLengthBytes = 4;

}  // namespace

void nal_depayloader::add_nal(const uint8_t* nal, size_t bytes) {
  if (begin_nal() && append(nal, bytes)) end_nal();
}

void nal_depayloader::add_aggregate(byte_reader in) {
  if (in.left() == 0) return lose();
  while (in.left() > 0) {
    const size_t bytes = in.big_endian16();
    const uint8_t* const nal = in.take(bytes);
    if (!in.ok()) return lose();
    add_nal(nal, bytes);
  }
}

void nal_depayloader::add_fragment(const fragment& one, byte_reader in) {
  if (one.begins && !(begin_nal() && append(one.header, one.header_bytes))) return;
  if (!in_nal_) return lose();
  if (append(in.rest(), in.left()) && one.ends) end_nal();
}

void nal_depayloader::lose() {
  abandon_nal();
  damage();
}

bool nal_depayloader::begin_nal() {
  abandon_nal();
  constexpr uint8_t kUnknownYet[kLengthBytes] = {};
  nal_at_ = size();
  in_nal_ = append(kUnknownYet, sizeof kUnknownYet);
  return in_nal_;
}

void nal_depayloader::end_nal() {
  in_nal_ = false;
  uint8_t* const length = data() + nal_at_;
  const size_t bytes = size() - nal_at_ - kLengthBytes;
  const nal_kind kind = kind_of(length + kLengthBytes, bytes);
  if (kind == nal_kind::kBroken) damage();
  if (kind == nal_kind::kBroken || kind == nal_kind::kLeftOut) return shorten(nal_at_);
  if (kind == nal_kind::kKey) mark_key();
  for (size_t i = 0; i < kLengthBytes; ++i) {
    length[i] = static_cast<uint8_t>(bytes >> 8 * (kLengthBytes - 1 - i));
  }
}

void nal_depayloader::abandon_nal() {
  if (!in_nal_) return;
  in_nal_ = false;
  shorten(nal_at_);
  damage();
}

}  // namespace zelta::core_service::rtp
