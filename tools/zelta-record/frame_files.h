// SPDX-License-Identifier: Apache-2.0
// Delivered frames as files that ordinary tools open.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "IZeltaRecordingEngine.h"

namespace zelta::record {

// In a folder: UID.wav, UID.aac, UID.h264, UID_1.y4m (a new one when the size changes),
// UID_000001.jpg. Not thread-safe. Whenever the process ends, killed or not, the files can be
// opened and hold what came until then, of sound all but the last quarter of a second.
class frame_files {
 public:
  // The folder exists.
  explicit frame_files(std::string folder);
  frame_files(const frame_files&) = delete;
  frame_files& operator=(const frame_files&) = delete;
  // Completes the headers.
  ~frame_files();

  // The first thing that could not be written; empty when all was. Not while frames come.
  const std::string& fault() const { return fault_; }

  void write(uint32_t uid, const linuxsdk::AudioFrame& frame);
  void write(uint32_t uid, const linuxsdk::VideoFrame& frame);

 private:
  struct close_file {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  using file_ptr = std::unique_ptr<std::FILE, close_file>;
  struct wav_file {
    file_ptr file;
    uint64_t data_bytes = 0;
    uint64_t told_bytes = 0;  // in the header
    uint32_t rate = 0;
    uint16_t channels = 0;
  };
  struct y4m_file {
    file_ptr file;
    uint32_t width = 0;
    uint32_t height = 0;
    int number = 0;
  };

  file_ptr open(const std::string& name);
  void put(std::FILE* file, const void* bytes, size_t size);
  void flush(std::FILE* file);
  void failed(const std::string& what);
  void write_jpg(uint32_t uid, const linuxsdk::VideoJpgFrame& jpg);
  void write_wav_header(wav_file& wav);
  void write_pcm(uint32_t uid, const linuxsdk::AudioPcmFrame& pcm);
  void write_yuv(uint32_t uid, const linuxsdk::VideoYuvFrame& yuv);
  void append(std::map<uint32_t, file_ptr>& files, uint32_t uid, const char* ending,
              const void* bytes, size_t size);

  const std::string folder_;
  std::string fault_;
  std::map<uint32_t, wav_file> wav_;
  std::map<uint32_t, y4m_file> y4m_;
  std::map<uint32_t, file_ptr> aac_;
  std::map<uint32_t, file_ptr> h264_;
  std::map<uint32_t, int> jpgs_;
};

}  // namespace zelta::record
