// SPDX-License-Identifier: Apache-2.0
// What the tools after a recording read of its folder, which others may write into: a manifest, a
// journal, volumes and messages. The first byte chooses.
#include <algorithm>
#include <map>

#include <unistd.h>

#include "folder_reader.h"
#include "recordings/folder_state.h"
#include "recordings/volume_log.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

const std::string kManifest =
    R"({"version": 1, "channel_id": "room", "files": [{"name": "7_a.mp4", "uid": 7,
    "kind": "audio_video", "video_codec": "h264", "audio_codec": "aac", "width": 640,
    "height": 360, "first_utc_ms": 1700000000000, "last_utc_ms": 1700000001000,
    "closed": "user left", "crc32": "0a1b2c3d"}], "names": {"7": "alice"},
    "missing": [{"uid": 7, "medium": "video", "reason": "r", "utc_ms": 1700000000000}],
    "pictures": {"7": 3}, "dropped_frames": {"pictures": 1, "coded": 2, "sound": 3},
    "sessions": [{"channel_id": "room", "began_utc_ms": 1, "ended": "x"}],
    "lag": {"packets_ms": 5, "disk_ms": 6}})";

}  // namespace

std::vector<std::string> seeds() {
  return {
      'r' + kManifest,
      R"(j{"session": "1@2 0 room"})",
      "v{\"utc_ms\":1000,\"step_ms\":200,\"channel_id\":\"room\",\"volumes\":{\"7\":[0,9,255]}}\n"
      "{\"utc_ms\":900,\"step_ms\":200,\"channel_id\":\"room\",\"volumes\":{\"7\":[4]}}\n",
      "m{\"utc_ms\":1700000000500,\"uid\":7,\"channel_id\":\"room\",\"label\":\"l\","
      "\"text\":\"hi\"}\nno message\n",
  };
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  static const std::map<char, std::string> kNames = {{'r', "recording.json"},
                                                     {'j', "journal.json"},
                                                     {'v', "volumes.jsonl"},
                                                     {'m', "messages.jsonl"}};
  const auto name = size == 0 ? kNames.end() : kNames.find(static_cast<char>(data[0]));
  if (name == kNames.end()) return 0;
  const std::string& folder = fuzz::scratch_folder();
  // Its medium is there, so that a page has it.
  fuzz::write_scratch(folder + "7_a.mp4", data, 1);
  // Nothing of the input before: what is found is to be found by its own input alone.
  for (const auto& [kind, other] : kNames) (void)unlink((folder + other).c_str());
  if (name->first == 'm') {
    const std::string& right = fuzz::kManifest;
    fuzz::write_scratch(folder + "recording.json", reinterpret_cast<const uint8_t*>(right.data()),
                        right.size());
  }
  fuzz::write_scratch(folder + name->second, data + 1, size - 1);
  std::vector<std::string> errors;
  switch (name->first) {
    case 'j':
      recordings::is_over(folder, true);
      break;
    case 'v':
      for (const auto& [uid, lines] : recordings::read_volumes(folder, "room", errors)) {
        fuzz::require(
            std::is_sorted(lines.begin(), lines.end(),
                           [](const auto& a, const auto& b) { return a.utc_ms < b.utc_ms; }),
            "volumes out of the order of time");
        for (const recordings::volume_line& line : lines) {
          fuzz::require(line.utc_ms > 0 && line.step_ms > 0, "a time that can't be");
        }
      }
      break;
    default: {
      const view::folder_view seen = view::look_at(folder, 0);
      for (const std::string& one : seen.files) {
        fuzz::require(recordings::is_media_name(one), "a file that is no medium");
      }
      fuzz::require(!view::text_of(seen.page).empty(), "a page without a word");
    }
  }
  return 0;
}
