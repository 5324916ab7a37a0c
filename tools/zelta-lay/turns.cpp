// SPDX-License-Identifier: Apache-2.0
#include "turns.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "av.h"
#include "sound_track.h"
#include "stop_signal.h"

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

size_t tenths_in(const span& what) {
  return static_cast<size_t>((what.length_us() + kLevelUs - 1) / kLevelUs);
}

levels silence(const user& u, const span& what) {
  levels made;
  made.uid = u.uid;
  made.db.assign(tenths_in(what), kSilence);
  for (size_t i = 0; i < made.db.size(); ++i) {
    made.there.push_back(shows(u, what.from_us + static_cast<int64_t>(i) * kLevelUs));
  }
  return made;
}

// A volume is the peak of a sine, of 255; a level its mean square.
float level_of_volume(uint8_t volume) {
  return volume == 0 ? kSilence : 20 * std::log10(static_cast<float>(volume) / 255) - 3.01F;
}

void take_volumes(levels& into, const std::vector<recordings::volume_line>& lines,
                  const session& of, const span& what) {
  for (const recordings::volume_line& line : lines) {
    int64_t at = line.utc_ms * 1000 - of.zero_utc_us - what.from_us;
    for (const uint8_t volume : line.volumes) {
      const int64_t next = at + line.step_ms * 1000;
      const auto end = std::min(static_cast<int64_t>(into.db.size()), next / kLevelUs);
      for (int64_t i = std::max<int64_t>(0, at / kLevelUs); i < end; ++i) {
        float& db = into.db[static_cast<size_t>(i)];
        db = std::max(db, level_of_volume(volume));
      }
      at = next;
    }
  }
}

// The user with those files alone in whose time no volume was noted: who wasn't heard once has a
// sender that doesn't tell, or was silent.
user without_noted(const user& u, const std::vector<recordings::volume_line>& lines,
                   const session& of) {
  user made = u;
  const auto is_noted = [&](const stretch& s) {
    const auto line = std::lower_bound(
        lines.begin(), lines.end(), (of.zero_utc_us + s.begin_us) / 1000,
        [](const recordings::volume_line& l, int64_t utc_ms) { return l.utc_ms < utc_ms; });
    return line != lines.end() && line->utc_ms * 1000 < of.zero_utc_us + s.end_us;
  };
  made.stretches.erase(std::remove_if(made.stretches.begin(), made.stretches.end(), is_noted),
                       made.stretches.end());
  return made;
}

void listen(levels& into, const user& to, const span& what, problems& found,
            const std::function<void(int64_t)>& progress) {
  sound_track sound(to, found);
  const int64_t first = av_rescale(what.from_us, kSampleRate, kSecond);
  std::vector<float> block(size_t{2} * kBlock);
  for (size_t i = 0; i < into.db.size(); ++i) {
    throw_if_stopped();
    std::fill(block.begin(), block.end(), 0.0F);
    sound.add(first + static_cast<int64_t>(i) * kBlock, kBlock, block.data());
    into.db[i] = std::max(into.db[i], level_of(block));
    progress(static_cast<int64_t>(i) * kLevelUs);
  }
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

std::vector<levels> measure_levels(const session& of, const recordings::volume_lines& noted,
                                   const span& what, problems& found,
                                   const std::function<void(int64_t, int64_t)>& progress) {
  std::vector<levels> made;
  std::vector<user> unheard;
  for (const user& u : of.users) {
    if (!u.has_picture()) continue;
    const auto lines = noted.find(u.uid);
    levels one = silence(u, what);
    if (lines != noted.end()) take_volumes(one, lines->second, of, what);
    unheard.push_back(lines == noted.end() ? u : without_noted(u, lines->second, of));
    made.push_back(std::move(one));
  }
  const int64_t all_us = what.length_us() * static_cast<int64_t>(made.size());
  for (size_t i = 0; i < made.size(); ++i) {
    const int64_t before_us = what.length_us() * static_cast<int64_t>(i);
    if (!unheard[i].has_sound()) continue;
    listen(made[i], unheard[i], what, found,
           [&](int64_t heard_us) { progress(before_us + heard_us, all_us); });
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
