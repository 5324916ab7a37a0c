// SPDX-License-Identifier: Apache-2.0
// What users wrote while they were recorded, beside their manifest.
//
// Any thread; one that is still being written may be read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zelta::recordings {

struct message {
  int64_t utc_ms = 0;  // when it came, on the clock of the manifest's files
  uint32_t uid = 0;
  std::string channel_id;
  std::string label;  // of the data channel
  std::string text;   // UTF-8
};

// "messages.jsonl" of "recording.json", "messages_2.jsonl" of "recording_2.json".
std::string message_log_of(const std::string& manifest_name);

// In the order of coming; empty when there is no such file. Lines that are none are left out and
// counted in `errors`, a line a file; so are those beyond `most`, of which the first are kept.
std::vector<message> read_messages(const std::string& folder, const std::string& manifest_name,
                                   size_t most, std::vector<std::string>& errors);

}  // namespace zelta::recordings
