// SPDX-License-Identifier: Apache-2.0
// What all formats of pictures share: the packets of one RTP timestamp are one unit, which ends
// with the marker bit or with another timestamp, and what is missing is told with the next unit
// that comes out.
#pragma once

#include <utility>

#include "core_service/rtp/depayload/byte_reader.h"
#include "core_service/rtp/depayload/depayloader.h"

namespace zelta::core_service::rtp {

class picture_depayloader : public depayloader {
 public:
  // A stranger's packets must not fill the memory.
  static constexpr size_t kMostBytes = size_t{32} << 20;

  void push(const packet& one, bool lost) final;
  void finish() final;

 protected:
  picture_depayloader(media::byte_pool& pool, sink to) : unit_(pool), to_(std::move(to)) {}

  // The payload of a packet of the open unit; never empty. Not called once the unit is discarded.
  virtual void add(byte_reader in, bool lost) = 0;
  // Packets are missing behind the last one of the open unit: of it, of the next one, or of both.
  virtual void on_loss() { discard(); }
  // The stream ends with the open unit, whose marker has not come.
  virtual void on_finish() {}
  // The open unit, which may be discarded, has got all its packets: what it holds comes out after
  // this. The next one begins anew.
  virtual void close() = 0;

  // For the unit that is open or, if it won't come out, the next one.
  void damage() { damaged_ = true; }
  // The open unit won't come out.
  void discard();
  void mark_key() { key_ = true; }

  // False: the unit would be too large and has been discarded.
  [[nodiscard]] bool append(const uint8_t* bytes, size_t count);
  void shorten(size_t size) { unit_.shorten(size); }
  uint8_t* data() { return unit_.data(); }
  size_t size() const { return unit_.size(); }

 private:
  void end();

  media::byte_builder unit_;
  const sink to_;
  uint32_t timestamp_ = 0;
  bool open_ = false;
  bool discarded_ = false;
  bool damaged_ = false;
  bool key_ = false;
};

}  // namespace zelta::core_service::rtp
