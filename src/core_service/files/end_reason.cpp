// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/end_reason.h"

namespace zelta::core_service::files {

const char* name_of(end_reason reason) {
  switch (reason) {
    case end_reason::kChunkFull:
      return "chunk full";
    case end_reason::kPictureChanged:
      return "picture changed";
    case end_reason::kPictureCame:
      return "picture came";
    case end_reason::kPictureStopped:
      return "picture stopped";
    case end_reason::kSoundChanged:
      return "sound changed";
    case end_reason::kServiceStopped:
      return "service stopped";
    case end_reason::kUserLeft:
      return "user left";
    case end_reason::kLetGo:
      return "let go";
    case end_reason::kEndOfMedia:
      return "end of media";
    case end_reason::kRecordingEnded:
      return "recording ended";
    case end_reason::kFailed:
      return "error";
  }
  return "";
}

std::string text_of(const recording_end& why) {
  const auto* const reason = std::get_if<end_reason>(&why);
  return reason != nullptr ? name_of(*reason) : std::get<std::string>(why);
}

}  // namespace zelta::core_service::files
