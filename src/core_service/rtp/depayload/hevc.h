// SPDX-License-Identifier: Apache-2.0
// HEVC in RTP (RFC 7798): single NAL units, aggregation packets and fragmentation units, all
// without decoding order numbers, as sprop-max-don-diff is never negotiated. PACI packets count as
// damage.
#pragma once

#include "core_service/rtp/depayload/nal_depayloader.h"

namespace zelta::core_service::rtp {

class hevc_depayloader final : public nal_depayloader {
 public:
  hevc_depayloader(media::byte_pool& pool, sink to) : nal_depayloader(pool, std::move(to)) {}

 private:
  void add(byte_reader in, bool lost) override;
  nal_kind kind_of(const uint8_t* nal, size_t bytes) const override;
};

}  // namespace zelta::core_service::rtp
