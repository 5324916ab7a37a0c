// SPDX-License-Identifier: Apache-2.0
// How much all transfers together may send, and whether they are to go on at all. Any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace zelta::deliver {

class pace {
 public:
  // 0: as much as the way carries.
  explicit pace(int kbps);

  // Waits until `bytes` more may be sent, or until stop(); false after that. Of pieces that are
  // small beside a second's worth the sum is exact.
  bool take(size_t bytes);
  // How much of `most` should be asked for at a time: what goes in a fraction of a second.
  size_t piece(size_t most) const;
  void stop();
  bool stopped() const { return stopped_; }

 private:
  using clock = std::chrono::steady_clock;

  const double bytes_per_second_;
  std::atomic<bool> stopped_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  clock::time_point free_at_;  // when what was taken so far has gone
};

// The time until the next try after `attempts` failures in a row: twice as long each time, of which
// a random share between half and all, so that those who failed together don't come back together.
std::chrono::milliseconds backoff(int attempts, std::chrono::milliseconds first,
                                  std::chrono::milliseconds longest, uint32_t random);

}  // namespace zelta::deliver
