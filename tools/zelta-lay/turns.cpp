// SPDX-License-Identifier: Apache-2.0
#include "turns.h"

#include <algorithm>
#include <cmath>

#include "av.h"
#include "sound_track.h"

namespace zelta::lay {
namespace {

constexpr float kLouderDb = 6;
constexpr float kSpeechDb = -45;
constexpr size_t kWindow = 10;  // tenths of a second that are looked at
constexpr size_t kEnough = 7;   // of these
constexpr size_t kShortestTurn = 20;
// Between two words a speaker is still one: the level of who has the turn falls by that much a
// tenth of a second.
constexpr float kFallDb = 2;

constexpr int kBlock = kSampleRate / 10;

float level_of(const std::vector<float>& samples) {
  double sum = 0;
  for (const float s : samples) sum += static_cast<double>(s) * s;
  const double mean = sum / static_cast<double>(samples.size());
  return mean < 1e-10 ? kSilence : static_cast<float>(10 * std::log10(mean));
}

bool shows(const user& u, int64_t t_us) {
  return std::any_of(u.stretches.begin(), u.stretches.end(), [t_us](const stretch& s) {
    return s.has_picture() && s.begin_us <= t_us && t_us < s.end_us;
  });
}

std::vector<float> with_slow_fall(const std::vector<float>& db) {
  std::vector<float> made = db;
  for (size_t i = 1; i < made.size(); ++i) made[i] = std::max(made[i], made[i - 1] - kFallDb);
  return made;
}

bool takes_over(const std::vector<float>& other, const std::vector<float>& holder, size_t now) {
  if (now + 1 < kWindow) return false;
  size_t louder = 0;
  for (size_t i = now + 1 - kWindow; i <= now; ++i) {
    if (other[i] >= kSpeechDb && other[i] >= holder[i] + kLouderDb) ++louder;
  }
  return louder >= kEnough;
}

size_t loudest_there(const std::vector<levels>& of, const std::vector<std::vector<float>>& db,
                     size_t now) {
  size_t best = of.size();
  for (size_t u = 0; u < of.size(); ++u) {
    if (of[u].there[now] && (best == of.size() || db[u][now] > db[best][now])) best = u;
  }
  return best;
}

}  // namespace

std::vector<levels> measure_levels(const session& of, int64_t from_us, int64_t to_us,
                                   problems& found) {
  std::vector<levels> made;
  const auto tenths = static_cast<size_t>((to_us - from_us + kLevelUs - 1) / kLevelUs);
  const int64_t first = av_rescale(from_us, kSampleRate, 1000000);
  std::vector<float> block(size_t{2} * kBlock);
  for (const user& u : of.users) {
    if (!u.has_picture()) continue;
    levels one;
    one.uid = u.uid;
    sound_track sound(u, found);
    for (size_t i = 0; i < tenths; ++i) {
      std::fill(block.begin(), block.end(), 0.0F);
      sound.add(first + static_cast<int64_t>(i) * kBlock, kBlock, block.data());
      one.db.push_back(level_of(block));
      one.there.push_back(shows(u, from_us + static_cast<int64_t>(i) * kLevelUs));
    }
    made.push_back(std::move(one));
  }
  return made;
}

std::vector<turn> find_turns(const std::vector<levels>& of, int64_t from_us) {
  std::vector<turn> made;
  if (of.empty()) return made;
  std::vector<std::vector<float>> db;
  db.reserve(of.size());
  for (const levels& l : of) db.push_back(with_slow_fall(l.db));
  size_t holder = of.size();
  size_t since = 0;
  for (size_t now = 0; now < of[0].db.size(); ++now) {
    size_t next = holder;
    if (holder == of.size() || !of[holder].there[now]) {
      const size_t loudest = loudest_there(of, db, now);
      if (loudest != of.size()) next = loudest;
    } else if (now - since >= kShortestTurn) {
      for (size_t u = 0; u < of.size(); ++u) {
        if (u == holder || !of[u].there[now] || !takes_over(of[u].db, db[holder], now)) continue;
        if (next == holder || db[u][now] > db[next][now]) next = u;
      }
    }
    if (next == holder) continue;
    holder = next;
    since = now;
    // The film's first picture has a speaker as well, who comes later.
    made.push_back(
        {made.empty() ? from_us : from_us + static_cast<int64_t>(now) * kLevelUs, of[holder].uid});
  }
  return made;
}

}  // namespace zelta::lay
