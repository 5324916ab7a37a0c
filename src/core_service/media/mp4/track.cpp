// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/mp4/track.h"

#include <algorithm>
#include <cstring>

#include "core_service/media/mp4/av1_config.h"

namespace zelta::core_service::media::mp4 {
namespace {

using box = box_writer::box;

constexpr uint32_t kVideoScale = 90'000;
constexpr uint32_t kOpusScale = 48'000;        // whatever rate its sender had
constexpr uint32_t kKeySample = 0x02000000;    // depends on no other
constexpr uint32_t kDeltaSample = 0x01010000;  // depends on others, is no sync sample
constexpr uint32_t kUnity = 0x00010000;

// How a file names the codec of its pictures, and the box of what decodes them all.
struct video_entry {
  const char* caps;
  const char* entry;
  const char* config;
};
constexpr video_entry kVideoEntries[] = {
    {"video/x-h264", "avc1", "avcC"},
    {"video/x-h265", "hvc1", "hvcC"},
    {"video/x-av1", "av01", "av1C"},
};

const video_entry& entry_of(const GstCaps* caps) {
  const char* const name = gst_structure_get_name(gst_caps_get_structure(caps, 0));
  for (const video_entry& one : kVideoEntries) {
    if (std::strcmp(one.caps, name) == 0) return one;
  }
  return kVideoEntries[0];
}

// From the stream itself, else from what Matroska keeps beside it.
std::vector<uint8_t> av1_config(GstBuffer* unit, const std::vector<uint8_t>& codec_data) {
  std::vector<uint8_t> config = av1_config_of(bytes_of(unit));
  if (config.empty() && codec_data.size() > 4) {
    config = av1_config_of({codec_data.begin() + 4, codec_data.end()});
  }
  return config;
}

template <class Runs, class T>
void extend(Runs& runs, T value) {
  if (runs.empty() || runs.back().value != value) runs.push_back({0, value});
  ++runs.back().count;
}

// A descriptor's tag and size (ISO/IEC 14496-1), the size in the one byte that is enough here.
void put_descriptor(box_writer& to, uint8_t tag, size_t size) {
  to.put<1>(tag);
  to.put<1>(size);
}

}  // namespace

int64_t track::ticks_of(media_time span) const {
  // In two steps, because nanoseconds of a long recording times a scale overflow.
  const int64_t whole = span.count() / 1'000'000'000;
  const int64_t rest = (span.count() % 1'000'000'000) * scale_;
  const int64_t half = rest < 0 ? -500'000'000 : 500'000'000;
  return whole * scale_ + (rest + half) / 1'000'000'000;
}

void track::add(const media_sample& sample) {
  if (first_caps_ == nullptr) {
    first_caps_.reset(gst_caps_ref(sample.caps.get()));
    const GstStructure* const fields = gst_caps_get_structure(sample.caps.get(), 0);
    width_ = int_of(fields, "width");
    height_ = int_of(fields, "height");
    channels_ = int_of(fields, "channels");
    rate_ = static_cast<uint32_t>(int_of(fields, "rate"));
    opus_ = gst_structure_has_name(fields, "audio/x-opus") != FALSE;
    scale_ = kind_ == media_kind::kVideo ? kVideoScale : opus_ ? kOpusScale : rate_;
    const GValue* const data = gst_structure_get_value(fields, "codec_data");
    GstBuffer* const codec = data != nullptr ? gst_value_get_buffer(data) : nullptr;
    if (codec != nullptr) codec_data_ = bytes_of(codec);
    if (gst_structure_has_name(fields, "video/x-av1") != FALSE) {
      codec_data_ = av1_config(sample.buffer.get(), codec_data_);
    }
    first_ = sample.decode_time;
    shown_ = sample.time;
  }
  pending one;
  one.data.reset(gst_buffer_ref(sample.buffer.get()));
  one.bytes = static_cast<uint32_t>(gst_buffer_get_size(sample.buffer.get()));
  // A clock that goes back can't be written: decoding never does.
  const int64_t least = pending_.empty() ? taken_ticks_ : pending_.back().decode;
  one.decode = std::max(ticks_of(sample.decode_time - first_), least);
  one.composition = static_cast<int32_t>(ticks_of(sample.time - first_) - one.decode);
  one.duration = static_cast<uint32_t>(std::max<int64_t>(ticks_of(sample.duration), 0));
  one.key = kind_ == media_kind::kAudio || sample.key;
  pending_.push_back(std::move(one));
}

void track::set_zero(media_time first, media_time shown) {
  start_ = ticks_of(first_ - first);
  blank_ = ticks_of(shown_ - shown);
  delay_ = std::max<int64_t>(ticks_of(shown_ - first_), 0);
}

uint32_t track::duration_of(size_t index) const {
  if (index + 1 < pending_.size()) {
    return static_cast<uint32_t>(pending_[index + 1].decode - pending_[index].decode);
  }
  return pending_[index].duration > 0 ? pending_[index].duration : last_duration_;
}

uint64_t track::payload_bytes(size_t count) const {
  uint64_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum += pending_[i].bytes;
  return sum;
}

void track::put_fragment(box_writer& to, size_t count, uint32_t data_offset) const {
  const box traf(to, "traf");
  {
    const box tfhd(to, "tfhd", 0, 0x020000);  // offsets count from "moof"
    to.put<4>(id_);
  }
  {
    const box tfdt(to, "tfdt", 1, 0);
    to.put<8>(static_cast<uint64_t>(start_ + pending_.front().decode));
  }
  // Offset of the data; and of each sample duration, size, flags and composition offset.
  const box trun(to, "trun", 1, 0x000f01);
  to.put<4>(count);
  to.put<4>(data_offset);
  for (size_t i = 0; i < count; ++i) {
    to.put<4>(duration_of(i));
    to.put<4>(pending_[i].bytes);
    to.put<4>(pending_[i].key ? kKeySample : kDeltaSample);
    to.put<4>(static_cast<uint32_t>(pending_[i].composition));
  }
}

uint64_t track::take(size_t count, uint64_t offset, std::vector<buffer_ptr>& payload) {
  const uint64_t bytes = payload_bytes(count);
  chunks_.emplace_back(offset, static_cast<uint32_t>(count));
  for (size_t i = 0; i < count; ++i) {
    pending& one = pending_[i];
    last_duration_ = duration_of(i);
    taken_ticks_ = one.decode + last_duration_;
    shown_end_ = std::max(shown_end_, taken_ticks_ + one.composition);
    extend(durations_, last_duration_);
    extend(compositions_, one.composition);
    composed_ = composed_ || one.composition != 0;
    sizes_.push_back(one.bytes);
    if (one.key && kind_ == media_kind::kVideo) {
      keys_.push_back(static_cast<uint32_t>(sizes_.size()));
    }
    payload.push_back(std::move(one.data));
  }
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(count));
  return bytes;
}

int64_t track::movie_ticks() const {
  return scale_ == 0 ? 0
                     : (blank_ + std::max<int64_t>(shown_end_ - delay_, 0)) * kMovieScale / scale_;
}

// ---- Boxes ---------------------------------------------------------------------------------

void track::put_trak(box_writer& to, uint64_t creation, bool whole) const {
  const box trak(to, "trak");
  {
    const box tkhd(to, "tkhd", 1, 3);  // enabled, in the movie
    to.put<8>(creation);
    to.put<8>(creation);
    to.put<4>(id_);
    to.zeros(4);
    to.put<8>(whole ? static_cast<uint64_t>(movie_ticks()) : 0);
    to.zeros(8 + 2 + 2);  // reserved, layer, group
    to.put<2>(kind_ == media_kind::kAudio ? 0x0100 : 0);
    to.zeros(2);
    to.unity_matrix();
    to.put<4>(static_cast<uint64_t>(width_) << 16U);
    to.put<4>(static_cast<uint64_t>(height_) << 16U);
  }
  if (whole) put_edits(to);
  const box mdia(to, "mdia");
  {
    const box mdhd(to, "mdhd", 1, 0);
    to.put<8>(creation);
    to.put<8>(creation);
    to.put<4>(scale_);
    to.put<8>(whole ? static_cast<uint64_t>(taken_ticks_) : 0);
    to.put<2>(0x55c4);  // undetermined language
    to.zeros(2);
  }
  {
    const box hdlr(to, "hdlr", 0, 0);
    to.zeros(4);
    to.text(kind_ == media_kind::kVideo ? "vide" : "soun");
    to.zeros(12 + 1);  // reserved, no name
  }
  const box minf(to, "minf");
  if (kind_ == media_kind::kVideo) {
    const box vmhd(to, "vmhd", 0, 1);
    to.zeros(8);
  } else {
    const box smhd(to, "smhd", 0, 0);
    to.zeros(4);
  }
  {
    const box dinf(to, "dinf");
    const box dref(to, "dref", 0, 0);
    to.put<4>(1);
    const box url(to, "url ", 0, 1);  // in this file
  }
  const box stbl(to, "stbl");
  {
    const box stsd(to, "stsd", 0, 0);
    to.put<4>(1);
    put_entry(to);
  }
  if (whole) return put_tables(to);
  track(kind_, id_).put_tables(to);
}

void track::put_edits(box_writer& to) const {
  if (blank_ <= 0 && delay_ <= 0) return;
  const box edts(to, "edts");
  const box elst(to, "elst", 1, 0);
  const auto put_edit = [&to](int64_t movie_ticks, int64_t from) {
    to.put<8>(static_cast<uint64_t>(movie_ticks));
    to.put<8>(static_cast<uint64_t>(from));
    to.put<4>(kUnity);
  };
  const int64_t blank = std::max<int64_t>(blank_, 0) * kMovieScale / scale_;
  to.put<4>(blank > 0 ? 2 : 1);
  if (blank > 0) put_edit(blank, -1);
  put_edit(movie_ticks() - blank, delay_);
}

void track::put_entry(box_writer& to) const {
  if (kind_ == media_kind::kVideo) {
    const video_entry& named = entry_of(first_caps_.get());
    const box entry(to, named.entry);
    to.zeros(6);
    to.put<2>(1);
    to.zeros(16);
    to.put<2>(static_cast<uint64_t>(width_));
    to.put<2>(static_cast<uint64_t>(height_));
    to.put<4>(72U << 16U);  // dots an inch
    to.put<4>(72U << 16U);
    to.zeros(4);
    to.put<2>(1);
    to.zeros(32);  // no name
    to.put<2>(24);
    to.put<2>(0xffff);
    {
      const box config(to, named.config);
      to.raw(codec_data_);
    }
    int across = 1;
    int down = 1;
    const GstStructure* const fields = gst_caps_get_structure(first_caps_.get(), 0);
    gst_structure_get_fraction(fields, "pixel-aspect-ratio", &across, &down);
    if (across == down) return;
    const box pasp(to, "pasp");
    to.put<4>(static_cast<uint64_t>(across));
    to.put<4>(static_cast<uint64_t>(down));
    return;
  }
  const box entry(to, opus_ ? "Opus" : "mp4a");
  to.zeros(6);
  to.put<2>(1);
  to.zeros(8);
  to.put<2>(static_cast<uint64_t>(channels_));
  to.put<2>(16);
  to.zeros(4);
  to.put<4>(uint64_t{scale_} << 16U);
  if (opus_) return put_opus(to);
  put_aac(to);
}

// Encapsulation of Opus in ISO Base Media File Format, version 0.6.8, section 4.3.2. Nothing is
// skipped at the beginning: in mid-stream there is no encoder's delay, so a player that left
// out the first 80 ms, as it does with files that are made whole (RFC 7845, section 4.2), would
// leave out what was said, and all that follows would be early against the picture.
void track::put_opus(box_writer& to) const {
  const box config(to, "dOps");
  to.put<1>(0);  // version
  to.put<1>(static_cast<uint64_t>(channels_));
  to.put<2>(0);  // skipped
  to.put<4>(rate_);
  to.put<2>(0);  // gain
  to.put<1>(0);  // mono or stereo
}

void track::put_aac(box_writer& to) const {
  const box esds(to, "esds", 0, 0);
  const size_t specific = 2 + codec_data_.size();
  const size_t config = 2 + 13 + specific;
  put_descriptor(to, 3, 3 + config + 3);  // elementary stream
  to.put<2>(0);
  to.put<1>(0);
  put_descriptor(to, 4, 13 + specific);  // decoder
  to.put<1>(0x40);                       // AAC
  to.put<1>(0x15);                       // an audio stream
  to.zeros(3 + 4 + 4);                   // buffer and bit rates: unknown
  put_descriptor(to, 5, codec_data_.size());
  to.raw(codec_data_);
  put_descriptor(to, 6, 1);  // how it is packed
  to.put<1>(2);
}

void track::put_tables(box_writer& to) const {
  {
    const box stts(to, "stts", 0, 0);
    to.put<4>(durations_.size());
    for (const auto& one : durations_) {
      to.put<4>(one.count);
      to.put<4>(one.value);
    }
  }
  if (composed_) {
    const box ctts(to, "ctts", 1, 0);
    to.put<4>(compositions_.size());
    for (const auto& one : compositions_) {
      to.put<4>(one.count);
      to.put<4>(static_cast<uint32_t>(one.value));
    }
  }
  if (kind_ == media_kind::kVideo && keys_.size() < sizes_.size()) {
    const box stss(to, "stss", 0, 0);
    to.put<4>(keys_.size());
    for (const uint32_t number : keys_) to.put<4>(number);
  }
  {
    const box stsz(to, "stsz", 0, 0);
    to.zeros(4);
    to.put<4>(sizes_.size());
    for (const uint32_t bytes : sizes_) to.put<4>(bytes);
  }
  {
    const box stsc(to, "stsc", 0, 0);
    const size_t count_at = to.bytes.size();
    to.zeros(4);
    uint32_t entries = 0;
    for (size_t i = 0; i < chunks_.size(); ++i) {
      if (i > 0 && chunks_[i].second == chunks_[i - 1].second) continue;
      to.put<4>(i + 1);
      to.put<4>(chunks_[i].second);
      to.put<4>(1);
      ++entries;
    }
    to.put_at<4>(count_at, entries);
  }
  const box co64(to, "co64", 0, 0);
  to.put<4>(chunks_.size());
  for (const auto& [offset, samples] : chunks_) to.put<8>(offset);
}

void track::put_trex(box_writer& to) const {
  const box trex(to, "trex", 0, 0);
  to.put<4>(id_);
  to.put<4>(1);
  to.zeros(12);
}

}  // namespace zelta::core_service::media::mp4
