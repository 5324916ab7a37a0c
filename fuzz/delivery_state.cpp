// SPDX-License-Identifier: Apache-2.0
// The state of deliveries that stands in a folder that others may write into: what is read names
// nothing outside of it, holds nothing that breaks a header or a line, and comes back as it is
// kept.
#include "ledger.h"
#include "names.h"
#include "support/temp_dir.h"
#include "target.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  return {
      R"({"version": 1, "id": "0a1b", "remote": "2026/call", "announced": "", "next_notice": 3,
        "files": {"7_a.mp4": {"bytes": 10, "mtime_ns": 1764000000123456789, "sha256": "ab09",
          "rank": "media", "announced": true, "deleted_utc_ms": 5, "targets": {
          "s3": {"state": "sending", "attempts": 3, "refusals": 2, "next_utc_ms": 77,
            "confirmed_utc_ms": 0, "error": "why", "ours": true, "upload_id": "u",
            "part_bytes": 5242880, "parts": ["\"t\""]}}},
        "recording.json": {"rank": "manifest", "targets": {"s3": {"state": "pending"}}}},
        "notices": [{"id": "0a1b-1", "body": "{}", "for_hook": true, "kind": "file",
          "attempts": 4, "next_utc_ms": 99}]})",
  };
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  const std::string& folder = fuzz::scratch_folder();
  const std::string path = folder + deliver::kLedgerName;
  fuzz::write_scratch(path, data, size);
  std::string error;
  const auto read = deliver::load_ledger(folder, error);
  fuzz::require(read.has_value() == error.empty(), "an error with a state, or none without");
  if (!read) return 0;
  fuzz::require(read->remote.empty() || deliver::is_sound_path(read->remote), "a way out");
  for (const auto& [name, one] : read->files) {
    fuzz::require(deliver::is_sound_name(name) && name.find('/') == std::string::npos &&
                      name.front() != '.' && name != deliver::kLedgerName,
                  "a name of what is no recording's");
    for (const auto& [target, at] : one.targets) {
      fuzz::require(at.part_bytes > 0 || at.parts.empty(), "parts of nothing");
    }
  }
  for (const deliver::notice& one : read->notices) {
    fuzz::require(deliver::is_sound_name(one.id), "an id that breaks a header");
  }
  fuzz::require(deliver::save_ledger(folder, *read, error), "what was read can't be kept");
  const std::string kept = test::read_file(path);
  const auto again = deliver::load_ledger(folder, error);
  fuzz::require(again.has_value(), "what was kept can't be read");
  for (const auto& [name, one] : again->files) one.text.clear();
  fuzz::require(deliver::save_ledger(folder, *again, error), "it can't be kept again");
  fuzz::require(test::read_file(path) == kept, "a state that comes back another one");
  return 0;
}
