// SPDX-License-Identifier: Apache-2.0
// From RTP packets to access units: one class a payload format, without a thread, a clock or, once
// warm, an allocation.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "core_service/media/codecs.h"
#include "core_service/media/shared_bytes.h"
#include "core_service/rtp/packet.h"

namespace zelta::core_service::rtp {

// In the form of media::encoded_unit.
struct depayloaded {
  media::shared_bytes bytes;
  uint32_t timestamp = 0;  // RTP's
  bool key = false;
  // Something of it is missing, or of what it needs: a key frame would help.
  bool damaged = false;
};

class depayloader {
 public:
  using sink = std::function<void(depayloaded&&)>;

  virtual ~depayloader() = default;
  // The packets of one stream in the order of their sequence numbers. `lost`: at least one is
  // missing right before this one. Units come out from inside the call.
  virtual void push(const packet& one, bool lost) = 0;
  // Nothing comes any more: what is whole comes out.
  virtual void finish() = 0;
};

// For a codec that has a name in session descriptions (`codec::rtp`). Pool and sink are used as
// long as it lives; the pool is borrowed.
std::unique_ptr<depayloader> make_depayloader(const media::codec& of, media::byte_pool& pool,
                                              depayloader::sink to);

}  // namespace zelta::core_service::rtp
