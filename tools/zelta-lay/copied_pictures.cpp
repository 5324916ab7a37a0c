// SPDX-License-Identifier: Apache-2.0
// H.264 as it came. Each file brings parameter sets of its own, so they stand in the stream, before
// every key frame ("avc3" of MP4), and black pictures between two files are a stream of their own.
#include <algorithm>
#include <new>
#include <stdexcept>

#include "canvas.h"
#include "encoder.h"
#include "lane.h"
#include "stretch_walk.h"

namespace zelta::lay {
namespace {

// So short a hole is a late picture, not an absence.
constexpr int64_t kHoleUs = 500000;
constexpr int kFps = 25;
constexpr AVRational kFine = {1, 90000};

class annex_b {
 public:
  explicit annex_b(const stream_reader& of) {
    AVBSFContext* made = nullptr;
    const AVBitStreamFilter* const kind = av_bsf_get_by_name("h264_mp4toannexb");
    if (kind == nullptr) throw std::runtime_error("libavcodec has no h264_mp4toannexb");
    av_check(av_bsf_alloc(kind, &made), kind->name);
    filter_.reset(made);
    av_check(avcodec_parameters_copy(made->par_in, &of.parameters()), kind->name);
    made->time_base_in = kMicroseconds;
    av_check(av_bsf_init(made), kind->name);
  }

  const AVCodecParameters& parameters() const { return *filter_->par_out; }
  // False when the packet isn't one of H.264; it is empty then.
  bool convert(AVPacket& packet) {
    const bool taken = av_bsf_send_packet(filter_.get(), &packet) >= 0 &&
                       av_bsf_receive_packet(filter_.get(), &packet) >= 0;
    if (!taken) av_packet_unref(&packet);
    return taken;
  }

 private:
  av_ptr<AVBSFContext> filter_;
};

av_ptr<AVPacket> black_key_frame(int width, int height) {
  canvas black(width, height);
  black.clear({0, 0, 0});
  black.picture().pts = 0;
  const av_ptr<AVCodecContext> encoder = open_picture_encoder(width, height, kFps, false);
  av_ptr<AVPacket> made = make_packet();
  av_check(avcodec_send_frame(encoder.get(), &black.picture()), "libx264");
  av_check(avcodec_send_frame(encoder.get(), nullptr), "libx264");
  av_check(avcodec_receive_packet(encoder.get(), made.get()), "libx264");
  return made;
}

class copied_picture_lane : public lane {
 public:
  copied_picture_lane(const user& of, const span& what, film_file& into, problems& found)
      : walk_(of, AVMEDIA_TYPE_VIDEO, found), what_(what), into_(into) {
    const av_ptr<AVCodecParameters> parameters = parameters_of_first(of);
    black_ = black_key_frame(parameters->width, parameters->height);
    stream_ = into.add_stream(*parameters, kFine);
  }

  int64_t reached_us() const override { return reached_us_; }

  // The film's end is where the last picture's is.
  bool advance() override {
    if (has_packet_) return place();
    if (!walk_.is_open() && (is_over_ || !open_next())) {
      if (reached_us_ < what_.length_us()) return add_black(what_.length_us());
      write_held(av_rescale_q(what_.length_us(), kMicroseconds, kFine));
      return false;
    }
    if (!walk_.next_packet(*packet_)) {
      // The last picture stays until the file ends, which its sound may do later.
      reach(walk_.current().end_us - what_.from_us);
      return true;
    }
    has_packet_ = filter_->convert(*packet_);
    if (!has_packet_) walk_.add_fault("a packet can't be copied");
    return true;
  }

 private:
  static av_ptr<AVCodecParameters> parameters_of_first(const user& of) {
    av_ptr<AVCodecParameters> made(avcodec_parameters_alloc());
    if (made == nullptr) throw std::bad_alloc();
    std::string error;
    for (const stretch& s : of.stretches) {
      if (!s.has_picture()) continue;
      const auto reader = stream_reader::open(s.path, AVMEDIA_TYPE_VIDEO, error);
      if (reader == nullptr || reader->parameters().codec_id != AV_CODEC_ID_H264) continue;
      if (const auto filter = filter_of(*reader)) {
        av_check(avcodec_parameters_copy(made.get(), &filter->parameters()), s.name);
        made->codec_tag = MKTAG('a', 'v', 'c', '3');
        return made;
      }
    }
    throw nothing_to_copy("no picture of user " + std::to_string(of.uid) + " can be read");
  }

  // None for a file without the headers that it needs.
  static std::unique_ptr<annex_b> filter_of(const stream_reader& of) {
    try {
      return std::make_unique<annex_b>(of);
    } catch (const std::runtime_error&) {
      return nullptr;
    }
  }

  bool open_next() {
    while (walk_.open_next(what_.from_us, what_.to_us)) {
      filter_ = filter_of(walk_.reader());
      if (filter_ != nullptr) {
        if (walk_.current().begin_us < what_.from_us) walk_.seek(what_.from_us);
        // A hole before it is seen by its first picture.
        is_first_ = true;
        return true;
      }
      walk_.add_fault("its H.264 can't be copied");
      walk_.close();
    }
    return false;
  }

  void reach(int64_t us) { reached_us_ = std::max(reached_us_, std::min(us, what_.length_us())); }

  // The packet that waits, or black before it.
  bool place() {
    const int64_t shown = packet_->pts - what_.from_us;
    if (packet_->dts >= what_.to_us) {
      reach(what_.length_us());
      is_over_ = true;
      has_packet_ = false;
      walk_.close();
      return true;
    }
    if (is_first_ && shown - reached_us_ > kHoleUs) is_hole_ = true;
    is_first_ = false;
    if (is_hole_ && reached_us_ < std::min(shown, what_.length_us())) {
      return add_black(std::min(shown, what_.length_us()));
    }
    has_packet_ = is_hole_ = false;
    // Of a key frame that stands before --from what leads to it is decoded and not shown.
    if (shown < 0) packet_->flags |= AV_PKT_FLAG_DISCARD;
    reach(shown + kSecond / kFps);
    // What is decoded before the end and shown behind it would stand among what comes then.
    const int64_t end = std::min(walk_.current().end_us, what_.to_us);
    if (packet_->dts < end) packet_->pts = std::min(packet_->pts, end - 1);
    write(*packet_);
    return true;
  }

  bool add_black(int64_t until_us) {
    const av_ptr<AVPacket> packet(av_packet_clone(black_.get()));
    if (packet == nullptr) throw std::bad_alloc();
    packet->pts = packet->dts = reached_us_ + what_.from_us;
    reach(std::min(until_us, reached_us_ + kSecond));
    write(*packet);
    return true;
  }

  // A picture lasts until the next one, so one is held back.
  void write(AVPacket& packet) {
    packet.pts = av_rescale_q(packet.pts - what_.from_us, kMicroseconds, kFine);
    packet.dts = av_rescale_q(packet.dts - what_.from_us, kMicroseconds, kFine);
    // Times of two files needn't agree to the last microsecond.
    packet.dts = std::max(packet.dts, last_dts_ + 1);
    packet.pts = std::max(packet.pts, packet.dts);
    last_dts_ = packet.dts;
    write_held(packet.dts);
    av_packet_move_ref(held_.get(), &packet);
    holds_ = true;
  }

  void write_held(int64_t until) {
    if (!holds_) return;
    holds_ = false;
    held_->duration = std::max<int64_t>(1, until - held_->dts);
    into_.write(*held_, stream_, kFine);
  }

  stretch_walk walk_;
  span what_;
  film_file& into_;
  int stream_ = 0;
  std::unique_ptr<annex_b> filter_;
  av_ptr<AVPacket> packet_ = make_packet();
  bool has_packet_ = false;
  bool is_first_ = false;
  bool is_hole_ = false;  // before the packet that waits
  bool is_over_ = false;
  av_ptr<AVPacket> black_;
  av_ptr<AVPacket> held_ = make_packet();
  bool holds_ = false;
  int64_t reached_us_ = 0;
  int64_t last_dts_ = INT64_MIN / 2;
};

}  // namespace

std::unique_ptr<lane> copied_pictures(const user& of, const span& what, film_file& into,
                                      problems& found) {
  return std::make_unique<copied_picture_lane>(of, what, into, found);
}

}  // namespace zelta::lay
