// SPDX-License-Identifier: Apache-2.0
// What a recording folder holds, as its manifests say: for all who come after the recorder.
//
// Any thread; nothing here changes a folder, and a recording that still runs may be read.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Json {
class Value;
}

namespace zelta::recordings {

struct media_file {
  std::string name;  // in the folder
  std::string channel_id;
  uint32_t uid = 0;         // 0: the mix
  std::string kind;         // "audio_video", "audio", "video"
  std::string video_codec;  // "h264", "hevc", "av1", "vp8", "vp9"; empty: no picture
  std::string audio_codec;  // "aac", "opus"; empty: no sound
  int width = 0;            // pixels
  int height = 0;
  // Of its media, in ms since 1970 UTC, on one clock for all files of a process. The end is kept up
  // every two seconds while the file is written.
  int64_t first_utc_ms = 0;
  int64_t last_utc_ms = 0;
  std::string closed;  // why; empty: it is being written, or its recorder is dead
  uint64_t bytes = 0;  // 0: it isn't there, either
  // Of a file that was closed in order: all bytes that it had then, and their CRC (ISO 3309).
  uint64_t closed_bytes = 0;
  std::optional<uint32_t> crc32;

  int64_t duration_ms() const { return last_utc_ms - first_utc_ms; }
};

// What was to be recorded and isn't.
struct gap {
  uint32_t uid = 0;  // 0: nobody's
  std::string channel_id;
  std::string medium;
  std::string codec;
  std::string reason;
  int64_t utc_ms = 0;
  int64_t until_utc_ms = 0;  // 0: to the end, or unknown
};

struct session {
  std::string channel_id;
  int64_t began_utc_ms = 0;
  int64_t ended_utc_ms = 0;  // 0: it isn't, or its recorder is dead
  std::string ended;         // why
};

// An entry of a manifest's "sessions". Throws what jsoncpp does when a field is of another type.
session session_of(const Json::Value& entry);

// For the application, which was too slow.
struct dropped_frames {
  uint64_t pictures = 0;  // YUV and JPEG
  uint64_t coded = 0;     // H.264
  uint64_t sound = 0;     // PCM and AAC

  uint64_t all() const { return pictures + coded + sound; }
};

struct manifest {
  std::string name;  // "recording.json", "recording_2.json", …
  std::string channel_id;
  std::vector<media_file> files;  // in the order of opening
  std::vector<gap> missing;
  std::map<uint32_t, std::string> names;      // what users call themselves
  std::map<uint32_t, uint64_t> pictures;      // captured in files
  std::map<uint32_t, uint64_t> messages;      // lines of text
  std::map<uint32_t, uint64_t> lost_packets;  // that found no room in the recorder
  recordings::dropped_frames dropped;
  std::vector<session> sessions;  // in the order of time
  // How far the recorder was behind what came when it last told.
  int64_t lag_of_packets_ms = 0;
  int64_t lag_of_disk_ms = 0;
};

// Those that can be read, in the order of their names; what can't is told in `errors`, a line each:
// a folder without any, one that isn't there, a manifest that is none. `folder` may end in a slash.
std::vector<manifest> read_manifests(const std::string& folder, std::vector<std::string>& errors);

// The same in two steps, for who keeps what it has read: the names, sorted, and one of them.
std::vector<std::string> find_manifests(const std::string& folder,
                                        std::vector<std::string>& errors);
std::optional<manifest> read_manifest(const std::string& folder, const std::string& name,
                                      std::vector<std::string>& errors);

// Whether a file of the folder is the manifest of one of its sessions, by its name.
bool is_manifest_name(const std::string& file_name);

}  // namespace zelta::recordings
