// SPDX-License-Identifier: Apache-2.0
#include "film_file.h"

#include <cstring>
#include <stdexcept>

#include "stop_signal.h"

namespace zelta::lay {
namespace {

struct container {
  const char* ending;
  const char* muxer;
  bool pictures;
};
constexpr container kContainers[] = {{".mp4", "mp4", true},
                                     {".m4a", "mp4", false},
                                     {".mov", "mov", true},
                                     {".mkv", "matroska", true}};

const container* container_of(const std::string& path) {
  for (const container& c : kContainers) {
    const size_t length = std::strlen(c.ending);
    if (path.size() > length && path.compare(path.size() - length, length, c.ending) == 0) {
      return &c;
    }
  }
  return nullptr;
}

}  // namespace

std::string film_name_fault(const std::string& path, bool audio_only) {
  const container* const c = container_of(path);
  if (c == nullptr) return path + " should end in .mp4, .mov, .mkv, or .m4a with --audio-only";
  if (!c->pictures && !audio_only) {
    return path + " holds sound alone: add --audio-only, or let it end in .mp4";
  }
  return "";
}

film_file::film_file(const std::string& path, bool overwrite) : file_(path, overwrite) {
  const container* const c = container_of(path);
  if (c == nullptr) throw std::runtime_error(film_name_fault(path, true));
  const std::string& part = file_.part();
  AVFormatContext* made = nullptr;
  av_check(avformat_alloc_output_context2(&made, nullptr, c->muxer, ("file:" + part).c_str()),
           part);
  muxer_.reset(made);
  // Putting the index first copies all of a film.
  made->interrupt_callback = {is_stopped, nullptr};
  av_check(avio_open2(&made->pb, made->url, AVIO_FLAG_WRITE, &made->interrupt_callback, nullptr),
           part);
}

film_file::~film_file() {
  if (muxer_ != nullptr) avio_closep(&muxer_->pb);
}

// RFC 9559, 5.1.4.1.25: in Matroska what a decoder of Opus leaves out at the beginning is a part of
// a block's time, and readers take it off again. libavformat 59 tells them to, and doesn't add it.
int64_t film_file::delay_of(const AVStream& stream) const {
  const AVCodecParameters& of = *stream.codecpar;
  if (of.codec_id != AV_CODEC_ID_OPUS) return 0;
  if (std::strcmp(muxer_->oformat->name, "matroska") != 0) return 0;
  return av_rescale_q(of.initial_padding, {1, kSampleRate}, stream.time_base);
}

bool film_file::wants_global_headers() const {
  return (muxer_->oformat->flags & AVFMT_GLOBALHEADER) != 0;
}

int film_file::add_stream(const AVCodecParameters& parameters, AVRational time_base) {
  AVStream* const made = avformat_new_stream(muxer_.get(), nullptr);
  if (made == nullptr) throw std::bad_alloc();
  av_check(avcodec_parameters_copy(made->codecpar, &parameters), file_.part());
  AVCodecParameters& to = *made->codecpar;
  if (av_codec_get_id(muxer_->oformat->codec_tag, to.codec_tag) != to.codec_id) to.codec_tag = 0;
  made->time_base = time_base;
  return made->index;
}

void film_file::start() {
  AVDictionary* options = nullptr;
  // Players begin before they have all of it. Other muxers don't know the flag and leave it.
  av_dict_set(&options, "movflags", "+faststart", 0);
  for (unsigned i = 0; i < muxer_->nb_streams; ++i) {
    // All would be moved until nothing is negative.
    if (delay_of(*muxer_->streams[i]) > 0) {
      muxer_->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
    }
  }
  const int result = avformat_write_header(muxer_.get(), &options);
  av_dict_free(&options);
  av_check(result, file_.part());
}

void film_file::write(AVPacket& packet, int stream, AVRational time_base) {
  const std::lock_guard<std::mutex> hold(writing_);
  const AVStream& to = *muxer_->streams[stream];
  packet.stream_index = stream;
  av_packet_rescale_ts(&packet, time_base, to.time_base);
  packet.pts += delay_of(to);
  packet.dts += delay_of(to);
  av_check(av_interleaved_write_frame(muxer_.get(), &packet), file_.part());
}

void film_file::finish() {
  av_check(av_write_trailer(muxer_.get()), file_.part());
  av_check(avio_closep(&muxer_->pb), file_.part());
  throw_if_stopped();
  file_.finish();
}

}  // namespace zelta::lay
