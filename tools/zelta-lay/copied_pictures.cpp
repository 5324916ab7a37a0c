// SPDX-License-Identifier: Apache-2.0
// H.264 as it came. Each file brings parameter sets of its own, so they stand in the stream, before
// every key frame ("avc3" of MP4), and black pictures between two files are a stream of their own.
#include <algorithm>
#include <new>
#include <stdexcept>

#include "canvas.h"
#include "encoder.h"
#include "lane.h"
#include "stream_reader.h"

namespace zelta::lay {
namespace {

constexpr int64_t kSecond = 1000000;
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
    made->time_base_in = of.time_base();
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
      : of_(of), what_(what), into_(into), found_(found) {
    const auto first = std::find_if(of.stretches.begin(), of.stretches.end(),
                                    [](const stretch& s) { return s.has_picture(); });
    black_ = black_key_frame(first->width, first->height);
    const av_ptr<AVCodecParameters> parameters = parameters_of_first();
    stream_ = into.add_stream(*parameters, kFine);
  }

  int64_t reached_us() const override { return reached_us_; }

  bool advance() override {
    if (reader_ == nullptr && !open_next()) {
      if (reached_us_ >= what_.length_us()) return false;
      write_black(what_.length_us());
      return true;
    }
    const int64_t begin_us = current_->begin_us - what_.from_us;
    if (!reader_->next_packet(*packet_)) {
      close();
      return true;
    }
    if (packet_->pts == AV_NOPTS_VALUE || !filter_->convert(*packet_)) {
      found_.add(current_->name + ", picture: a packet can't be copied");
      return true;
    }
    packet_->pts = av_rescale_q(packet_->pts, reader_->time_base(), kMicroseconds) + begin_us;
    packet_->dts = av_rescale_q(packet_->dts == AV_NOPTS_VALUE ? packet_->pts : packet_->dts,
                                reader_->time_base(), kMicroseconds) +
                   begin_us;
    return place();
  }

 private:
  av_ptr<AVCodecParameters> parameters_of_first() {
    av_ptr<AVCodecParameters> made(avcodec_parameters_alloc());
    if (made == nullptr) throw std::bad_alloc();
    std::string error;
    for (const stretch& s : of_.stretches) {
      if (!s.has_picture()) continue;
      const auto reader = stream_reader::open(s.path, AVMEDIA_TYPE_VIDEO, error);
      if (reader == nullptr) continue;
      const annex_b filter(*reader);
      av_check(avcodec_parameters_copy(made.get(), &filter.parameters()), s.name);
      made->codec_tag = MKTAG('a', 'v', 'c', '3');
      return made;
    }
    throw std::runtime_error("no picture of user " + std::to_string(of_.uid) + " can be read");
  }

  bool open_next() {
    for (; next_stretch_ < of_.stretches.size(); ++next_stretch_) {
      const stretch& s = of_.stretches[next_stretch_];
      if (!s.has_picture() || s.end_us <= what_.from_us) continue;
      if (s.begin_us >= what_.to_us) return false;
      std::string error;
      reader_ = stream_reader::open(s.path, AVMEDIA_TYPE_VIDEO, error);
      if (reader_ == nullptr) {
        found_.add(s.name + ", picture: " + error);
        continue;
      }
      current_ = &s;
      ++next_stretch_;
      filter_ = std::make_unique<annex_b>(*reader_);
      if (s.begin_us < what_.from_us) reader_->seek(what_.from_us - s.begin_us);
      // A hole before it is seen by its first picture.
      at_start_ = true;
      return true;
    }
    return false;
  }

  void close() {
    if (!reader_->fault().empty()) found_.add(current_->name + ", picture: " + reader_->fault());
    // The last picture stays until the file ends, which its sound may do later.
    reached_us_ =
        std::max(reached_us_, std::min(current_->end_us - what_.from_us, reached_us_ + kHoleUs));
    reader_.reset();
  }

  bool place() {
    if (at_start_) {
      if (packet_->pts - reached_us_ > kHoleUs) write_black_before(packet_->pts);
      at_start_ = false;
    }
    if (packet_->pts < 0) {
      // Of a key frame that stands before --from what leads to it is decoded and not shown.
      packet_->flags |= AV_PKT_FLAG_DISCARD;
    }
    if (packet_->pts >= what_.length_us()) {
      reached_us_ = std::max(reached_us_, what_.length_us());
      reader_.reset();
      next_stretch_ = of_.stretches.size();
      return true;
    }
    reached_us_ = std::max(reached_us_, packet_->pts + kSecond / kFps);
    write(*packet_);
    return true;
  }

  void write_black_before(int64_t until_us) {
    const av_ptr<AVPacket> waiting(av_packet_clone(packet_.get()));
    if (waiting == nullptr) throw std::bad_alloc();
    write_black(until_us);
    av_packet_unref(packet_.get());
    av_packet_move_ref(packet_.get(), waiting.get());
  }

  void write_black(int64_t until_us) {
    while (reached_us_ < until_us) {
      av_packet_unref(packet_.get());
      av_check(av_packet_ref(packet_.get(), black_.get()), "memory for a picture");
      packet_->pts = packet_->dts = reached_us_;
      reached_us_ = std::min(until_us, reached_us_ + kSecond);
      write(*packet_);
    }
  }

  void write(AVPacket& packet) {
    packet.pts = av_rescale_q(packet.pts, kMicroseconds, kFine);
    packet.dts = av_rescale_q(packet.dts, kMicroseconds, kFine);
    // Times of two files needn't agree to the last microsecond.
    packet.dts = std::max(packet.dts, last_dts_ + 1);
    packet.pts = std::max(packet.pts, packet.dts);
    packet.duration = 0;
    last_dts_ = packet.dts;
    into_.write(packet, stream_, kFine);
  }

  const user& of_;
  span what_;
  film_file& into_;
  problems& found_;
  int stream_ = 0;
  size_t next_stretch_ = 0;
  const stretch* current_ = nullptr;
  std::unique_ptr<stream_reader> reader_;
  std::unique_ptr<annex_b> filter_;
  av_ptr<AVPacket> packet_ = make_packet();
  av_ptr<AVPacket> black_;
  bool at_start_ = false;
  int64_t reached_us_ = 0;
  int64_t last_dts_ = INT64_MIN / 2;
};

}  // namespace

std::unique_ptr<lane> copied_pictures(const user& of, const span& what, film_file& into,
                                      problems& found) {
  return std::make_unique<copied_picture_lane>(of, what, into, found);
}

}  // namespace zelta::lay
