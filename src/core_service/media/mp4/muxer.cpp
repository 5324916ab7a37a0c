// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/mp4/muxer.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service::media::mp4 {
namespace {

using box = box_writer::box;

constexpr uint64_t kFrom1904To1970 = 2'082'844'800;
constexpr size_t kBoxHeader = 8;
// Of the box "free" that becomes the head of all media in the end.
constexpr uint64_t kSwitchAt = 28;
constexpr uint64_t kPage = 4096;
// So that two tracks' samples in one "moof", at 16 bytes each, take less than a page.
constexpr size_t kSamplesOfTrack = 100;

// The kernel writes page by page, and a kill or a full disk stops it between two. A torn "mdat"
// loses what is missing, but players refuse a file with a torn "moof": so none lies across a page.
// Returns the size of a box "free" before a box of `size` bytes at `at`.
uint64_t padding(uint64_t at, uint64_t size) {
  const uint64_t left = kPage - at % kPage;
  if (size <= left) return 0;
  return left < kBoxHeader ? left + kPage : left;
}

buffer_ptr buffer_of(box_writer&& bytes) {
  return buffer_ptr(gst_buffer_new_memdup(bytes.bytes.data(), bytes.bytes.size()));
}

}  // namespace

muxer::muxer(const char* brand, bool video, bool sound, int64_t creation)
    : brand_(brand), creation_(static_cast<uint64_t>(creation) + kFrom1904To1970) {
  if (video) video_.emplace(media_kind::kVideo, 1U);
  if (sound) sound_.emplace(media_kind::kAudio, 2U);
}

track* muxer::of(media_kind kind) {
  std::optional<track>& one = kind == media_kind::kVideo ? video_ : sound_;
  return one ? &*one : nullptr;
}

std::vector<buffer_ptr> muxer::add(media_kind kind, const media_sample& sample) {
  std::vector<buffer_ptr> out;
  track* const to = of(kind);
  if (to == nullptr) return out;
  to->add(sample);
  if (!begun_) begun_ = sample.decode_time;
  const bool known = (!video_ || video_->known()) && (!sound_ || sound_->known());
  if (!known || sample.decode_time - *begun_ < kFragment) return out;
  close_fragment(false, out);
  begun_ = sample.decode_time;
  return out;
}

std::vector<buffer_ptr> muxer::finish() {
  std::vector<buffer_ptr> out;
  close_fragment(true, out);
  index_at_ = written_;
  box_writer index;
  put_moov(index, true);
  out.push_back(buffer_of(std::move(index)));
  return out;
}

void muxer::close_fragment(bool all, std::vector<buffer_ptr>& out) {
  // Without the tracks that never had anything.
  if (video_ && !video_->known()) video_.reset();
  if (sound_ && !sound_->known()) sound_.reset();
  box_writer head;
  if (fragments_ == 0) put_head(head);
  while (put_fragment(all, head, out)) {
  }
  if (head.bytes.empty()) return;
  written_ += head.bytes.size();
  out.push_back(buffer_of(std::move(head)));
}

// Appends `head`, which it empties, and a fragment. False: there is none.
bool muxer::put_fragment(bool all, box_writer& head, std::vector<buffer_ptr>& out) {
  std::vector<std::pair<track*, size_t>> parts;
  uint64_t payload = 0;
  for (const media_kind kind : {media_kind::kVideo, media_kind::kAudio}) {
    track* const one = of(kind);
    const size_t count = one != nullptr ? std::min(one->ready(all), kSamplesOfTrack) : 0;
    if (count == 0) continue;
    parts.emplace_back(one, count);
    payload += one->payload_bytes(count);
  }
  if (parts.empty()) return false;
  ++fragments_;
  const size_t moof_at = head.bytes.size();
  // The offsets of the payloads stand inside the box before them: its size is known from a first
  // writing.
  const auto put_moof = [&](size_t moof_size) {
    const box moof(head, "moof");
    {
      const box mfhd(head, "mfhd", 0, 0);
      head.put<4>(fragments_);
    }
    uint64_t offset = moof_size + kBoxHeader;
    for (const auto& [one, count] : parts) {
      one->put_fragment(head, count, static_cast<uint32_t>(offset));
      offset += one->payload_bytes(count);
    }
  };
  put_moof(0);
  const size_t moof_size = head.bytes.size() - moof_at;
  head.bytes.resize(moof_at);
  if (const uint64_t room = padding(written_ + moof_at, moof_size); room > 0) {
    const box free(head, "free");
    head.zeros(room - kBoxHeader);
  }
  put_moof(moof_size);
  head.put<4>(payload + kBoxHeader);
  head.text("mdat");
  written_ += head.bytes.size();
  out.push_back(buffer_of(std::exchange(head, {})));
  for (const auto& [one, count] : parts) written_ += one->take(count, written_, out);
  return true;
}

void muxer::put_head(box_writer& to) {
  {
    const box ftyp(to, "ftyp");
    to.text(brand_);
    to.put<4>(0);
    for (const char* const compatible : {"isom", "iso6", "mp42"}) to.text(compatible);
  }
  {
    const box room(to, "free");
    to.zeros(8);
  }
  media_time first = media_time::max();
  media_time shown = media_time::max();
  for (const auto* one : {&video_, &sound_}) {
    if (!*one) continue;
    first = std::min(first, (*one)->first());
    shown = std::min(shown, (*one)->shown());
  }
  for (auto* one : {&video_, &sound_}) {
    if (*one) (*one)->set_zero(first, shown);
  }
  put_moov(to, false);
}

void muxer::put_moov(box_writer& to, bool whole) const {
  const box moov(to, "moov");
  int64_t duration = 0;
  for (const auto* one : {&video_, &sound_}) {
    if (*one && whole) duration = std::max(duration, (*one)->movie_ticks());
  }
  {
    const box mvhd(to, "mvhd", 1, 0);
    to.put<8>(creation_);
    to.put<8>(creation_);
    to.put<4>(kMovieScale);
    to.put<8>(static_cast<uint64_t>(duration));
    to.put<4>(0x00010000);  // rate
    to.put<2>(0x0100);      // volume
    to.zeros(10);
    to.unity_matrix();
    to.zeros(24);
    to.put<4>(3);  // the next track's id
  }
  for (const auto* one : {&video_, &sound_}) {
    if (*one) (*one)->put_trak(to, creation_, whole);
  }
  if (whole) return;
  const box mvex(to, "mvex");
  for (const auto* one : {&video_, &sound_}) {
    if (*one) (*one)->put_trex(to);
  }
}

media::muxer::patch muxer::completion() {
  box_writer header;
  header.put<4>(1);  // the size follows
  header.text("mdat");
  header.put<8>(index_at_ - kSwitchAt);
  return {kSwitchAt, header.bytes};
}

}  // namespace zelta::core_service::media::mp4
