// SPDX-License-Identifier: Apache-2.0
// A recording of the library, shared by all who need its memory: the session, and each frame that
// wasn't given back. The last one releases it.
//
// A session has finished it before it gives up its share, so that the release has nothing to wait
// for.
#pragma once

#include <zelta_recording.h>

namespace zelta::node {

class lease {
 public:
  explicit lease(zelta_recording* recording) : recording_(recording) {}
  ~lease() { zelta_recording_release(recording_); }
  lease(const lease&) = delete;
  lease& operator=(const lease&) = delete;
  zelta_recording* get() const { return recording_; }

 private:
  zelta_recording* const recording_;
};

}  // namespace zelta::node
