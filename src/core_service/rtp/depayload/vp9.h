// SPDX-License-Identifier: Apache-2.0
// VP9 in RTP (RFC 9628): a unit is a picture with the frames of all its spatial layers, as they
// come.
#pragma once

#include "core_service/rtp/depayload/picture_depayloader.h"

namespace zelta::core_service::rtp {

class vp9_depayloader final : public picture_depayloader {
 public:
  vp9_depayloader(media::byte_pool& pool, sink to) : picture_depayloader(pool, std::move(to)) {}

 private:
  void add(byte_reader in, bool lost) override;
  void close() override;

  bool in_layer_frame_ = false;
};

}  // namespace zelta::core_service::rtp
