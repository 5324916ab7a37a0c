// SPDX-License-Identifier: Apache-2.0
// What H.264 and HEVC share: units of NAL units, each behind its length in four bytes. A NAL unit
// of which something is missing is left out, what else there is of its access unit comes out.
#pragma once

#include "core_service/rtp/depayload/picture_depayloader.h"

namespace zelta::core_service::rtp {

enum class nal_kind {
  kKept,
  kKey,      // kept, of a picture that needs no other
  kLeftOut,  // says nothing that a file doesn't say itself
  kBroken,
};

class nal_depayloader : public picture_depayloader {
 protected:
  using picture_depayloader::picture_depayloader;

  // Of `bytes` from a stranger, which may be none.
  virtual nal_kind kind_of(const uint8_t* nal, size_t bytes) const = 0;

  void add_nal(const uint8_t* nal, size_t bytes);
  // NAL units, each behind its length in two bytes, to the end of the packet.
  void add_aggregate(byte_reader in);

  struct fragment {
    const uint8_t* header;  // of the NAL unit that is in fragments
    size_t header_bytes;
    bool begins;
    bool ends;
  };
  void add_fragment(const fragment& one, byte_reader in);
  // What came can't be understood.
  void lose();

 private:
  void on_loss() override { lose(); }
  void close() override { abandon_nal(); }

  [[nodiscard]] bool begin_nal();
  void end_nal();
  void abandon_nal();

  bool in_nal_ = false;
  size_t nal_at_ = 0;
};

}  // namespace zelta::core_service::rtp
