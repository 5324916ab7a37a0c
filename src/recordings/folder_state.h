// SPDX-License-Identifier: Apache-2.0
// Who still records into a folder, and which of its files belong to the recording.
//
// Any thread; nothing here changes a folder.
#pragma once

#include <string>
#include <vector>

namespace zelta::recordings {

// Whether nobody records into the folder any more: it has no journal, and no process holds a share
// of it. A folder that can't be read is not over. With `left_over` journals of dead recorders don't
// count, but where the process that has called the recorder lives: it calls the next one. It looks
// by taking the locks for a moment, of folders that look over without that: a recorder that starts
// in just that moment calls its manifest recording_2.json.
bool is_over(const std::string& folder, bool left_over = false);

// Whether a manifest may name media so. What leads out of the folder, is hidden, or is the name of
// something else in it, a state, a lock or a log, may not be taken for media.
bool is_media_name(const std::string& name);

// All, sorted, that are named as a recorder names media: of one that died before its manifest had
// them. Empty, too, when the folder can't be read.
std::vector<std::string> media_names(const std::string& folder);

// What a recording has beside its media and its manifests, sorted: captured pictures, messages,
// volumes, logs. Empty, too, when the folder can't be read.
std::vector<std::string> companion_names(const std::string& folder);

}  // namespace zelta::recordings
