// SPDX-License-Identifier: Apache-2.0
#include "c_interface/event_parts.h"

#include <cstring>

namespace zelta::c_interface {

namespace {

struct stretch {
  const void* at = nullptr;
  size_t bytes = 0;
};

stretch of_text(const char* text) {
  return {text, std::strlen(text) + 1};
}

stretch stretch_of(const zelta_event& e) {
  switch (e.kind) {
    case ZELTA_EVENT_JOINED:
      return of_text(e.as.joined.channel_id);
    case ZELTA_EVENT_USER_JOINED:
      return of_text(e.as.user_joined.storage_dir);
    case ZELTA_EVENT_AUDIO_FRAME:
      return {e.as.audio.data, e.as.audio.data_bytes};
    case ZELTA_EVENT_VIDEO_FRAME:
      return {e.as.video.data, e.as.video.data_bytes};
    case ZELTA_EVENT_VOLUMES:
      return {e.as.volumes.speakers, e.as.volumes.count * sizeof(zelta_volume)};
    default:
      return {};
  }
}

void point_to(zelta_event& e, const unsigned char* bytes) {
  switch (e.kind) {
    case ZELTA_EVENT_JOINED:
      e.as.joined.channel_id = reinterpret_cast<const char*>(bytes);
      break;
    case ZELTA_EVENT_USER_JOINED:
      e.as.user_joined.storage_dir = reinterpret_cast<const char*>(bytes);
      break;
    case ZELTA_EVENT_AUDIO_FRAME:
      e.as.audio.data = bytes;
      break;
    case ZELTA_EVENT_VIDEO_FRAME:
      for (const uint8_t*& plane : e.as.video.planes) {
        if (plane != nullptr) plane = bytes + (plane - e.as.video.data);
      }
      e.as.video.data = bytes;
      break;
    case ZELTA_EVENT_VOLUMES:
      e.as.volumes.speakers = reinterpret_cast<const zelta_volume*>(bytes);
      break;
    default:
      break;
  }
}

}  // namespace

size_t bytes_behind(const zelta_event& event) {
  return stretch_of(event).bytes;
}

void copy_event(const zelta_event& from, zelta_event& to, unsigned char* bytes) {
  const stretch behind = stretch_of(from);
  to = from;
  if (behind.bytes > 0) std::memcpy(bytes, behind.at, behind.bytes);
  point_to(to, bytes);
}

}  // namespace zelta::c_interface
