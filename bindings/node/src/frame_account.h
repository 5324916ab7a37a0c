// SPDX-License-Identifier: Apache-2.0
// How much of a recording's queue is lent to frames that JavaScript has, and when the collector is
// to look which of them nobody has any more.
//
// The collector knows nothing of a queue that fills up: where frames aren't released, nothing more
// would come, and so nothing would be allocated that makes it begin.
//
// Thread rule: all of it belongs to the thread of the environment.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include <node_api.h>

namespace zelta::node {

class frame_account {
 public:
  // `queue_bytes`: as the recording was made with; 0 is the library's default.
  explicit frame_account(uint64_t queue_bytes);

  // A frame of so many bytes was handed out: once half of the queue is, the collector begins.
  void lent(napi_env env, size_t bytes);
  void given_back(size_t bytes);
  // Frames were dropped.
  void dropped(napi_env env);

 private:
  void press(napi_env env);

  const uint64_t bound_;
  uint64_t lent_ = 0;
  uint64_t lent_since_press_ = 0;
  std::chrono::steady_clock::time_point pressed_{};
};

}  // namespace zelta::node
