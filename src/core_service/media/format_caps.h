// SPDX-License-Identifier: Apache-2.0
// Formats as GStreamer's elements say them.
#pragma once

#include "core_service/media/encoded_unit.h"
#include "core_service/media/gst.h"

namespace zelta::core_service::media {

// For feeding units of the format to a decoder. Null for a codec whose caps need more than a format
// holds.
caps_ptr caps_of(const stream_format& format);

// The format of what a demuxer or an encoder makes. Of AAC, `config` is its AudioSpecificConfig
// (ISO/IEC 14496-3, 1.6.2.1). Null for a codec that isn't supported, for pictures without a size or
// larger than we take, and for H.264 and HEVC without parameter sets beside the stream.
format_ptr format_of(const GstCaps* caps);

// Units as samples: their own memory, which the samples keep, and caps that are made once a format.
class unit_samples {
 public:
  // Without caps where caps_of() has none.
  media_sample of(const encoded_unit& unit);

 private:
  format_ptr format_;
  caps_ptr caps_;
};

}  // namespace zelta::core_service::media
