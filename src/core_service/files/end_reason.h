// SPDX-License-Identifier: Apache-2.0
// Why something that is recorded ends, as the manifest and the log say it.
#pragma once

#include <string>
#include <variant>

namespace zelta::core_service::files {

enum class end_reason {
  // A series ends a file itself, and goes on with the next one.
  kChunkFull,       // it is as long as files are to be
  kPictureChanged,  // in size or codec
  kPictureCame,     // to sound that was alone
  kPictureStopped,  // the sound goes on alone
  kSoundChanged,    // in codec
  // Whoever has a series recorded ends it.
  kServiceStopped,
  kUserLeft,
  kLetGo,  // the machine was too busy for the user
  kEndOfMedia,
  kRecordingEnded,
  // Nobody: the file failed before.
  kFailed,
};

const char* name_of(end_reason reason);

// A reason, or an error in its own words.
using recording_end = std::variant<end_reason, std::string>;

std::string text_of(const recording_end& why);

}  // namespace zelta::core_service::files
