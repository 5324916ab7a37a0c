// SPDX-License-Identifier: Apache-2.0
#include "c_interface/handles.h"

#include <atomic>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace zelta::c_interface {

namespace {

struct registry {
  std::shared_mutex lock;
  std::map<const zelta_recording*, std::shared_ptr<recording_object>> recordings;
};

// Never destroyed: recordings that nobody released have threads that run while the process ends.
registry& all() {
  static registry& only = *std::make_unique<registry>().release();
  return only;
}

}  // namespace

zelta_recording* new_handle() {
  static std::atomic<uintptr_t> last{0};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): nothing is ever read through it
  return reinterpret_cast<zelta_recording*>(++last);
}

void add_recording(zelta_recording* handle, std::shared_ptr<recording_object> added) {
  const std::unique_lock<std::shared_mutex> guard(all().lock);
  all().recordings.emplace(handle, std::move(added));
}

std::shared_ptr<recording_object> find_recording(const zelta_recording* handle) {
  const std::shared_lock<std::shared_mutex> guard(all().lock);
  const auto found = all().recordings.find(handle);
  return found != all().recordings.end() ? found->second : nullptr;
}

void remove_recording(const zelta_recording* handle) {
  // What it holds is freed once the lock is given back.
  std::shared_ptr<recording_object> last;
  const std::unique_lock<std::shared_mutex> guard(all().lock);
  const auto found = all().recordings.find(handle);
  if (found == all().recordings.end()) return;
  last = std::move(found->second);
  all().recordings.erase(found);
}

}  // namespace zelta::c_interface
