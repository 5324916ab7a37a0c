// SPDX-License-Identifier: Apache-2.0
#include "stream_reader.h"

#include <algorithm>
#include <new>

#include "stop_signal.h"

namespace zelta::lay {
namespace {

// What recorders write, and no list of addresses or other files that goes by such a name.
constexpr const char* kContainers = "mov,mp4,m4a,3gp,3g2,mj2,matroska,webm";

av_ptr<AVFormatContext> open_file(const std::string& path, std::string& error) {
  AVFormatContext* opened = avformat_alloc_context();
  if (opened == nullptr) throw std::bad_alloc();
  opened->interrupt_callback = {is_stopped, nullptr};
  AVDictionary* options = nullptr;
  av_dict_set(&options, "format_whitelist", kContainers, 0);
  av_dict_set(&options, "protocol_whitelist", "file", 0);
  // A local file, whatever its name looks like. What fails is freed, and `opened` null.
  const int result = avformat_open_input(&opened, ("file:" + path).c_str(), nullptr, &options);
  av_dict_free(&options);
  av_ptr<AVFormatContext> file(opened);
  const int known = result < 0 ? result : avformat_find_stream_info(opened, nullptr);
  if (known < 0) {
    error = "can't be read: " + av_words(known);
    return nullptr;
  }
  return file;
}

}  // namespace

stream_reader::stream_reader() : packets_([this](AVPacket& packet) { return read(packet); }) {}

std::unique_ptr<stream_reader> stream_reader::open(const std::string& path, AVMediaType medium,
                                                   std::string& error) {
  std::unique_ptr<stream_reader> made(new stream_reader);
  made->file_ = open_file(path, error);
  if (made->file_ == nullptr) return nullptr;
  const int index = av_find_best_stream(made->file_.get(), medium, -1, -1, nullptr, 0);
  if (index < 0) {
    error = medium == AVMEDIA_TYPE_VIDEO ? "has no picture" : "has no sound";
    return nullptr;
  }
  for (unsigned i = 0; i < made->file_->nb_streams; ++i) {
    if (static_cast<int>(i) != index) made->file_->streams[i]->discard = AVDISCARD_ALL;
  }
  made->stream_ = made->file_->streams[index];
  made->packets_.restart(0, made->stream_->time_base);
  return made;
}

void stream_reader::seek(int64_t at_us) {
  const int64_t at = av_rescale_q(at_us, kMicroseconds, stream_->time_base);
  // Without an index, reading on finds the place as well, only later.
  (void)av_seek_frame(file_.get(), stream_->index, at, AVSEEK_FLAG_BACKWARD);
  packets_.restart(at, stream_->time_base);
}

bool stream_reader::next_packet(AVPacket& packet) {
  return packets_.next(packet);
}

bool stream_reader::read(AVPacket& packet) {
  av_packet_unref(&packet);
  while (true) {
    const int result = av_read_frame(file_.get(), &packet);
    if (result < 0) {
      if (result != AVERROR_EOF && read_error_.empty()) read_error_ = av_words(result);
      return false;
    }
    if (packet.stream_index == stream_->index) {
      // What isn't to be shown stands before the file's zero. Behind a damaged time libavformat
      // marks what is as it should be.
      if (packet.pts >= 0) packet.flags &= ~AV_PKT_FLAG_DISCARD;
      return true;
    }
    av_packet_unref(&packet);
  }
}

bool stream_reader::open_decoder(std::string& error) {
  const AVCodec* const codec = avcodec_find_decoder(stream_->codecpar->codec_id);
  if (codec == nullptr) {
    error = "no decoder for " + std::string(avcodec_get_name(stream_->codecpar->codec_id));
    return false;
  }
  decoder_.reset(avcodec_alloc_context3(codec));
  if (decoder_ == nullptr) throw std::bad_alloc();
  decoder_->pkt_timebase = stream_->time_base;
  // One a decoder: there is one for every user, and the encoder takes what processors are left.
  decoder_->thread_count = 1;
  int result = avcodec_parameters_to_context(decoder_.get(), stream_->codecpar);
  if (result >= 0) result = avcodec_open2(decoder_.get(), codec, nullptr);
  if (result >= 0) return true;
  error = std::string(codec->name) + " can't be opened: " + av_words(result);
  decoder_.reset();
  return false;
}

bool stream_reader::feed_decoder() {
  if (fed_all_) return false;
  fed_all_ = !next_packet(*packet_);
  const int result = avcodec_send_packet(decoder_.get(), fed_all_ ? nullptr : packet_.get());
  if (result < 0 && result != AVERROR_EOF) ++broken_;
  return true;
}

bool stream_reader::next_frame(AVFrame& frame) {
  if (decoder_ == nullptr && !(read_error_.empty() && open_decoder(read_error_))) return false;
  while (true) {
    av_frame_unref(&frame);
    const int result = avcodec_receive_frame(decoder_.get(), &frame);
    if (result >= 0) {
      if (frame.decode_error_flags != 0) ++broken_;
      if (frame.best_effort_timestamp == AV_NOPTS_VALUE) continue;
      frame.pts = av_rescale_q(frame.best_effort_timestamp, stream_->time_base, kMicroseconds);
      return true;
    }
    if (result == AVERROR_EOF) return false;
    if (result != AVERROR(EAGAIN)) ++broken_;
    if (!feed_decoder()) return false;
  }
}

std::string stream_reader::fault() const {
  std::string said = read_error_;
  const auto add = [&said](int count, const char* words) {
    if (count == 0) return;
    said += (said.empty() ? "" : ", ") + std::to_string(count) + words;
  };
  add(broken_, " packets can't be decoded");
  add(packets_.mended(), " packets have damaged times, and are laid between those beside them");
  return said;
}

media_facts measure_media(const std::string& path, int64_t most_us) {
  media_facts made;
  std::string error;
  const av_ptr<AVFormatContext> file = open_file(path, error);
  throw_if_stopped();
  if (file == nullptr) return made;
  made.is_media = true;
  made.is_mp4 = std::string(file->iformat->name).find("mp4") != std::string::npos;
  made.begin_us = most_us;
  const av_ptr<AVPacket> packet = make_packet();
  for (const AVMediaType medium : {AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO}) {
    // Each by itself, for what is damaged shows only in one stream's order.
    const auto reader = stream_reader::open(path, medium, error);
    if (reader == nullptr) continue;
    const AVCodecParameters& is = reader->parameters();
    (medium == AVMEDIA_TYPE_VIDEO ? made.video_codec : made.audio_codec) =
        avcodec_get_name(is.codec_id);
    if (medium == AVMEDIA_TYPE_VIDEO) {
      made.width = is.width;
      made.height = is.height;
    }
    while (reader->next_packet(*packet)) {
      throw_if_stopped();
      const int64_t at = av_rescale_q(packet->pts, reader->time_base(), kMicroseconds);
      if (packet->pts == AV_NOPTS_VALUE || at > most_us) continue;
      const int64_t lasts = av_rescale_q(packet->duration, reader->time_base(), kMicroseconds);
      made.begin_us = std::min(made.begin_us, at);
      made.end_us = std::max(made.end_us, at + std::clamp<int64_t>(lasts, 0, kSecond));
    }
  }
  return made;
}

}  // namespace zelta::lay
