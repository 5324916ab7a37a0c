// SPDX-License-Identifier: Apache-2.0
// Opus as it came, with packets of silence where there is nothing.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

#include "lane.h"
#include "stretch_walk.h"

#include <opus/opus.h>

namespace zelta::lay {
namespace {

constexpr AVRational kSamples = {1, kSampleRate};
// Less is a rounding of times, or what a decoder leaves out at a file's beginning.
constexpr int64_t kStep = kSampleRate / 100;

// RFC 6716, 3.1: a frame of CELT at full band, one channel, that holds nothing.
struct silent_packet {
  int samples;
  uint8_t toc;
};
constexpr silent_packet kSilent[] = {
    {960, 31 << 3}, {480, 30 << 3}, {240, 29 << 3}, {120, 28 << 3}};
constexpr silent_packet kFinest = kSilent[3];

// RFC 7845, 5.1: the number of channels, the gain, and how streams become channels. The other
// fields say what to leave out at the beginning, and what the sound once was.
std::string head_of(const AVCodecParameters& of) {
  const std::string head(reinterpret_cast<const char*>(of.extradata),
                         static_cast<size_t>(of.extradata_size));
  return head.size() < 19 ? "" : head.substr(9, 1) + head.substr(16);
}

class copied_sound_lane : public lane {
 public:
  copied_sound_lane(const user& of, const span& what, film_file& into, problems& found)
      : walk_(of, AVMEDIA_TYPE_AUDIO, found),
        what_(what),
        length_(av_rescale_q(what.length_us(), kMicroseconds, kSamples)),
        into_(into) {
    std::string error;
    for (const stretch& s : of.stretches) {
      if (!s.has_sound()) continue;
      const auto reader = stream_reader::open(s.path, AVMEDIA_TYPE_AUDIO, error);
      if (reader == nullptr) continue;
      const av_ptr<AVCodecParameters> parameters(avcodec_parameters_alloc());
      if (parameters == nullptr) throw std::bad_alloc();
      av_check(avcodec_parameters_copy(parameters.get(), &reader->parameters()), s.name);
      parameters->codec_tag = 0;
      // What a decoder leaves out at the beginning stands before the film's zero.
      next_ = -std::clamp(parameters->initial_padding, 0, kSampleRate);
      stream_ = into.add_stream(*parameters, kSamples);
      return;
    }
    throw nothing_to_copy("no sound of user " + std::to_string(of.uid) + " can be read");
  }

  int64_t reached_us() const override { return av_rescale_q(next_, kSamples, kMicroseconds); }

  bool advance() override {
    if (has_packet_) return place();
    if (!walk_.is_open() && (is_over_ || !open_next())) {
      if (next_ >= length_) return false;
      return fill(length_);
    }
    has_packet_ = walk_.next_packet(*packet_);
    return true;
  }

 private:
  bool open_next() {
    if (!walk_.open_next(what_.from_us, what_.to_us)) return false;
    if (walk_.current().begin_us < what_.from_us) walk_.seek(what_.from_us);
    is_exact_ = true;
    return true;
  }

  // The packet that waits, or silence before it.
  bool place() {
    const int64_t at = av_rescale_q(packet_->pts - what_.from_us, kMicroseconds, kSamples);
    if (at >= length_) {
      is_over_ = true;
      has_packet_ = false;
      walk_.close();
      return true;
    }
    // What is missing is filled to the last bit, or all that follows came early; in a file times
    // may be rounded.
    if (at - next_ > kStep) is_exact_ = true;
    if (is_exact_ && at - next_ >= kFinest.samples) return fill(at);
    has_packet_ = false;
    // What lies before the film, or was in the file before.
    if (next_ - at > kStep) return true;
    is_exact_ = false;
    // Fragments don't tell how long a packet is; it does itself.
    const int samples = opus_packet_get_nb_samples(packet_->data, packet_->size, kSampleRate);
    if (samples > 0) {
      write(*packet_, samples);
    } else {
      walk_.add_fault("a packet is none of Opus");
    }
    return true;
  }

  bool fill(int64_t until) {
    const silent_packet* best = &kFinest;
    for (const silent_packet& s : kSilent) {
      if (next_ + s.samples <= until) {
        best = &s;
        break;
      }
    }
    const uint8_t bytes[] = {best->toc, 0xff, 0xfe};
    const av_ptr<AVPacket> packet = make_packet();
    av_check(av_new_packet(packet.get(), sizeof bytes), "memory for sound");
    std::memcpy(packet->data, bytes, sizeof bytes);
    packet->flags = AV_PKT_FLAG_KEY;
    write(*packet, best->samples);
    return true;
  }

  void write(AVPacket& packet, int64_t samples) {
    packet.pts = packet.dts = next_;
    packet.duration = samples;
    next_ += samples;
    into_.write(packet, stream_, kSamples);
  }

  stretch_walk walk_;
  span what_;
  int64_t length_;
  film_file& into_;
  int stream_ = 0;
  av_ptr<AVPacket> packet_ = make_packet();
  bool has_packet_ = false;
  bool is_exact_ = false;
  bool is_over_ = false;
  int64_t next_ = 0;
};

}  // namespace

std::unique_ptr<lane> copied_sound(const user& of, const span& what, film_file& into,
                                   problems& found) {
  return std::make_unique<copied_sound_lane>(of, what, into, found);
}

bool has_one_opus_head(const user& of) {
  std::string head;
  for (const stretch& s : of.stretches) {
    std::string error;
    const auto reader =
        s.has_sound() ? stream_reader::open(s.path, AVMEDIA_TYPE_AUDIO, error) : nullptr;
    if (reader == nullptr || reader->parameters().codec_id != AV_CODEC_ID_OPUS) continue;
    const std::string next = head_of(reader->parameters());
    if (!head.empty() && !next.empty() && next != head) return false;
    if (head.empty()) head = next;
  }
  return true;
}

}  // namespace zelta::lay
