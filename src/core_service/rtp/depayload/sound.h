// SPDX-License-Identifier: Apache-2.0
// Sound of which every packet is a unit: Opus (RFC 7587, section 4.2), PCMU and PCMA (RFC 3551,
// section 4.5.14).
#pragma once

#include <utility>

#include "core_service/rtp/depayload/depayloader.h"

namespace zelta::core_service::rtp {

class sound_depayloader final : public depayloader {
 public:
  sound_depayloader(media::byte_pool& pool, sink to) : unit_(pool), to_(std::move(to)) {}

  void push(const packet& one, bool lost) override;
  void finish() override {}

 private:
  media::byte_builder unit_;
  const sink to_;
  bool damaged_ = false;
};

}  // namespace zelta::core_service::rtp
