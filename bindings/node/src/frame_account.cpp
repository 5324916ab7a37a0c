// SPDX-License-Identifier: Apache-2.0
#include "frame_account.h"

namespace zelta::node {

namespace {

constexpr uint64_t kDefaultQueueBytes = uint64_t{64} << 20;
// What the library counts for a frame besides its bytes, about.
constexpr size_t kDescription = 256;
// More than any heap may have beside it, so that a collection isn't only planned.
constexpr int64_t kPressure = int64_t{1} << 40;
// A collection takes milliseconds, and who holds frames on purpose loses some all the time.
constexpr std::chrono::seconds kBetweenDrops{1};

}  // namespace

frame_account::frame_account(uint64_t queue_bytes)
    : bound_(queue_bytes != 0 ? queue_bytes : kDefaultQueueBytes) {}

void frame_account::lent(napi_env env, size_t bytes) {
  lent_ += bytes + kDescription;
  lent_since_press_ += bytes + kDescription;
  if (lent_ > bound_ / 2 && lent_since_press_ > bound_ / 8) press(env);
}

void frame_account::given_back(size_t bytes) {
  lent_ -= bytes + kDescription;
}

void frame_account::dropped(napi_env env) {
  if (lent_ > 0 && std::chrono::steady_clock::now() - pressed_ > kBetweenDrops) press(env);
}

// The collector is told of memory that it would be answerable for, and then that it has gone.
void frame_account::press(napi_env env) {
  int64_t all = 0;
  lent_since_press_ = 0;
  static_cast<void>(napi_adjust_external_memory(env, kPressure, &all));
  static_cast<void>(napi_adjust_external_memory(env, -kPressure, &all));
  pressed_ = std::chrono::steady_clock::now();
}

}  // namespace zelta::node
