// SPDX-License-Identifier: Apache-2.0
// WebM that a killed recorder leaves playable and a clean end makes seekable.
//
//     while it grows   EBML  Segment(of unknown size: room, Info, Tracks, Cluster, Cluster ...
//     in the end       EBML  Segment(SeekHead, Info with the duration, Tracks, Cluster ..., Cues)
//
// The end takes two steps: the cues are appended, and then the head, which lies in one page, is
// written over.
//
// Memory: the samples of one cluster, by reference; and of those before it 16 bytes a key frame.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "core_service/media/muxer.h"

namespace zelta::core_service::media::webm {

class muxer final : public media::muxer {
 public:
  muxer(bool video, bool sound);

  std::vector<buffer_ptr> add(media_kind kind, const media_sample& sample) override;
  std::vector<buffer_ptr> finish() override;
  patch completion() override;

 private:
  struct track {
    explicit track(uint8_t wanted) : number(wanted) {}
    uint8_t number;
    caps_ptr caps;  // of the first sample; null: none has come
    media_time latest{};
    std::deque<media_sample> pending;
  };
  struct cue {
    uint64_t time_ms;
    uint64_t cluster;  // from the segment's content on
  };

  struct block {
    uint8_t track;
    media_sample of;
  };
  using block_at = std::vector<block>::iterator;

  track* of(media_kind kind);
  bool known() const;
  media_time reached() const;
  void put_clusters(media_time until, std::vector<buffer_ptr>& out);
  void put_cluster(block_at from, block_at to, std::vector<buffer_ptr>& out);
  void note_cue(const block& one);
  void append(const std::vector<uint8_t>& bytes, std::vector<buffer_ptr>& out);
  uint64_t ms_of(media_time time) const;
  std::vector<uint8_t> head();

  std::optional<track> video_;
  std::optional<track> sound_;
  std::optional<media_time> zero_;   // of the file's times
  std::optional<media_time> begun_;  // when the open cluster's first sample is from
  media_time end_{};
  uint64_t written_ = 0;
  uint64_t content_at_ = 0;  // of the segment
  std::vector<cue> cues_;
  uint64_t cues_at_ = 0;  // 0: it still grows
};

}  // namespace zelta::core_service::media::webm
