// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/webm/muxer.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "core_service/media/webm/ebml.h"

namespace zelta::core_service::media::webm {
namespace {

using namespace std::chrono_literals;

// What a killed recorder loses, and one write.
constexpr media_time kWrite = 200ms;
// Tracks wait for each other so long, to stand side by side.
constexpr media_time kMostApart = 1s;
// A block's time is 16 bits of milliseconds from its cluster's on.
constexpr media_time kLongestCluster = 30s;
constexpr uint64_t kSoundCueMs = 1000;
constexpr uint64_t kScaleNs = 1'000'000;  // of all times in the file
// What a decoder of Opus wants before a place that is jumped to (RFC 7845, section 4.6).
constexpr uint64_t kOpusPreRollNs = 80'000'000;
constexpr size_t kOpusHeadBytes = 19;

// Names of elements, here and below as RFC 9559 lists them.
constexpr uint32_t kEbml = 0x1a45dfa3;
constexpr uint32_t kSegment = 0x18538067;
constexpr uint32_t kSeekHead = 0x114d9b74;
constexpr uint32_t kInfo = 0x1549a966;
constexpr uint32_t kTracks = 0x1654ae6b;
constexpr uint32_t kCluster = 0x1f43b675;
constexpr uint32_t kCues = 0x1c53bb6b;
constexpr size_t kSizeBytes = 8;
constexpr size_t kDurationBytes = 2 + kSizeBytes + 8;

ebml_writer ebml_header() {
  ebml_writer fields;
  fields.number(0x4286, 1);     // version
  fields.number(0x42f7, 1);     // version a reader must have
  fields.number(0x42f2, 4);     // longest id
  fields.number(0x42f3, 8);     // longest size
  fields.text(0x4282, "webm");  // type of the document
  fields.number(0x4287, 4);     // its version
  fields.number(0x4285, 2);     // and the one a reader must have
  ebml_writer header;
  header.element(kEbml, fields);
  return header;
}

ebml_writer seek_head(uint64_t info, uint64_t tracks, uint64_t cues) {
  ebml_writer entries;
  const std::pair<uint32_t, uint64_t> places[] = {{kInfo, info}, {kTracks, tracks}, {kCues, cues}};
  for (const auto& [name, at] : places) {
    ebml_writer id;
    id.id(name);
    ebml_writer entry;
    entry.element(0x53ab, id);
    entry.number(0x53ac, at);
    entries.element(0x4dbb, entry);
  }
  ebml_writer all;
  all.element(kSeekHead, entries);
  return all;
}

// RFC 7845, section 5.1: as its encoder says, else for Opus that came without one, of which
// nothing is skipped.
std::vector<uint8_t> opus_head(const GstStructure* fields) {
  const GValue* const headers = gst_structure_get_value(fields, "streamheader");
  if (headers != nullptr && gst_value_array_get_size(headers) > 0) {
    GstBuffer* const first = gst_value_get_buffer(gst_value_array_get_value(headers, 0));
    if (first != nullptr && gst_buffer_get_size(first) >= kOpusHeadBytes) return bytes_of(first);
  }
  const auto rate = static_cast<uint32_t>(int_of(fields, "rate"));
  std::vector<uint8_t> made{'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1};
  made.push_back(static_cast<uint8_t>(int_of(fields, "channels")));
  made.insert(made.end(), {0, 0});
  for (unsigned shift = 0; shift < 32; shift += 8) {
    made.push_back(static_cast<uint8_t>(rate >> shift));
  }
  made.insert(made.end(), {0, 0, 0});
  return made;
}

ebml_writer video_entry(const GstCaps* caps) {
  const GstStructure* const fields = gst_caps_get_structure(caps, 0);
  const auto width = static_cast<uint64_t>(int_of(fields, "width"));
  const auto height = static_cast<uint64_t>(int_of(fields, "height"));
  int across = 1;
  int down = 1;
  gst_structure_get_fraction(fields, "pixel-aspect-ratio", &across, &down);
  ebml_writer picture;
  picture.number(0xb0, width);
  picture.number(0xba, height);
  if (across != down && across > 0 && down > 0) {
    picture.number(0x54b0, width * static_cast<uint64_t>(across) / static_cast<uint64_t>(down));
    picture.number(0x54ba, height);
  }
  ebml_writer entry;
  entry.text(0x86, gst_structure_has_name(fields, "video/x-vp9") != FALSE ? "V_VP9" : "V_VP8");
  entry.element(0xe0, picture);
  return entry;
}

ebml_writer sound_entry(const GstCaps* caps) {
  const std::vector<uint8_t> head = opus_head(gst_caps_get_structure(caps, 0));
  const uint64_t skipped = head[10] | static_cast<uint64_t>(head[11]) << 8U;  // samples of 48 kHz
  ebml_writer sound;
  sound.real(0xb5, 48'000);
  sound.number(0x9f, head[9]);
  ebml_writer entry;
  entry.text(0x86, "A_OPUS");
  entry.element(0x63a2, head);
  entry.number(0x56aa, skipped * 1'000'000'000 / 48'000);
  entry.number(0x56bb, kOpusPreRollNs);
  entry.element(0xe1, sound);
  return entry;
}

}  // namespace

muxer::muxer(bool video, bool sound) {
  if (video) video_.emplace(uint8_t{1});
  if (sound) sound_.emplace(uint8_t{2});
}

muxer::track* muxer::of(media_kind kind) {
  std::optional<track>& one = kind == media_kind::kVideo ? video_ : sound_;
  return one ? &*one : nullptr;
}

bool muxer::known() const {
  return (!video_ || video_->caps) && (!sound_ || sound_->caps);
}

std::vector<buffer_ptr> muxer::add(media_kind kind, const media_sample& sample) {
  std::vector<buffer_ptr> out;
  track* const to = of(kind);
  if (to == nullptr) return out;
  if (!to->caps) to->caps.reset(gst_caps_ref(sample.caps.get()));
  media_sample kept;
  kept.buffer.reset(gst_buffer_ref(sample.buffer.get()));
  kept.time = sample.time;
  kept.key = sample.key;
  to->pending.push_back(std::move(kept));
  to->latest = std::max(to->latest, sample.time);
  end_ = std::max(end_, sample.end());
  begun_ = std::min(begun_.value_or(sample.time), sample.time);
  if (known() && reached() - *begun_ >= kWrite) put_clusters(reached(), out);
  return out;
}

// Where all tracks have come to, or should have.
media_time muxer::reached() const {
  media_time least = media_time::max();
  media_time most{};
  for (const auto* one : {&video_, &sound_}) {
    if (!*one) continue;
    least = std::min(least, (*one)->latest);
    most = std::max(most, (*one)->latest);
  }
  return std::max(least, most - kMostApart);
}

std::vector<buffer_ptr> muxer::finish() {
  std::vector<buffer_ptr> out;
  if (video_ && !video_->caps) video_.reset();
  if (sound_ && !sound_->caps) sound_.reset();
  put_clusters(media_time::max(), out);
  ebml_writer points;
  for (const cue& one : cues_) {
    ebml_writer place;
    place.number(0xf7, video_ ? video_->number : sound_->number);
    place.number(0xf1, one.cluster);
    ebml_writer point;
    point.number(0xb3, one.time_ms);
    point.element(0xb7, place);
    points.element(0xbb, point);
  }
  cues_at_ = written_;
  ebml_writer all;
  all.element(kCues, points);
  append(all.bytes, out);
  return out;
}

void muxer::append(const std::vector<uint8_t>& bytes, std::vector<buffer_ptr>& out) {
  written_ += bytes.size();
  out.emplace_back(gst_buffer_new_memdup(bytes.data(), bytes.size()));
}

uint64_t muxer::ms_of(media_time time) const {
  const media_time since = std::max(time - *zero_, media_time::zero());
  return static_cast<uint64_t>((since + 500us) / 1ms);
}

// Appends what is from before `until`, track by track in its own order and all in that of time.
void muxer::put_clusters(media_time until, std::vector<buffer_ptr>& out) {
  std::vector<block> blocks;
  begun_.reset();
  for (auto* one : {&video_, &sound_}) {
    if (!*one) continue;
    std::deque<media_sample>& waiting = (*one)->pending;
    for (; !waiting.empty() && waiting.front().time < until; waiting.pop_front()) {
      blocks.push_back({(*one)->number, std::move(waiting.front())});
    }
    if (waiting.empty()) continue;
    const media_time first = waiting.front().time;
    begun_ = std::min(begun_.value_or(first), first);
  }
  std::stable_sort(blocks.begin(), blocks.end(),
                   [](const block& a, const block& b) { return a.of.time < b.of.time; });
  if (blocks.empty()) return;
  if (!zero_) {
    zero_ = blocks.front().of.time;
    append(head(), out);
  }
  for (auto from = blocks.begin(); from != blocks.end();) {
    const auto to = std::find_if(from, blocks.end(), [&from](const block& one) {
      return one.of.time - from->of.time > kLongestCluster;
    });
    put_cluster(from, to, out);
    from = to;
  }
}

void muxer::put_cluster(block_at from, block_at to, std::vector<buffer_ptr>& out) {
  const uint64_t begin = ms_of(from->of.time);
  ebml_writer head;
  head.number(0xe7, begin);
  uint64_t content = head.bytes.size();
  std::vector<buffer_ptr> parts;
  for (; from != to; ++from) {
    note_cue(*from);
    const uint64_t bytes = gst_buffer_get_size(from->of.buffer.get());
    ebml_writer simple;
    simple.id(0xa3);
    simple.size(4 + bytes);
    simple.put(0x80U | from->track, 1);
    simple.put(ms_of(from->of.time) - begin, 2);
    simple.put(from->of.key ? 0x80 : 0, 1);
    content += simple.bytes.size() + bytes;
    parts.emplace_back(gst_buffer_new_memdup(simple.bytes.data(), simple.bytes.size()));
    parts.push_back(std::move(from->of.buffer));
  }
  ebml_writer cluster;
  cluster.id(kCluster);
  cluster.size(content);
  cluster.bytes.insert(cluster.bytes.end(), head.bytes.begin(), head.bytes.end());
  const uint64_t behind = content - head.bytes.size();
  append(cluster.bytes, out);
  written_ += behind;
  std::move(parts.begin(), parts.end(), std::back_inserter(out));
}

// Of the cluster that is about to be appended: where the picture begins anew, or now and then
// where there is none.
void muxer::note_cue(const block& one) {
  if (video_ && (one.track != video_->number || !one.of.key)) return;
  const uint64_t time = ms_of(one.of.time);
  if (!video_ && !cues_.empty() && time - cues_.back().time_ms < kSoundCueMs) return;
  cues_.push_back({time, written_ - content_at_});
}

// Up to the first cluster, of the same size while it grows and in the end.
std::vector<uint8_t> muxer::head() {
  ebml_writer tracks;
  for (const auto* one : {&video_, &sound_}) {
    if (!*one) continue;
    ebml_writer entry =
        one == &video_ ? video_entry((*one)->caps.get()) : sound_entry((*one)->caps.get());
    entry.number(0xd7, (*one)->number);
    entry.number(0x73c5, (*one)->number);  // the same for good
    entry.number(0x83, (*one)->number);    // 1 video, 2 sound
    entry.number(0x9c, 0);                 // no lacing
    tracks.element(0xae, entry);
  }
  const bool complete = cues_at_ != 0;
  ebml_writer info;
  info.number(0x2ad7b1, kScaleNs);
  info.text(0x4d80, "zelta");
  info.text(0x5741, "zelta");
  const auto duration = static_cast<double>((end_ - *zero_).count()) / kScaleNs;
  complete ? info.real(0x4489, duration) : info.nothing(kDurationBytes);
  ebml_writer all = ebml_header();
  all.id(kSegment);
  content_at_ = all.bytes.size() + kSizeBytes;
  complete ? all.size(written_ - content_at_) : all.unknown_size();
  const uint64_t room = seek_head(0, 0, 0).bytes.size();
  const uint64_t info_bytes = 4 + kSizeBytes + info.bytes.size();
  if (complete) {
    const ebml_writer seek = seek_head(room, room + info_bytes, cues_at_ - content_at_);
    all.bytes.insert(all.bytes.end(), seek.bytes.begin(), seek.bytes.end());
  } else {
    all.nothing(room);
  }
  all.element(kInfo, info);
  all.element(kTracks, tracks);
  return all.bytes;
}

media::muxer::patch muxer::completion() {
  return {0, zero_ ? head() : std::vector<uint8_t>()};
}

}  // namespace zelta::core_service::media::webm
