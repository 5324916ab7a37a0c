// SPDX-License-Identifier: Apache-2.0
#include "frame_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace zelta::record {
namespace {

using namespace linuxsdk;

// A picture carries no frame rate; tools that need one take the usual.
constexpr int kNominalFps = 25;
constexpr uint32_t kWavUpdatesPerSecond = 4;
constexpr uint32_t kWavHeaderBytes = 44;
constexpr size_t kBufferBytes = 256 << 10;

}  // namespace

frame_files::frame_files(std::string folder) : folder_(std::move(folder)) {}

frame_files::~frame_files() {
  for (auto& entry : wav_) write_wav_header(entry.second);
}

void frame_files::failed(const std::string& what) {
  if (fault_.empty()) fault_ = what + ": " + std::strerror(errno);
}

frame_files::file_ptr frame_files::open(const std::string& name) {
  const std::string path = folder_ + "/" + name;
  file_ptr file(std::fopen(path.c_str(), "wbe"));
  if (!file) {
    failed(path + " can't be written");
  } else {
    // A frame goes to the file in one piece, as far as it fits.
    std::setvbuf(file.get(), nullptr, _IOFBF, kBufferBytes);
  }
  return file;
}

void frame_files::put(std::FILE* file, const void* bytes, size_t size) {
  if (file != nullptr && std::fwrite(bytes, 1, size, file) != size) {
    failed("frames can't be written to " + folder_);
  }
}

void frame_files::flush(std::FILE* file) {
  if (file != nullptr && std::fflush(file) != 0) failed("frames can't be written to " + folder_);
}

void frame_files::write(uint32_t uid, const AudioFrame& frame) {
  if (frame.type == AUDIO_FRAME_RAW_PCM) return write_pcm(uid, *frame.frame.pcm);
  append(aac_, uid, ".aac", frame.frame.aac->aacBuf_, frame.frame.aac->aacBufSize_);
}

void frame_files::write(uint32_t uid, const VideoFrame& frame) {
  switch (frame.type) {
    case VIDEO_FRAME_RAW_YUV:
      return write_yuv(uid, *frame.frame.yuv);
    case VIDEO_FRAME_H264:
      return append(h264_, uid, ".h264", frame.frame.h264->buf_, frame.frame.h264->bufSize_);
    case VIDEO_FRAME_JPG:
      return write_jpg(uid, *frame.frame.jpg);
  }
}

// Under another name until it is whole.
void frame_files::write_jpg(uint32_t uid, const VideoJpgFrame& jpg) {
  char name[40];
  std::snprintf(name, sizeof name, "%u_%06d.jpg", uid, ++jpgs_[uid]);
  file_ptr file = open(std::string(name) + ".part");
  put(file.get(), jpg.buf_, jpg.bufSize_);
  flush(file.get());
  file.reset();
  const std::string path = folder_ + "/" + name;
  if (std::rename((path + ".part").c_str(), path.c_str()) != 0) failed(path + " can't be written");
}

void frame_files::append(std::map<uint32_t, file_ptr>& files, uint32_t uid, const char* ending,
                         const void* bytes, size_t size) {
  auto [entry, is_new] = files.try_emplace(uid);
  if (is_new) entry->second = open(std::to_string(uid) + ending);
  put(entry->second.get(), bytes, size);
  flush(entry->second.get());
}

void frame_files::write_pcm(uint32_t uid, const AudioPcmFrame& pcm) {
  auto [entry, is_new] = wav_.try_emplace(uid);
  wav_file& wav = entry->second;
  if (is_new) {
    wav.rate = pcm.sample_rates_;
    wav.channels = static_cast<uint16_t>(pcm.channels_);
    wav.file = open(std::to_string(uid) + ".wav");
    write_wav_header(wav);
  }
  put(wav.file.get(), pcm.pcmBuf_, pcm.pcmBufSize_);
  wav.data_bytes += pcm.pcmBufSize_;
  if (wav.data_bytes - wav.told_bytes >= wav.rate * wav.channels * 2U / kWavUpdatesPerSecond) {
    write_wav_header(wav);
  }
}

// Behind the sound that it counts, so that a file that is cut off promises nothing that isn't
// there. Past 4 GiB it says the most that it can, which readers take as "to the end".
void frame_files::write_wav_header(wav_file& wav) {
  if (!wav.file) return;
  flush(wav.file.get());
  wav.told_bytes = wav.data_bytes;
  const auto size = [&wav](uint64_t before) {
    return static_cast<uint32_t>(std::min<uint64_t>(before + wav.data_bytes, UINT32_MAX));
  };
  std::string header;
  const auto u32 = [&header](uint32_t v) { header.append(reinterpret_cast<const char*>(&v), 4); };
  const auto u16 = [&header](uint16_t v) { header.append(reinterpret_cast<const char*>(&v), 2); };
  const auto block = static_cast<uint16_t>(wav.channels * 2);
  header += "RIFF";
  u32(size(kWavHeaderBytes - 8));
  header += "WAVEfmt ";
  u32(16);
  u16(1);
  u16(wav.channels);
  u32(wav.rate);
  u32(wav.rate * block);
  u16(block);
  u16(16);
  header += "data";
  u32(size(0));
  if (std::fseek(wav.file.get(), 0, SEEK_SET) != 0) return;
  put(wav.file.get(), header.data(), header.size());
  flush(wav.file.get());
  std::fseek(wav.file.get(), 0, SEEK_END);
}

void frame_files::write_yuv(uint32_t uid, const VideoYuvFrame& yuv) {
  if (yuv.bufSize_ == 0) return;
  y4m_file& y4m = y4m_[uid];
  if (y4m.width != yuv.width_ || y4m.height != yuv.height_) {
    y4m.width = yuv.width_;
    y4m.height = yuv.height_;
    y4m.file = open(std::to_string(uid) + "_" + std::to_string(++y4m.number) + ".y4m");
    const std::string header = "YUV4MPEG2 W" + std::to_string(yuv.width_) + " H" +
                               std::to_string(yuv.height_) + " F" + std::to_string(kNominalFps) +
                               ":1 Ip A1:1 C420jpeg\n";
    put(y4m.file.get(), header.data(), header.size());
  }
  put(y4m.file.get(), "FRAME\n", 6);
  const auto plane = [&](const uchar_t* rows, uint_t stride, uint_t width, uint_t height) {
    for (uint_t row = 0; row < height; ++row, rows += stride) put(y4m.file.get(), rows, width);
  };
  plane(yuv.ybuf_, yuv.ystride_, yuv.width_, yuv.height_);
  plane(yuv.ubuf_, yuv.ustride_, (yuv.width_ + 1) / 2, yuv.height_ / 2);
  plane(yuv.vbuf_, yuv.vstride_, (yuv.width_ + 1) / 2, yuv.height_ / 2);
  flush(y4m.file.get());
}

}  // namespace zelta::record
