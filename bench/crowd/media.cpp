// SPDX-License-Identifier: Apache-2.0
#include "crowd/media.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <utility>

namespace zelta::crowd {
namespace {

// RFC 6184 sections 5.2 and 5.8, and ITU-T H.264 table 7-1.
constexpr uint8_t kTypeBits = 0x1f;
constexpr uint8_t kIdr = 5;
constexpr uint8_t kDelimiter = 9;
constexpr uint8_t kFuA = 28;
constexpr uint8_t kFuStart = 0x80;
constexpr uint8_t kFuEnd = 0x40;
constexpr size_t kFuBytes = 2;

// RFC 7741 section 4.2: the S bit. Without a picture id, which would jump where the loop begins
// anew.
constexpr uint8_t kPartitionStart = 0x10;

constexpr size_t kIvfHeader = 32;
constexpr size_t kIvfFrameHeader = 12;

// RFC 3533 section 6.
constexpr size_t kOggHeader = 27;
constexpr size_t kOggSegmentCount = 26;
constexpr uint8_t kLacingGoesOn = 255;
// RFC 7845 section 3: the identification and the comment.
constexpr size_t kOpusHeaders = 2;

bytes slice(const bytes& of, size_t begin, size_t end) {
  const auto at = [&of](size_t index) { return of.begin() + static_cast<std::ptrdiff_t>(index); };
  return {at(begin), at(end)};
}

// Where the next start code begins, or the end.
size_t find_start_code(const bytes& stream, size_t from) {
  constexpr std::array<uint8_t, 3> kCode{0, 0, 1};
  const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(from);
  return static_cast<size_t>(std::search(begin, stream.end(), kCode.begin(), kCode.end()) -
                             stream.begin());
}

void add_nal_unit(media_unit& unit, const bytes& nal, size_t payload_bytes) {
  if (nal.size() <= payload_bytes) {
    unit.payloads.push_back(nal);
    return;
  }
  const size_t step = payload_bytes - kFuBytes;
  for (size_t at = 1; at < nal.size(); at += step) {
    const size_t end = std::min(at + step, nal.size());
    auto flags = static_cast<uint8_t>(nal[0] & kTypeBits);
    if (at == 1) flags |= kFuStart;
    if (end == nal.size()) flags |= kFuEnd;
    bytes payload{static_cast<uint8_t>((nal[0] & ~kTypeBits) | kFuA), flags};
    const bytes part = slice(nal, at, end);
    payload.insert(payload.end(), part.begin(), part.end());
    unit.payloads.push_back(std::move(payload));
  }
}

struct file_close {
  void operator()(FILE* file) const { pclose(file); }
};

bytes output_of(const std::string& command) {
  const std::unique_ptr<FILE, file_close> out(popen(command.c_str(), "re"));
  bytes all;
  std::array<uint8_t, 65536> block{};
  while (out) {
    const size_t got = std::fread(block.data(), 1, block.size(), out.get());
    if (got == 0) break;
    all.insert(all.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(got));
  }
  return all;
}

struct recipe {
  const char* codec;
  std::vector<media_unit> (*parse)(const bytes&);
  size_t units;  // ten seconds
  const char* command;
  track made;
};

std::vector<media_unit> h264_of(const bytes& stream) {
  return h264_units(stream);
}
std::vector<media_unit> vp8_of(const bytes& stream) {
  return vp8_units(stream);
}

const std::vector<recipe>& recipes() {
  static const std::vector<recipe> all{
      {"h264",
       h264_of,
       150,
       "ffmpeg -v error -f lavfi -i testsrc2=s=640x360:r=15:d=10,noise=alls=6:allf=t -c:v libx264 "
       "-preset veryfast -tune zerolatency -profile:v baseline -pix_fmt yuv420p -b:v 500k "
       "-maxrate 500k -bufsize 500k -x264-params "
       "aud=1:repeat-headers=1:keyint=30:min-keyint=30:scenecut=0 -f h264 -",
       {"video", "H264/90000", "packetization-mode=1", 96, 90000, 6000, true, {}}},
      {"vp8",
       vp8_of,
       150,
       "ffmpeg -v error -f lavfi -i testsrc2=s=640x360:r=15:d=10,noise=alls=6:allf=t -c:v libvpx "
       "-deadline realtime -cpu-used 8 -auto-alt-ref 0 -lag-in-frames 0 -pix_fmt yuv420p -b:v 500k "
       "-maxrate 500k -minrate 500k -bufsize 500k -g 30 -keyint_min 30 -f ivf -",
       {"video", "VP8/90000", "", 96, 90000, 6000, true, {}}},
      {"opus",
       opus_units,
       500,
       "ffmpeg -v error -f lavfi -i anoisesrc=r=48000:a=0.1:d=11 -ac 1 -c:a libopus -b:a 48k "
       "-vbr off -frame_duration 20 -f ogg -",
       {"audio", "opus/48000/2", "", 97, 48000, 960, false, {}}},
  };
  return all;
}

}  // namespace

std::vector<media_unit> h264_units(const bytes& stream, size_t payload_bytes) {
  std::vector<media_unit> units;
  for (size_t code = find_start_code(stream, 0); code < stream.size();) {
    const size_t begin = code + 3;
    code = find_start_code(stream, begin);
    size_t end = code;
    // The zero byte of a longer start code; a NAL unit ends in none of its own.
    while (end > begin && stream[end - 1] == 0) --end;
    if (end == begin) continue;
    const bytes nal = slice(stream, begin, end);
    const uint8_t type = nal[0] & kTypeBits;
    if (type == kDelimiter || units.empty()) units.emplace_back();
    if (type == kDelimiter) continue;
    if (type == kIdr) units.back().key = true;
    add_nal_unit(units.back(), nal, payload_bytes);
  }
  return units;
}

std::vector<media_unit> vp8_units(const bytes& ivf, size_t payload_bytes) {
  std::vector<media_unit> units;
  for (size_t at = kIvfHeader; at + kIvfFrameHeader < ivf.size();) {
    const size_t size = ivf[at] | static_cast<size_t>(ivf[at + 1]) << 8 |
                        static_cast<size_t>(ivf[at + 2]) << 16 |
                        static_cast<size_t>(ivf[at + 3]) << 24;
    const size_t begin = at + kIvfFrameHeader;
    if (size == 0 || size > ivf.size() - begin) break;
    at = begin + size;
    // RFC 6386 section 9.1: the inverse key frame flag.
    media_unit unit{(ivf[begin] & 1) == 0, {}};
    for (size_t from = begin; from < at; from += payload_bytes - 1) {
      bytes payload{from == begin ? kPartitionStart : uint8_t{0}};
      const bytes part = slice(ivf, from, std::min(from + payload_bytes - 1, at));
      payload.insert(payload.end(), part.begin(), part.end());
      unit.payloads.push_back(std::move(payload));
    }
    units.push_back(std::move(unit));
  }
  return units;
}

std::vector<media_unit> opus_units(const bytes& ogg) {
  std::vector<media_unit> units;
  bytes packet;
  size_t headers = 0;
  for (size_t page = 0; page + kOggHeader <= ogg.size();) {
    const size_t table = page + kOggHeader;
    const size_t segments = ogg[page + kOggSegmentCount];
    size_t at = table + segments;
    for (size_t i = 0; i < segments && at <= ogg.size(); ++i) {
      const uint8_t size = ogg[table + i];
      if (size > ogg.size() - at) return units;
      const bytes part = slice(ogg, at, at + size);
      packet.insert(packet.end(), part.begin(), part.end());
      at += size;
      if (size == kLacingGoesOn) continue;
      // RFC 7587 section 4.2: an Opus packet is the payload.
      if (headers++ >= kOpusHeaders) units.push_back({true, {packet}});
      packet.clear();
    }
    page = at;
  }
  return units;
}

std::optional<track> make_track(const std::string& codec) {
  for (const recipe& one : recipes()) {
    if (codec != one.codec) continue;
    track made = one.made;
    made.units = one.parse(output_of(one.command));
    if (made.units.size() >= one.units && made.units.front().key) {
      made.units.resize(one.units);
      return made;
    }
    std::fprintf(stderr, "crowd_sender: ffmpeg made %zu units of %s, not %zu from a key frame on\n",
                 made.units.size(), one.codec, one.units);
    return std::nullopt;
  }
  std::fprintf(stderr, "crowd_sender: no codec \"%s\": there are h264, vp8, opus and none\n",
               codec.c_str());
  return std::nullopt;
}

std::optional<track> read_sound(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  track made = recipes().back().made;
  made.units = opus_units(bytes(std::istreambuf_iterator<char>(file), {}));
  if (!made.units.empty()) return made;
  std::fprintf(stderr, "crowd_sender: \"%s\" should be an Ogg file of Opus\n", path.c_str());
  return std::nullopt;
}

}  // namespace zelta::crowd
