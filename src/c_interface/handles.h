// SPDX-License-Identifier: Apache-2.0
// Which recordings there are, by the handles that applications have.
//
// A handle is a number in a pointer's clothes and never used again: one that was released is known
// as such, whatever the memory of its recording is used for now. Any thread.
#pragma once

#include <memory>

#include "c_interface/recording.h"

namespace zelta::c_interface {

zelta_recording* new_handle();
void add_recording(zelta_recording* handle, std::shared_ptr<recording_object> added);
// Null when there is none. Who has it keeps it, also when it is removed meanwhile.
std::shared_ptr<recording_object> find_recording(const zelta_recording* handle);
void remove_recording(const zelta_recording* handle);

}  // namespace zelta::c_interface
