// SPDX-License-Identifier: Apache-2.0
// MP4 that a killed recorder leaves playable and a clean end makes plain and seekable.
//
//     while it grows   ftyp free moov  moof mdat  moof mdat ...
//     in the end       ftyp mdat(all of the above is its content) moov
//
// The end takes two steps: an index of everything is appended, and then the 16 bytes of "free"
// become the header of a box "mdat" that reaches from there to the index. Before the second step
// the file is still the fragmented one, whatever becomes of the first.
//
// Memory: the samples of one fragment, by reference; and of those before it 4 bytes each and 8 a
// fragment, for the index.
//
// Nothing here blocks or reads a clock. One thread at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core_service/media/mp4/track.h"
#include "core_service/media/muxer.h"

namespace zelta::core_service::media::mp4 {

// What a killed recorder loses, and one write.
constexpr media_time kFragment = std::chrono::milliseconds(200);

class muxer final : public media::muxer {
 public:
  // `brand`: of four characters. `creation`: seconds since 1970 UTC.
  muxer(const char* brand, bool video, bool sound, int64_t creation);

  std::vector<buffer_ptr> add(media_kind kind, const media_sample& sample) override;
  std::vector<buffer_ptr> finish() override;
  patch completion() override;

 private:
  track* of(media_kind kind);
  void close_fragment(bool all, std::vector<buffer_ptr>& out);
  bool put_fragment(bool all, box_writer& head, std::vector<buffer_ptr>& out);
  void put_head(box_writer& to);
  void put_moov(box_writer& to, bool whole) const;

  const char* const brand_;
  const uint64_t creation_;  // seconds since 1904
  std::optional<track> video_;
  std::optional<track> sound_;
  std::optional<media_time> begun_;  // of the open fragment, by decoding time
  uint32_t fragments_ = 0;
  uint64_t written_ = 0;
  uint64_t index_at_ = 0;
};

}  // namespace zelta::core_service::media::mp4
