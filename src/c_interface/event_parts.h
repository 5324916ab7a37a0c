// SPDX-License-Identifier: Apache-2.0
// An event, and the memory that it points to: each kind points to one stretch at most.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zelta_recording.h"

namespace zelta::c_interface {

// All zero but for what is given; `member_bytes` is the size of its member of `as`.
inline zelta_event event_of(zelta_event_kind kind, size_t member_bytes, uint32_t uid = 0) {
  zelta_event e{};
  e.size = static_cast<uint32_t>(offsetof(zelta_event, as) + member_bytes);
  e.kind = kind;
  e.uid = uid;
  return e;
}

// What may be dropped.
inline bool is_frame(const zelta_event& event) {
  return event.kind == ZELTA_EVENT_AUDIO_FRAME || event.kind == ZELTA_EVENT_VIDEO_FRAME;
}

// Bytes that copy_event() wants.
size_t bytes_behind(const zelta_event& event);

// Makes `to` the event `from`, with all that it points to in `bytes`.
void copy_event(const zelta_event& from, zelta_event& to, unsigned char* bytes);

}  // namespace zelta::c_interface
