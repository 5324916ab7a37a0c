// SPDX-License-Identifier: Apache-2.0
#include "protocol/mixing_layout.h"

#include <cstring>
#include <tuple>
#include <utility>

#include <unistd.h>

#include "base/log.h"
#include "base/packer.h"

namespace zelta::recording {
namespace {

using Region = linuxsdk::VideoMixingLayout::Region;

constexpr uint8_t kLayoutVersion = 1;
// A region's bytes: the count is checked against them before anything is allocated.
constexpr size_t kRegionBytes = 4 + 5 * 8 + 4;

void put(base::packer& p, double value) {
  uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  p << bits;
}
void get(base::unpacker& u, double& value) {
  const uint64_t bits = u.pop_uint64();
  std::memcpy(&value, &bits, sizeof value);
}
template <class T>
void put(base::packer& p, const T& value) {
  p << value;
}
template <class T>
void get(base::unpacker& u, T& value) {
  u >> value;
}

// The one list of fields for both directions.
template <class R>
auto fields_of_region(R& r) {
  return std::tie(r.uid, r.x, r.y, r.width, r.height, r.alpha, r.renderMode);
}
template <class L>
auto fields_of_layout(L& l) {
  return std::tie(l.canvas_width, l.canvas_height, l.background_color, l.regions, l.app_data);
}

void put(base::packer& p, const std::vector<Region>& regions) {
  p << static_cast<uint32_t>(regions.size());
  for (const Region& region : regions) {
    std::apply([&p](const auto&... field) { (put(p, field), ...); }, fields_of_region(region));
  }
}
void get(base::unpacker& u, std::vector<Region>& regions) {
  const uint32_t count = u.pop_uint32();
  if (count > u.remaining() / kRegionBytes) return u.fail();
  regions.resize(count);
  for (Region& region : regions) {
    std::apply([&u](auto&... field) { (get(u, field), ...); }, fields_of_region(region));
  }
}

// Null when the layout can be encoded, else what is wrong with it.
const char* fault_of(const linuxsdk::VideoMixingLayout& layout) {
  if (layout.regionCount > 0 && layout.regions == nullptr) {
    return "regionCount is positive and regions is null";
  }
  if (layout.appDataLength < 0) return "appDataLength is negative";
  if (layout.appDataLength > 0 && layout.appData == nullptr) {
    return "appDataLength is positive and appData is null";
  }
  return nullptr;
}

}  // namespace

bool encodeMixingLayout(const linuxsdk::VideoMixingLayout& layout,
                        std::vector<unsigned char>& bytes, const std::string& logdir) {
  if (const char* const fault = fault_of(layout)) {
    base::log_dir(logdir.c_str(), base::ERROR_LOG, base::ZELTA_LOG_MODULE_RECORDING_ENGINE,
                  "(%d) %s:%d: mixing layout refused: %s (regionCount %u, appDataLength %d)",
                  getpid(), __FILE__, __LINE__, fault, layout.regionCount, layout.appDataLength);
    return false;
  }
  mixing_layout owned;
  owned.canvas_width = layout.canvasWidth;
  owned.canvas_height = layout.canvasHeight;
  if (layout.backgroundColor != nullptr) owned.background_color = layout.backgroundColor;
  owned.regions.assign(layout.regions, layout.regions + layout.regionCount);
  if (layout.appDataLength > 0) {
    owned.app_data.assign(layout.appData, static_cast<size_t>(layout.appDataLength));
  }

  base::packer p;
  p << kLayoutVersion;
  std::apply([&p](const auto&... field) { (put(p, field), ...); },
             fields_of_layout(std::as_const(owned)));
  p.pack();
  bytes.assign(p.body(), p.buffer() + p.length());
  return true;
}

bool decodeMixingLayout(const std::vector<unsigned char>& bytes, mixing_layout& layout) {
  const std::string text(bytes.begin(), bytes.end());
  base::unpacker u(text.data(), text.size(), false);
  if (u.pop_uint8() != kLayoutVersion) return false;
  mixing_layout decoded;
  std::apply([&u](auto&... field) { (get(u, field), ...); }, fields_of_layout(decoded));
  if (!u.complete()) return false;
  layout = std::move(decoded);
  return true;
}

}  // namespace zelta::recording
