// SPDX-License-Identifier: Apache-2.0
// The manifest and the journal that a predecessor left behind. The first byte chooses.
#include <filesystem>

#include "core_service/folder/journal.h"
#include "core_service/folder/manifest.h"
#include "target.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  return {
      R"(m{"version": 1, "channel_id": "room", "files": [{"name": "7_20260101T000000000.mp4",
        "channel_id": "hall", "uid": 7, "kind": "audio_video", "video_codec": "h264",
        "audio_codec": "aac", "width": 640, "height": 360, "first_utc_ms": 1700000000000,
        "last_utc_ms": 1700000001000, "closed": ""}], "pictures": {"7": 3},
        "missing": [{"uid": 7, "channel_id": "room", "medium": "video", "codec": "video/x-dirac",
        "reason": "r", "utc_ms": 1700000000000}],
        "dropped_frames": {"pictures": 1, "coded": 2, "sound": 3}})",
      R"(j{"version": 1, "session": "1@2 0 room", "layout": "0100ff",
        "user_backgrounds": {"7": "image.png"}, "log_level": 5, "log_modules": -1,
        "serving": true, "left_out": {"7": 2}, "unexplained_crashes": 1})",
  };
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  if (size == 0) return 0;
  const std::string& folder = fuzz::scratch_folder();
  static core_service::state_writer writer(nullptr);
  const bool manifest = data[0] == 'm';
  fuzz::write_scratch(folder + (manifest ? "recording.json" : "journal.json"), data + 1, size - 1);
  if (manifest) {
    core_service::manifest left(folder, "recording.json", "room", writer);
    fuzz::require(left.note_missing(7, {"video", "c", "r"}), "an earlier session's silences this");
    fuzz::require(!left.note_missing(7, {"video", "c", "r"}), "told twice");
  } else {
    std::string error;
    const bool read = core_service::read_journal(folder + "journal.json", error).has_value();
    fuzz::require(read == error.empty(), "an error with a journal, or none without");
  }
  return 0;
}
