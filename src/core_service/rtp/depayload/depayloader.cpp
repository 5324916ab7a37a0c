// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/depayload/depayloader.h"

#include <string_view>
#include <utility>

#include "core_service/rtp/depayload/av1.h"
#include "core_service/rtp/depayload/h264.h"
#include "core_service/rtp/depayload/hevc.h"
#include "core_service/rtp/depayload/sound.h"
#include "core_service/rtp/depayload/vp8.h"
#include "core_service/rtp/depayload/vp9.h"

namespace zelta::core_service::rtp {
namespace {

template <class Depayloader>
std::unique_ptr<depayloader> make(media::byte_pool& pool, depayloader::sink&& to) {
  return std::make_unique<Depayloader>(pool, std::move(to));
}

constexpr struct {
  std::string_view name;
  std::unique_ptr<depayloader> (*make)(media::byte_pool&, depayloader::sink&&);
} kFormats[] = {
    {"h264", make<h264_depayloader>},  {"hevc", make<hevc_depayloader>},
    {"vp8", make<vp8_depayloader>},    {"vp9", make<vp9_depayloader>},
    {"av1", make<av1_depayloader>},    {"opus", make<sound_depayloader>},
    {"pcmu", make<sound_depayloader>}, {"pcma", make<sound_depayloader>},
};

}  // namespace

std::unique_ptr<depayloader> make_depayloader(const media::codec& of, media::byte_pool& pool,
                                              depayloader::sink to) {
  for (const auto& format : kFormats) {
    if (format.name == of.name) return format.make(pool, std::move(to));
  }
  return nullptr;
}

}  // namespace zelta::core_service::rtp
