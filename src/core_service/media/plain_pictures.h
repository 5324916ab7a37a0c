// SPDX-License-Identifier: Apache-2.0
// What leaves a user's decoder, made plain before anything composes, converts or delivers it:
// progressive I420 with square pixels, 8192 at most a side. The one place that knows what pictures
// strangers may send; what is plain already passes through without a copy.
#pragma once

#include <string>

#include <gst/gst.h>

namespace zelta::core_service::media {

// Elements from a decoder to plain pictures, in gst-launch syntax.
std::string plain_pictures();

// Has what is upstream of each of these elements in `branch` make its pictures in picture memory.
void offer_picture_memory_along(GstElement* branch);

// What a decoder would need beyond this is not decoded: a picture that is all one colour is small
// as it comes and takes gigabytes decoded, of which a decoder holds up to 17. False when the caps
// name a larger size.
bool is_decodable_size(const GstCaps* coded);

}  // namespace zelta::core_service::media
