// SPDX-License-Identifier: Apache-2.0
// VP8 in RTP (RFC 7741): a frame is what its packets hold behind their descriptors.
#pragma once

#include "core_service/rtp/depayload/picture_depayloader.h"

namespace zelta::core_service::rtp {

class vp8_depayloader final : public picture_depayloader {
 public:
  vp8_depayloader(media::byte_pool& pool, sink to) : picture_depayloader(pool, std::move(to)) {}

 private:
  void add(byte_reader in, bool lost) override;
  // Only its marker tells that a frame is whole.
  void on_finish() override { discard(); }
  void close() override {}
};

}  // namespace zelta::core_service::rtp
