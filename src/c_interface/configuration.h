// SPDX-License-Identifier: Apache-2.0
// What C applications ask for, as what the engine takes.
#pragma once

#include <vector>

#include "IZeltaRecordingEngine.h"
#include "c_interface/outcome.h"

namespace zelta::c_interface {

// Of `given`, which may be null; `config` borrows its strings. Checks each member by itself: what
// goes with what is the engine's to say.
outcome read_config(const zelta_config* given, recording::RecordingConfig& config);

// `regions` holds what `layout` points to.
outcome read_layout(const zelta_layout* given, recording::VideoMixingLayout& layout,
                    std::vector<recording::VideoMixingLayout::Region>& regions);

}  // namespace zelta::c_interface
