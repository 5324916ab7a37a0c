// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/layer_choice.h"

#include <algorithm>

namespace zelta::core_service::rtp {
namespace {

// No container tells less apart.
constexpr media::media_time kStep = std::chrono::milliseconds(1);

}  // namespace

layer_choice::verdict layer_choice::look(int layer, media::encoded_unit& unit) {
  sizes_[layer] = int64_t{unit.format->width} * unit.format->height;
  if (current_ != layer) {
    const bool stopped = current_ && ++others_ > kOthers && unit.time - latest_ > patience_;
    if (current_ && !stopped && !is_better(layer)) return verdict::kLeft;
    if (!unit.key) return verdict::kWantsKey;
    current_ = layer;
  }
  // Pictures of the layer before may be of later than the first of this one.
  if (begun_) {
    const media::media_time moved =
        std::max(latest_ + kStep - unit.time, media::media_time::zero());
    unit.time += moved;
    unit.decode_time += moved;
  }
  begun_ = true;
  latest_ = unit.time;
  others_ = 0;
  return verdict::kTaken;
}

void layer_choice::ended(int layer) {
  sizes_.erase(layer);
  if (current_ == layer) current_.reset();
}

bool layer_choice::is_better(int layer) const {
  const auto known = sizes_.find(*current_);
  if (known == sizes_.end()) return true;
  const int64_t size = sizes_.at(layer);
  return smallest_ ? size < known->second : size > known->second;
}

}  // namespace zelta::core_service::rtp
