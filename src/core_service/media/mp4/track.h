// SPDX-License-Identifier: Apache-2.0
// One track of an MP4: samples on their way into the next fragment, and the tables of all before.
//
// Times are in ticks of the track. In fragments they count from the earliest decoding time of all
// tracks, so that pictures that are decoded out of order need no edit, which players apply to
// fragments each in its own way. The index has edits, by which the movie begins with what is shown
// first.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "core_service/media/codecs.h"
#include "core_service/media/mp4/box_writer.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::media::mp4 {

// Of the times of the whole movie: a common multiple would be larger than players expect.
constexpr int64_t kMovieScale = 90'000;

class track {
 public:
  track(media_kind kind, uint32_t id) : kind_(kind), id_(id) {}

  // Samples in the order of decoding. The first one's caps describe all.
  void add(const media_sample& sample);
  // Whether a sample has come.
  bool known() const { return first_caps_ != nullptr; }
  // Of the first sample: of decoding, and of presentation.
  media_time first() const { return first_; }
  media_time shown() const { return shown_; }
  // Where the timelines of fragments and of the index begin, once all tracks are known.
  void set_zero(media_time first, media_time shown);

  // How many samples a fragment can have now: all but the last, whose duration the next one tells;
  // with `all` that one too.
  size_t ready(bool all) const {
    return all || pending_.empty() ? pending_.size() : pending_.size() - 1;
  }
  // The box "traf" of these samples, whose payload begins at `data_offset` from the box "moof".
  void put_fragment(box_writer& to, size_t count, uint32_t data_offset) const;
  // Moves the samples, of which there is one at least, out of the way and into the tables; their
  // payload begins at `offset` in the file and goes to `payload`. Returns its size in bytes.
  uint64_t take(size_t count, uint64_t offset, std::vector<buffer_ptr>& payload);
  uint64_t payload_bytes(size_t count) const;

  // The box "trak": empty tables for the head of a fragmented file, all of them for a plain one.
  void put_trak(box_writer& to, uint64_t creation, bool whole) const;
  // The box "trex".
  void put_trex(box_writer& to) const;
  // To the end of what was taken, in ticks of the movie.
  int64_t movie_ticks() const;

 private:
  struct pending {
    buffer_ptr data;
    uint32_t bytes = 0;
    int64_t decode = 0;       // from the track's first sample on
    int32_t composition = 0;  // presentation minus decoding
    uint32_t duration = 0;    // of the last one as its maker says; 0: unknown
    bool key = false;
  };
  template <class T>
  struct run {
    uint32_t count;
    T value;
  };

  int64_t ticks_of(media_time span) const;
  uint32_t duration_of(size_t index) const;
  void put_edits(box_writer& to) const;
  void put_entry(box_writer& to) const;
  void put_opus(box_writer& to) const;
  void put_aac(box_writer& to) const;
  void put_tables(box_writer& to) const;

  const media_kind kind_;
  const uint32_t id_;
  caps_ptr first_caps_;
  uint32_t scale_ = 0;  // ticks a second
  uint32_t rate_ = 0;   // of sound, as its sender had it
  bool opus_ = false;
  int width_ = 0;
  int height_ = 0;
  int channels_ = 0;
  std::vector<uint8_t> codec_data_;
  media_time first_{};
  media_time shown_{};
  int64_t start_ = 0;  // of the first sample in fragments
  int64_t blank_ = 0;  // before the first sample is shown, by the index
  int64_t delay_ = 0;  // from decoding to showing the first sample
  std::vector<pending> pending_;

  // What a player needs to find any sample. Grows by 4 bytes a sample and a little more.
  std::vector<run<uint32_t>> durations_;
  std::vector<run<int32_t>> compositions_;
  std::vector<uint32_t> sizes_;
  std::vector<uint32_t> keys_;                         // numbers of samples, from 1
  std::vector<std::pair<uint64_t, uint32_t>> chunks_;  // offset in the file, samples
  bool composed_ = false;                              // some composition isn't 0
  int64_t taken_ticks_ = 0;                            // of decoding
  int64_t shown_end_ = 0;
  uint32_t last_duration_ = 0;
};

}  // namespace zelta::core_service::media::mp4
