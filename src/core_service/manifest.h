// SPDX-License-Identifier: Apache-2.0
// recording.json: what files the recording has and where each stands in time.
//
// Rewritten whole, into a file beside it that is then renamed over it, so a reader sees a true one
// at every moment and a crash leaves the last. All functions are for the recorder's loop thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace zelta::core_service {

struct manifest_file {
  std::string name;  // in the recording folder
  uint32_t uid = 0;
  std::string kind;         // "audio_video", "audio", "video"
  std::string video_codec;  // "h264", "vp8", "vp9"; empty: no video
  std::string audio_codec;  // "aac", "opus"; empty: no audio
  int width = 0;            // pixels
  int height = 0;
  // Media time in milliseconds since 1970 UTC; 0 until there is media.
  int64_t first_utc_ms = 0;
  int64_t last_utc_ms = 0;
  // Why the file was closed; empty while it is written.
  std::string closed;
};

class manifest {
 public:
  // Goes on with the manifest that `folder` (with its slash) has: files that were being written
  // when its recorder ended are closed as "recorder died". One that can't be read is kept aside as
  // recording.json.broken.
  manifest(std::string folder, std::string channel_id);

  // Adds a file and returns the number by which it is known here.
  size_t add(manifest_file file);
  manifest_file& at(size_t number) { return files_.at(number); }
  void remove(size_t number) { files_.erase(number); }
  // Writes the manifest. False, with a line in the log, when the folder doesn't take it.
  bool save();

 private:
  void load();

  const std::string folder_;
  const std::string channel_id_;
  // In the order in which they were opened.
  std::map<size_t, manifest_file> files_;
  size_t next_number_ = 0;
  bool failed_ = false;
};

}  // namespace zelta::core_service
