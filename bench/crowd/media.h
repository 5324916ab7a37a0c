// SPDX-License-Identifier: Apache-2.0
// What a crowd of users sends: a few seconds of encoded media, cut into RTP payloads once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::crowd {

using bytes = std::vector<uint8_t>;

// What real senders take, so that nothing on the way has to cut packets.
constexpr size_t kPayloadBytes = 1200;

// A picture or a packet of sound: what has one RTP time.
struct media_unit {
  bool key = false;  // decoding can begin here
  std::vector<bytes> payloads;
};

// Access units of a byte stream in which each begins with a delimiter; the delimiters aren't sent.
std::vector<media_unit> h264_units(const bytes& stream, size_t payload_bytes = kPayloadBytes);
std::vector<media_unit> vp8_units(const bytes& ivf, size_t payload_bytes = kPayloadBytes);
std::vector<media_unit> opus_units(const bytes& ogg);

// Media that is sent in a loop. It loops without a step in its times.
struct track {
  const char* kind = "";    // of the m= line
  const char* coding = "";  // of the a=rtpmap line
  const char* format = "";  // of the a=fmtp line, empty: none
  uint8_t payload_type = 0;
  uint32_t clock_rate = 0;
  uint32_t unit_ticks = 0;
  bool picture = false;
  std::vector<media_unit> units;
};

// "h264", "vp8" or "opus", encoded by ffmpeg: 640x360 at 15 pictures a second, 500 kbit/s, a key
// frame every two seconds; sound of 48 kbit/s, 20 ms a packet. None, with the reason on standard
// error, when that can't be had.
std::optional<track> make_track(const std::string& codec);

// Of an Ogg file of Opus, 20 ms a packet. None, with the reason on standard error.
std::optional<track> read_sound(const std::string& path);

}  // namespace zelta::crowd
