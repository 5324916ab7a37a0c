// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/nal_formats.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <tuple>
#include <utility>

#include "core_service/media/picture_size.h"

namespace zelta::core_service::media {
namespace {

// As many SPS as "avcC" can count. Live senders have one or two of a kind, of some tens of bytes;
// what a hostile one could make us keep and copy has to end somewhere.
constexpr std::ptrdiff_t kMostOfARole = 31;
constexpr size_t kMostSetBytes = 2048;
constexpr size_t kLengthBytes = 4;

bool is_set(nal_role role) {
  return role != nal_role::kOther && role != nal_role::kSlice;
}

}  // namespace

bool read_sets(const std::vector<uint8_t>& config, size_t& at, size_t count, const take_nal& take) {
  for (; count > 0; --count) {
    if (config.size() - at < 2) return false;
    const size_t bytes = static_cast<size_t>(config[at]) << 8U | config[at + 1];
    at += 2;
    if (bytes > config.size() - at) return false;
    if (bytes > 0) take(config.data() + at, bytes);
    at += bytes;
  }
  return true;
}

uint8_t put_sets(std::vector<uint8_t>& config, const std::vector<const parameter_set*>& sets,
                 nal_role role) {
  uint8_t count = 0;
  for (const parameter_set* const one : sets) {
    if (one->role != role) continue;
    config.push_back(static_cast<uint8_t>(one->nal.size() >> 8U));
    config.push_back(static_cast<uint8_t>(one->nal.size() & 0xFFU));
    config.insert(config.end(), one->nal.begin(), one->nal.end());
    ++count;
  }
  return count;
}

void set_size(int64_t width, int64_t height, const cropping& cut, unsigned chroma, int64_t fields,
              sequence_facts& out) {
  width -= cut.across * (chroma == 1 || chroma == 2 ? 2 : 1);
  height -= cut.down * (chroma == 1 ? 2 : 1) * fields;
  if (!is_picture_size(width, height)) return;
  out.width = static_cast<int>(width);
  out.height = static_cast<int>(height);
}

void nal_formats::add(const uint8_t* nal, size_t bytes) {
  if (bytes == 0 || bytes > kMostSetBytes) return;
  const nal_role role = rules_.role(nal, bytes);
  if (!is_set(role)) return;
  const auto same = [&](const parameter_set& one) {
    return one.role == role && one.nal.size() == bytes &&
           std::memcmp(one.nal.data(), nal, bytes) == 0;
  };
  if (std::any_of(sets_.begin(), sets_.end(), same)) return;
  parameter_set made;
  if (!rules_.read_set(role, nal, bytes, made)) return;
  made.role = role;
  made.nal.assign(nal, nal + bytes);
  const auto at = std::lower_bound(sets_.begin(), sets_.end(), made,
                                   [](const parameter_set& a, const parameter_set& b) {
                                     return std::tie(a.role, a.id) < std::tie(b.role, b.id);
                                   });
  if (at != sets_.end() && at->role == role && at->id == made.id) {
    *at = std::move(made);
  } else {
    const auto of_role = [role](const parameter_set& one) { return one.role == role; };
    if (std::count_if(sets_.begin(), sets_.end(), of_role) >= kMostOfARole) return;
    sets_.insert(at, std::move(made));
  }
  changed_ = true;
}

format_ptr nal_formats::look(const uint8_t* unit, size_t bytes, bool key) {
  slice first;
  for (size_t at = 0; bytes - at > kLengthBytes;) {
    const size_t length = static_cast<size_t>(unit[at]) << 24U |
                          static_cast<size_t>(unit[at + 1]) << 16U |
                          static_cast<size_t>(unit[at + 2]) << 8U | unit[at + 3];
    at += kLengthBytes;
    if (length > bytes - at) break;
    if (length > 0) {
      const nal_role role = rules_.role(unit + at, length);
      if (is_set(role)) add(unit + at, length);
      if (role == nal_role::kSlice && first.nal == nullptr) first = {unit + at, length};
    }
    at += length;
  }
  // Streams that refresh picture by picture have no key unit: theirs is known as soon as it can be.
  const bool begins = format_ == nullptr && changed_;
  if (first.nal != nullptr && (key || begins)) activate(first);
  return format_;
}

const parameter_set* nal_formats::find(nal_role role, uint32_t id) const {
  for (const parameter_set& one : sets_) {
    if (one.role == role && one.id == id) return one.usable ? &one : nullptr;
  }
  return nullptr;
}

const parameter_set* nal_formats::active_sps(uint32_t pps) const {
  const parameter_set* const of_picture = find(nal_role::kPps, pps);
  if (of_picture == nullptr) return nullptr;
  const parameter_set* const sps = find(nal_role::kSps, of_picture->refers_to);
  if (sps == nullptr || !rules_.has_vps) return sps;
  return find(nal_role::kVps, sps->refers_to) != nullptr ? sps : nullptr;
}

void nal_formats::activate(const slice& first) {
  const std::optional<uint32_t> pps = rules_.pps_of(first.nal, first.bytes);
  const parameter_set* const sps = pps ? active_sps(*pps) : nullptr;
  // Nothing can be decoded from here on, until a key unit has its sets again.
  if (sps == nullptr) {
    format_.reset();
    changed_ = false;
    return;
  }
  if (format_ != nullptr && !changed_ && active_ == sps->id) return;
  changed_ = false;
  active_ = sps->id;
  format_ptr made = format_with(*sps);
  if (format_ == nullptr || !(*made == *format_)) format_ = std::move(made);
}

format_ptr nal_formats::format_with(const parameter_set& sps) const {
  std::vector<const parameter_set*> usable;
  for (const parameter_set& one : sets_) {
    if (one.usable) usable.push_back(&one);
  }
  auto made = std::make_shared<stream_format>();
  made->kind = &kind_;
  made->width = sps.facts.width;
  made->height = sps.facts.height;
  made->aspect_across = sps.facts.aspect_across;
  made->aspect_down = sps.facts.aspect_down;
  made->reordered = sps.facts.reordered;
  made->config = rules_.config(usable, sps);
  return made;
}

int reordered_by(const nal_rules& rules, const std::vector<uint8_t>& config) {
  int most = 0;
  rules.read_config(config, [&](const uint8_t* nal, size_t bytes) {
    parameter_set one;
    if (rules.role(nal, bytes) != nal_role::kSps) return;
    if (!rules.read_set(nal_role::kSps, nal, bytes, one)) return;
    most = std::max(most, one.facts.reordered);
  });
  return most;
}

}  // namespace zelta::core_service::media
