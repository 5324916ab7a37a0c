// SPDX-License-Identifier: Apache-2.0
// What leaves a user's decoder, made plain before anything composes, converts or delivers it:
// progressive I420 with square pixels, 8192 at most a side. The one place that knows what pictures
// strangers may send; what is plain already passes through without a copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <gst/gst.h>

namespace zelta::core_service::media {

// Elements from a decoder to plain pictures, in gst-launch syntax.
std::string plain_pictures();

// Has what is upstream of each of these elements in `branch` make its pictures in picture memory.
void offer_picture_memory_along(GstElement* branch);

// Whether pictures are of a size that is decoded: one that is all one colour is small as it comes
// and takes gigabytes decoded, of which a decoder holds up to 17. None: the caps don't say.
std::optional<bool> is_decodable(const GstCaps* coded);
// The same for codecs that have no parser, whose caps are the container's word: of a VP8 frame
// (RFC 6386, section 9.1) or else a Theora packet (Theora Specification, section 6.2). None for all
// but those that say the size.
std::optional<bool> is_decodable(const uint8_t* coded, size_t bytes, bool vp8);

}  // namespace zelta::core_service::media
