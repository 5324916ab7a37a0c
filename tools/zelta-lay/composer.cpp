// SPDX-License-Identifier: Apache-2.0
#include "composer.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace zelta::lay {
namespace {

std::string clock_text(int64_t utc_s) {
  const auto when = static_cast<time_t>(utc_s);
  tm parts{};
  char text[64] = "";
  if (gmtime_r(&when, &parts) != nullptr) {
    (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
  }
  return text;
}

int font_of(int height) {
  return std::max(10, height / 28);
}

}  // namespace

bool tiles_overlap(const std::vector<tile>& tiles) {
  for (size_t i = 0; i < tiles.size(); ++i) {
    const tile& a = tiles[i];
    if (a.alpha < 1) return true;
    for (size_t k = 0; k < i; ++k) {
      const tile& b = tiles[k];
      if (a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height &&
          b.y < a.y + a.height) {
        return true;
      }
    }
  }
  return false;
}

composer::composer(const session& of, picture_plan plan, problems& found)
    : of_(of), plan_(std::move(plan)), found_(found), canvas_(plan_.width, plan_.height) {
  for (const user& u : of.users) {
    if (!u.has_picture()) continue;
    users_.push_back(u.uid);
    tracks_[u.uid] = std::make_unique<picture_track>(u, kSecond / plan_.fps / 2, found);
  }
  if (plan_.kind == layout_kind::grid) sit(grid_tiles(users_, plan_.width, plan_.height));
  if (plan_.kind == layout_kind::side_by_side) {
    sit(side_by_side_tiles(users_, plan_.width, plan_.height));
  }
  if (plan_.kind == layout_kind::file) sit(plan_.from_file.tiles);
}

void composer::sit(const std::vector<tile>& tiles) {
  seats_.clear();
  for (const tile& t : tiles) {
    seat s;
    s.where = t;
    const auto track = tracks_.find(t.uid);
    if (track != tracks_.end()) s.track = track->second.get();
    const user* const u = of_.find(t.uid);
    if (plan_.names && u != nullptr) {
      s.name = draw_label(u->name, font_of(plan_.height), t.width);
      if (s.name.height > t.height) s.name = {};
    }
    seats_.push_back(std::move(s));
  }
  overlapping_ = tiles_overlap(tiles);
  all_anew_ = true;
}

void composer::seat_those_of(int64_t t_us) {
  if (plan_.kind != layout_kind::speaker || plan_.turns.empty()) return;
  const size_t before = turn_;
  while (turn_ + 1 < plan_.turns.size() && plan_.turns[turn_ + 1].begin_us <= t_us) ++turn_;
  if (turn_ == before && !seats_.empty()) return;
  sit(speaker_tiles(users_, plan_.turns[turn_].uid, plan_.width, plan_.height));
}

bool composer::pictures_changed(int64_t t_us, std::vector<bool>& changed) {
  bool any = false;
  for (seat& s : seats_) {
    s.picture = s.track == nullptr ? nullptr : s.track->at(t_us);
    const bool there = s.picture != nullptr;
    const bool other = all_anew_ || there != s.was_there || (there && s.track->serial() != s.drawn);
    s.was_there = there;
    if (s.track != nullptr) s.drawn = s.track->serial();
    changed.push_back(other);
    any = any || other;
  }
  return any || all_anew_;
}

void composer::draw_picture(const seat& s, size_t slot) {
  if (s.picture != nullptr) {
    if (canvas_.draw(*s.picture, s.where, slot)) return;
    found_.add("pictures of user " + std::to_string(s.where.uid) + " are of a kind that can't be " +
               "scaled");
  }
  canvas_.draw_empty(s.where);
}

void composer::draw(seat& s, size_t slot) {
  draw_picture(s, slot);
  if (s.name.width == 0) return;
  const int right = s.where.width - s.name.width;
  const int down = s.where.height - s.name.height;
  const bool empty = s.picture == nullptr;
  put_label(s.name, s.where.x + (empty ? right / 4 * 2 : 0),
            s.where.y + (empty ? down / 4 * 2 : down / 2 * 2), canvas_.picture());
}

void composer::set_clock(int64_t t_us) {
  const int64_t utc_s = (of_.zero_utc_us + t_us) / kSecond;
  if (utc_s == clock_s_) return;
  clock_s_ = utc_s;
  label next = draw_label(clock_text(utc_s), font_of(plan_.height), plan_.width);
  // A narrower one would leave the edges of the one before.
  if (next.width != clock_.width || next.height != clock_.height) all_anew_ = true;
  clock_ = std::move(next);
}

AVFrame& composer::at(int64_t t_us) {
  seat_those_of(t_us);
  if (plan_.clock) set_clock(t_us);
  std::vector<bool> changed;
  if (pictures_changed(t_us, changed)) {
    canvas_.begin();
    const bool all = all_anew_ || overlapping_;
    if (all) canvas_.clear(plan_.from_file.background);
    for (size_t i = 0; i < seats_.size(); ++i) {
      if (all || changed[i]) draw(seats_[i], i);
    }
    all_anew_ = false;
  }
  if (plan_.clock) {
    canvas_.begin();
    put_label(clock_, std::max(0, plan_.width - clock_.width) / 2 * 2, 0, canvas_.picture());
  }
  return canvas_.picture();
}

}  // namespace zelta::lay
