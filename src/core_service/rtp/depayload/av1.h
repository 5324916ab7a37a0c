// SPDX-License-Identifier: Apache-2.0
// AV1 in RTP ("RTP Payload Format For AV1", AOMedia): a unit is a temporal unit without its
// delimiter, its OBUs with their sizes.
#pragma once

#include "core_service/rtp/depayload/picture_depayloader.h"

namespace zelta::core_service::rtp {

class av1_depayloader final : public picture_depayloader {
 public:
  av1_depayloader(media::byte_pool& pool, sink to) : picture_depayloader(pool, std::move(to)) {}

 private:
  void add(byte_reader in, bool lost) override;
  void close() override;

  [[nodiscard]] bool begin_obu();
  // False: it is no OBU, and the unit has been discarded.
  [[nodiscard]] bool end_obu();
  // False: what it needs is missing.
  [[nodiscard]] bool look_at(unsigned type, byte_reader content);

  bool in_obu_ = false;
  size_t obu_at_ = 0;
  // Of the open unit.
  bool has_sequence_ = false;
  bool has_frame_ = false;
  bool begins_with_key_ = false;
  // Of the sequence: each of its frames is a key frame and doesn't say so.
  bool reduced_still_picture_ = false;
};

}  // namespace zelta::core_service::rtp
