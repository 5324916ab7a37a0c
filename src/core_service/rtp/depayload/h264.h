// SPDX-License-Identifier: Apache-2.0
// H.264 in RTP (RFC 6184): single NAL units, STAP-A and FU-A, which is all that the packetization
// modes 0 and 1 allow. The interleaved mode is never negotiated, so its packets count as damage.
#pragma once

#include "core_service/rtp/depayload/nal_depayloader.h"

namespace zelta::core_service::rtp {

class h264_depayloader final : public nal_depayloader {
 public:
  h264_depayloader(media::byte_pool& pool, sink to) : nal_depayloader(pool, std::move(to)) {}

 private:
  void add(byte_reader in, bool lost) override;
  nal_kind kind_of(const uint8_t* nal, size_t bytes) const override;
};

}  // namespace zelta::core_service::rtp
