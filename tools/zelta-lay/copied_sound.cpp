// SPDX-License-Identifier: Apache-2.0
// Opus as it came, with packets of silence where there is nothing.
#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

#include "lane.h"
#include "stream_reader.h"

#include <opus/opus.h>

namespace zelta::lay {
namespace {

constexpr AVRational kSamples = {1, kSampleRate};
// Less is a rounding of times or what a decoder leaves out at a file's beginning.
constexpr int64_t kStep = kSampleRate / 50;

// RFC 6716, 3.1: a frame of CELT at full band, one channel, that holds nothing.
struct silent_packet {
  int samples;
  uint8_t toc;
};
constexpr silent_packet kSilent[] = {
    {960, 31 << 3}, {480, 30 << 3}, {240, 29 << 3}, {120, 28 << 3}};

class copied_sound_lane : public lane {
 public:
  copied_sound_lane(const user& of, const span& what, film_file& into, problems& found)
      : of_(of), what_(what), into_(into), found_(found) {
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
      next_ = -parameters->initial_padding;
      stream_ = into.add_stream(*parameters, kSamples);
      return;
    }
    throw std::runtime_error("no sound of user " + std::to_string(of.uid) + " can be read");
  }

  int64_t reached_us() const override { return av_rescale_q(next_, kSamples, kMicroseconds); }

  bool advance() override {
    if (has_packet_) return place();
    if (reader_ == nullptr && !open_next()) {
      if (reached_us() >= what_.length_us()) return false;
      return fill(av_rescale_q(what_.length_us(), kMicroseconds, kSamples));
    }
    if (!reader_->next_packet(*packet_)) {
      if (!reader_->fault().empty()) found_.add(current_->name + ", sound: " + reader_->fault());
      reader_.reset();
      return true;
    }
    has_packet_ = packet_->pts != AV_NOPTS_VALUE;
    return true;
  }

 private:
  bool open_next() {
    for (; next_stretch_ < of_.stretches.size(); ++next_stretch_) {
      const stretch& s = of_.stretches[next_stretch_];
      if (!s.has_sound() || s.end_us <= what_.from_us) continue;
      if (s.begin_us >= what_.to_us) return false;
      std::string error;
      reader_ = stream_reader::open(s.path, AVMEDIA_TYPE_AUDIO, error);
      if (reader_ == nullptr) {
        found_.add(s.name + ", sound: " + error);
        continue;
      }
      current_ = &s;
      ++next_stretch_;
      if (s.begin_us < what_.from_us) reader_->seek(what_.from_us - s.begin_us);
      return true;
    }
    return false;
  }

  // The packet that waits, or silence before it.
  bool place() {
    const int64_t at = av_rescale_q(packet_->pts, reader_->time_base(), kSamples) +
                       av_rescale_q(current_->begin_us - what_.from_us, kMicroseconds, kSamples);
    // Fragments don't tell how long a packet is; it does itself.
    const int samples = opus_packet_get_nb_samples(packet_->data, packet_->size, kSampleRate);
    if (at >= av_rescale_q(what_.length_us(), kMicroseconds, kSamples)) {
      has_packet_ = false;
      reader_.reset();
      next_stretch_ = of_.stretches.size();
      return true;
    }
    if (at > next_ + kStep) return fill(at);
    has_packet_ = false;
    // What lies before the film, or was in the file before.
    if (at + kStep < next_) return true;
    if (samples > 0) {
      write(*packet_, samples);
    } else {
      found_.add(current_->name + ", sound: a packet is none of Opus");
    }
    return true;
  }

  bool fill(int64_t until) {
    const silent_packet* best = &kSilent[3];
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

  const user& of_;
  span what_;
  film_file& into_;
  problems& found_;
  int stream_ = 0;
  size_t next_stretch_ = 0;
  const stretch* current_ = nullptr;
  std::unique_ptr<stream_reader> reader_;
  av_ptr<AVPacket> packet_ = make_packet();
  bool has_packet_ = false;
  int64_t next_ = 0;
};

}  // namespace

std::unique_ptr<lane> copied_sound(const user& of, const span& what, film_file& into,
                                   problems& found) {
  return std::make_unique<copied_sound_lane>(of, what, into, found);
}

}  // namespace zelta::lay
