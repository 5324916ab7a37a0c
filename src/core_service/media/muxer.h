// SPDX-License-Identifier: Apache-2.0
// What makes a file of samples: bytes to append, and in the end some that are written over.
//
// Nothing here blocks or reads a clock. One thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "core_service/media/codecs.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

class muxer {
 public:
  virtual ~muxer() = default;

  // Samples of each kind in the order of decoding; of one that the file doesn't hold they are
  // ignored. Returns what is to be appended to the file, most times nothing. The first bytes wait
  // until every track has had a sample, because the head describes them all.
  virtual std::vector<buffer_ptr> add(media_kind kind, const media_sample& sample) = 0;
  // The rest and the index. A track that never had a sample is left out.
  virtual std::vector<buffer_ptr> finish() = 0;

  struct patch {
    uint64_t at;
    std::vector<uint8_t> bytes;
  };
  // After finish(): what completes the file once all else is in it. Until then it is one that a
  // killed recorder leaves.
  virtual patch completion() = 0;
};

}  // namespace zelta::core_service::media
