// SPDX-License-Identifier: Apache-2.0
#include "c_interface/handles.h"

#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <utility>

#include <pthread.h>

namespace zelta::c_interface {

namespace {

struct registry {
  std::shared_mutex lock;
  std::map<const zelta_recording*, std::shared_ptr<recording_object>> recordings;
};

std::atomic<registry*> current{nullptr};

// A child has none of its parent's threads, and would end the parent's recorders with what it
// releases; another thread of the parent may have held the lock. What was there is left as it lies.
void forget_parent() {
  current = new (std::nothrow) registry;
}

// Never destroyed: recordings that nobody released have threads that run while the process ends.
registry& all() {
  static const int watched = [] {
    current = std::make_unique<registry>().release();
    return pthread_atfork(nullptr, nullptr, forget_parent);
  }();
  registry* const found = current;
  if (watched != 0 || found == nullptr) throw std::bad_alloc();
  return *found;
}

}  // namespace

zelta_recording* new_handle() {
  static std::atomic<uintptr_t> last{0};
  // NOLINTNEXTLINE(performance-no-int-to-ptr): nothing is ever read through it
  return reinterpret_cast<zelta_recording*>(++last);
}

void add_recording(zelta_recording* handle, std::shared_ptr<recording_object> added) {
  registry& known = all();
  const std::unique_lock<std::shared_mutex> guard(known.lock);
  known.recordings.emplace(handle, std::move(added));
}

std::shared_ptr<recording_object> find_recording(const zelta_recording* handle) {
  registry& known = all();
  const std::shared_lock<std::shared_mutex> guard(known.lock);
  const auto found = known.recordings.find(handle);
  return found != known.recordings.end() ? found->second : nullptr;
}

void remove_recording(const zelta_recording* handle) {
  // What it holds is freed once the lock is given back.
  std::shared_ptr<recording_object> last;
  registry& known = all();
  const std::unique_lock<std::shared_mutex> guard(known.lock);
  const auto found = known.recordings.find(handle);
  if (found == known.recordings.end()) return;
  last = std::move(found->second);
  known.recordings.erase(found);
}

}  // namespace zelta::c_interface
