// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/files_consumer.h"

#include <cstring>

namespace zelta::core_service::files {
namespace {

// More have a table of which goes where (RFC 7845, section 5.1.1), which our containers don't take.
constexpr int kMostChannels = 2;

}  // namespace
// Gaps that are to stay gaps are left by the encoder's way alone; gain and more than two channels
// are for a decoder to see to.
bool files_consumer::keeps(const media::stream_format& format) const {
  return settings_.sound && keeps_opus_ && settings_.longest_gap == media::media_time::zero() &&
         std::strcmp(format.kind->name, "opus") == 0 && !format.caps &&
         format.channels <= kMostChannels;
}

void files_consumer::expect_sound(const media::format_ptr& format, media::media_time from) {
  if (!settings_.sound) return;
  keeps_sound_ = keeps(*format);
  series_.expect_sound(keeps_sound_ ? format : nullptr, from);
}

}  // namespace zelta::core_service::files
