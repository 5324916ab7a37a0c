// SPDX-License-Identifier: Apache-2.0
// The film's pictures: who stands where at which time. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "canvas.h"
#include "label.h"
#include "picture_track.h"
#include "session.h"
#include "turns.h"

namespace zelta::lay {

enum class layout_kind { grid, side_by_side, speaker, file };

struct picture_plan {
  layout_kind kind = layout_kind::grid;
  picture_layout from_file;  // for layout_kind::file
  std::vector<turn> turns;   // for layout_kind::speaker
  int width = 1280;
  int height = 720;
  int fps = 25;
  bool names = false;
  bool clock = false;
};

class composer {
 public:
  // Both outlive this. Throws std::runtime_error.
  composer(const session& of, picture_plan plan, problems& found);

  // The picture at `t_us` of the session, which never goes back. Until the next call.
  AVFrame& at(int64_t t_us);

 private:
  struct seat {
    tile where;
    picture_track* track = nullptr;
    label name;
    uint64_t drawn = 0;
    bool was_there = false;
    const AVFrame* picture = nullptr;
  };
  void sit(const std::vector<tile>& tiles);
  void seat_those_of(int64_t t_us);
  void draw(seat& s, size_t slot);
  void set_clock(int64_t t_us);
  void draw_picture(const seat& s, size_t slot);
  bool pictures_changed(int64_t t_us, std::vector<bool>& changed);

  const session& of_;
  picture_plan plan_;
  problems& found_;
  canvas canvas_;
  std::map<uint32_t, std::unique_ptr<picture_track>> tracks_;
  std::vector<uint32_t> users_;  // who have pictures
  std::vector<seat> seats_;
  bool overlapping_ = false;
  bool all_anew_ = true;
  size_t turn_ = 0;
  label clock_;
  int64_t clock_s_ = -1;
};

// Whether some tile shines through or lies on another.
bool tiles_overlap(const std::vector<tile>& tiles);

}  // namespace zelta::lay
