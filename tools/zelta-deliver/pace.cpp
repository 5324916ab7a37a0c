// SPDX-License-Identifier: Apache-2.0
#include "pace.h"

#include <algorithm>

namespace zelta::deliver {
namespace {

// Those who wait for their turn at a low rate should not look stalled.
constexpr double kPiecesPerSecond = 32;
constexpr size_t kSmallestPiece = 256;

}  // namespace

pace::pace(int kbps) : bytes_per_second_(kbps * 125.0), free_at_(clock::now()) {}

bool pace::take(size_t bytes) {
  if (bytes_per_second_ <= 0) return !stopped_;
  std::unique_lock lock(mutex_);
  const auto mine = std::max(free_at_, clock::now());
  free_at_ = mine + std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(
                        static_cast<double>(bytes) / bytes_per_second_));
  changed_.wait_until(lock, mine, [this] { return stopped_.load(); });
  return !stopped_;
}

size_t pace::piece(size_t most) const {
  if (bytes_per_second_ <= 0) return most;
  return std::clamp<size_t>(static_cast<size_t>(bytes_per_second_ / kPiecesPerSecond),
                            std::min(kSmallestPiece, most), most);
}

void pace::stop() {
  // With the lock, or one who has looked and doesn't wait yet would miss it.
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

std::chrono::milliseconds backoff(int attempts, std::chrono::milliseconds first,
                                  std::chrono::milliseconds longest, uint32_t random) {
  const int doublings = std::clamp(attempts - 1, 0, 30);
  const int64_t whole = std::min(longest.count(), first.count() << doublings);
  return std::chrono::milliseconds(whole / 2 + whole * int64_t{random % 1024} / 2048);
}

}  // namespace zelta::deliver
