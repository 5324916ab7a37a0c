// SPDX-License-Identifier: Apache-2.0
#include "film_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <unistd.h>

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

film_file::film_file(const std::string& path) : path_(path), part_(path + ".part") {
  const container* const c = container_of(path);
  if (c == nullptr) throw std::runtime_error(film_name_fault(path, true));
  AVFormatContext* made = nullptr;
  av_check(avformat_alloc_output_context2(&made, nullptr, c->muxer, ("file:" + part_).c_str()),
           part_);
  muxer_.reset(made);
  av_check(avio_open(&made->pb, made->url, AVIO_FLAG_WRITE), part_);
}

film_file::~film_file() {
  if (muxer_ != nullptr) avio_closep(&muxer_->pb);
  // It may not be there yet; then there is nothing to remove.
  if (!finished_) (void)unlink(part_.c_str());
}

bool film_file::wants_global_headers() const {
  return (muxer_->oformat->flags & AVFMT_GLOBALHEADER) != 0;
}

int film_file::add_stream(const AVCodecParameters& parameters, AVRational time_base) {
  AVStream* const made = avformat_new_stream(muxer_.get(), nullptr);
  if (made == nullptr) throw std::bad_alloc();
  av_check(avcodec_parameters_copy(made->codecpar, &parameters), part_);
  made->time_base = time_base;
  return made->index;
}

void film_file::start() {
  AVDictionary* options = nullptr;
  // Players begin before they have all of it. Other muxers don't know the flag and leave it.
  av_dict_set(&options, "movflags", "+faststart", 0);
  const int result = avformat_write_header(muxer_.get(), &options);
  av_dict_free(&options);
  av_check(result, part_);
}

void film_file::write(AVPacket& packet, int stream, AVRational time_base) {
  packet.stream_index = stream;
  av_packet_rescale_ts(&packet, time_base, muxer_->streams[stream]->time_base);
  av_check(av_interleaved_write_frame(muxer_.get(), &packet), part_);
}

void film_file::finish() {
  av_check(av_write_trailer(muxer_.get()), part_);
  av_check(avio_closep(&muxer_->pb), part_);
  if (std::rename(part_.c_str(), path_.c_str()) != 0) {
    throw std::runtime_error("rename " + part_ + ": " + std::strerror(errno));
  }
  finished_ = true;
}

}  // namespace zelta::lay
