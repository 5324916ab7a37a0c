// SPDX-License-Identifier: Apache-2.0
// A muxer and the bytes of its file, and what ffprobe says of them.
#pragma once

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core_service/media/muxer.h"
#include "support/hex.h"
#include "support/recording_test.h"

namespace zelta::test {

// When a file begins: the clock has been running for a while.
constexpr core_service::media::media_time kZero = std::chrono::hours(100);

// Of `bytes` that all are `value`.
inline core_service::media::media_sample sample_of(const char* caps,
                                                   core_service::media::media_time time,
                                                   core_service::media::media_time duration,
                                                   size_t bytes, bool key, uint8_t value) {
  core_service::media::media_sample made;
  made.buffer.reset(gst_buffer_new_allocate(nullptr, bytes, nullptr));
  gst_buffer_memset(made.buffer.get(), 0, value, bytes);
  made.caps.reset(gst_caps_from_string(caps));
  made.time = made.decode_time = kZero + time;
  made.duration = duration;
  made.key = key;
  return made;
}

class MuxerTest : public ::testing::Test {
 protected:
  MuxerTest(std::unique_ptr<core_service::media::muxer> one, const std::string& ending)
      : path(dir.path() + "a" + ending), mux(std::move(one)) {}
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

  void add(core_service::media::media_kind kind, const core_service::media::media_sample& sample) {
    append(mux->add(kind, sample));
  }
  void append(const std::vector<core_service::media::buffer_ptr>& more) {
    for (const auto& one : more) {
      std::string bytes(gst_buffer_get_size(one.get()), '\0');
      gst_buffer_extract(one.get(), 0, bytes.data(), bytes.size());
      file += bytes;
    }
    writes += more.empty() ? 0 : 1;
  }
  void complete() {
    append(mux->finish());
    const auto last = mux->completion();
    std::copy(last.bytes.begin(), last.bytes.end(),
              file.begin() + static_cast<std::ptrdiff_t>(last.at));
  }
  std::string hex(size_t from, size_t to) const {
    return to_hex(reinterpret_cast<const uint8_t*>(file.data()) + from, to - from);
  }
  // Of a file with these bytes.
  std::string probe(const std::string& bytes, const std::string& options) const {
    std::ofstream(path, std::ios::binary) << bytes;
    return output_of("ffprobe -v quiet -of csv=p=0 " + options + " " + path);
  }
  // "time,size,key" of each packet of the stream, "v" or "a".
  std::vector<std::string> packets(const std::string& stream, const std::string& bytes) const {
    return lines_of(
        probe(bytes, "-show_entries packet=pts_time,size,flags -select_streams " + stream));
  }

  const TempDir dir;
  const std::string path;
  std::unique_ptr<core_service::media::muxer> mux;
  std::string file;
  int writes = 0;
};

}  // namespace zelta::test
