// SPDX-License-Identifier: Apache-2.0
// Encoded media as it goes from tracks to files, decoders and the application.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "core_service/media/codecs.h"
#include "core_service/media/shared_bytes.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

// What must be known of a stream before its first unit. Never changed: what differs in anything
// that is compared is another one, and a file holds units of one.
struct stream_format {
  const codec* kind = nullptr;
  // Of pictures, in pixels, and how many of them high a pixel is wide.
  int width = 0;
  int height = 0;
  int aspect_across = 1;
  int aspect_down = 1;
  // How many pictures may be decoded before the one that is shown first.
  int reordered = 0;
  // Of sound.
  int sample_rate = 0;
  int channels = 0;
  // Content of the box "avcC", "hvcC" or "av1C"; empty for codecs that have none.
  std::vector<uint8_t> config;
  // What a decoder is told in place of that, where the source of the stream has said more.
  std::shared_ptr<GstCaps> caps;

  bool operator==(const stream_format& other) const {
    return kind == other.kind && width == other.width && height == other.height &&
           aspect_across == other.aspect_across && aspect_down == other.aspect_down &&
           sample_rate == other.sample_rate && channels == other.channels && config == other.config;
  }
};
// How pictures are turned by whoever shows them. Aligned as a word of its size, without which
// compilers don't take it for one that is read and written at once.
struct alignas(8) picture_turn {
  int degrees = 0;       // clockwise
  bool flipped = false;  // and before that mirrored, left for right

  bool operator==(const picture_turn& other) const {
    return degrees == other.degrees && flipped == other.flipped;
  }
};
static_assert(std::atomic<picture_turn>::is_always_lock_free);

using format_ptr = std::shared_ptr<const stream_format>;

// One access unit, placed on the timeline. H.264 and HEVC in NAL units, each behind its length
// (ISO/IEC 14496-15), which is four bytes where it came by RTP; AV1 in OBUs with their sizes; all
// others as a container has them.
struct encoded_unit {
  shared_bytes bytes;
  format_ptr format;
  media_time time{};         // of presentation
  media_time decode_time{};  // never goes back
  media_time duration{};     // 0: unknown
  bool key = false;          // needs no other picture
  // Of sound, by its sender: so many dB below the loudest that there can be.
  std::optional<uint8_t> level;
  picture_turn turn = {};  // of pictures, for display
  // Of sound: what stood right before it in the stream was lost.
  bool after_loss = false;

  media_time end() const { return time + duration; }
};

}  // namespace zelta::core_service::media
