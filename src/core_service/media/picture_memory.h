// SPDX-License-Identifier: Apache-2.0
// Memory of decoded pictures, in huge pages where the system has them: the kernel copies a picture
// out of few large pages into the engine half as fast again as out of many small ones.
#pragma once

#include <cstddef>

#include <gst/gst.h>

namespace zelta::core_service::media {

// What is smaller comes from the heap.
constexpr size_t kMinPictureBytes = 64 << 10;

// What gst_memory_is_type() knows it by.
constexpr const char* kPictureMemory = "ZeltaPicture";

// Borrowed; lives as long as the process. Its blocks begin at a page. Any thread.
GstAllocator* picture_allocator();

// What the allocator has from the system at the moment, of which the pages that were never touched
// cost nothing.
size_t picture_memory_bytes();

// Has the element upstream of `pad` make its pictures in this memory.
void offer_picture_memory(GstPad* pad);

}  // namespace zelta::core_service::media
