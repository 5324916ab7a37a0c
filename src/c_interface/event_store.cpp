// SPDX-License-Identifier: Apache-2.0
#include "c_interface/event_store.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include "c_interface/event_parts.h"

namespace zelta::c_interface {

namespace {

// Texts and short sound share one size.
constexpr size_t kLeastPower = 9;

size_t power_for(size_t bytes) {
  size_t power = kLeastPower;
  while ((size_t{1} << power) < bytes) ++power;
  return power;
}

}  // namespace

struct event_store::block {
  explicit block(size_t size) : power(size), bytes(new unsigned char[capacity()]) {}
  size_t capacity() const { return size_t{1} << power; }
  void give_pages_back() const;

  zelta_event event{};
  const size_t power;
  size_t counted = 0;       // bytes of a frame's, as long as it is held
  unsigned references = 0;  // of the application's
  block* next = nullptr;    // in the queue, or among the free
  const std::unique_ptr<unsigned char[]> bytes;
};

// What nobody will write again needs no memory; its addresses stay, so that who wrongly reads on
// sees zeros. Where the system refuses, memory stays as well.
void event_store::block::give_pages_back() const {
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t begin = (reinterpret_cast<uintptr_t>(bytes.get()) + page - 1) / page * page;
  const uintptr_t end = (reinterpret_cast<uintptr_t>(bytes.get()) + capacity()) / page * page;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a page's, which is none of a member
  if (begin < end) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
}

// What an event takes of the bound: no less than half of what is kept for it.
size_t event_store::counted_for(const zelta_event& event, size_t bytes) {
  if (!is_frame(event)) return 0;
  return std::max(bytes + sizeof(block), (size_t{1} << kLeastPower) / 2);
}

event_store::event_store(size_t bound_bytes) : bound_(bound_bytes) {}
event_store::~event_store() = default;

outcome event_store::open() {
  ready_fd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (ready_fd_.valid()) return {};
  return {ZELTA_ERROR_SYSTEM, std::string("eventfd: ") + std::strerror(errno)};
}

// ---- Queue ---------------------------------------------------------------------------------

void event_store::push(const zelta_event& event) noexcept {
  const size_t bytes = bytes_behind(event);
  block* taken = nullptr;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    taken = take_locked(bytes, counted_for(event, bytes));
  }
  // Outside the lock, because a picture takes a while, and those who release others needn't wait.
  if (taken != nullptr) copy_event(event, taken->event, taken->bytes.get());
  const std::lock_guard<std::mutex> guard(mutex_);
  if (taken == nullptr) count_loss_locked(event);
  tell_losses_locked();
  if (taken != nullptr) append_locked(*taken);
  show_readiness_locked();
  // All: a gap and a frame are two events.
  changed_.notify_all();
}

void event_store::count_loss_locked(const zelta_event& event) {
  if (!is_frame(event)) {
    ++untold_.other_events;
    return;
  }
  ++frames_dropped_;
  ++(event.kind == ZELTA_EVENT_AUDIO_FRAME ? untold_.audio_frames : untold_.video_frames);
}

// One event a gap: as long as nothing else was queued behind it, it is the gap that grows.
void event_store::tell_losses_locked() {
  if (untold_.audio_frames + untold_.video_frames + untold_.other_events == 0) return;
  block* told = last_;
  if (told == nullptr || told->event.kind != ZELTA_EVENT_DROPPED) {
    told = take_locked(0, 0);
    // Told with the next event, if there is memory for that.
    if (told == nullptr) return;
    told->event = event_of(ZELTA_EVENT_DROPPED, sizeof told->event.as.dropped);
    append_locked(*told);
  }
  auto& dropped = told->event.as.dropped;
  dropped.audio_frames += untold_.audio_frames;
  dropped.video_frames += untold_.video_frames;
  dropped.other_events += untold_.other_events;
  dropped.frames_so_far = frames_dropped_;
  untold_ = {};
}

void event_store::append_locked(block& filled) {
  filled.next = nullptr;
  (last_ != nullptr ? last_->next : first_) = &filled;
  last_ = &filled;
}

int event_store::next(int timeout_ms, const zelta_event*& event) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto any = [this] { return first_ != nullptr || closed_ || abandoned_; };
  if (timeout_ms < 0) {
    changed_.wait(lock, any);
  } else if (!any() && timeout_ms > 0) {
    changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), any);
  }
  if (abandoned_) return ZELTA_ERROR_HANDLE;
  if (first_ == nullptr) return closed_ ? ZELTA_END : ZELTA_NO_EVENT;
  block& oldest = *first_;
  first_ = oldest.next;
  if (first_ == nullptr) last_ = nullptr;
  oldest.references = 1;
  event = &oldest.event;
  show_readiness_locked();
  return ZELTA_OK;
}

void event_store::close() {
  const std::lock_guard<std::mutex> guard(mutex_);
  closed_ = true;
  tell_losses_locked();
  for (const block* unused : free_) {
    for (; unused != nullptr; unused = unused->next) unused->give_pages_back();
  }
  show_readiness_locked();
  changed_.notify_all();
}

void event_store::abandon() {
  const std::lock_guard<std::mutex> guard(mutex_);
  abandoned_ = true;
  show_readiness_locked();
  changed_.notify_all();
}

void event_store::show_readiness_locked() {
  const bool ready = first_ != nullptr || closed_ || abandoned_;
  if (ready == shown_ready_ || !ready_fd_.valid()) return;
  uint64_t count = 1;
  // Neither can fail: one is written when the counter is 0, and read when it is 1.
  if (ready) {
    [[maybe_unused]] const ssize_t written = ::write(ready_fd_.get(), &count, sizeof count);
  } else {
    [[maybe_unused]] const ssize_t got = ::read(ready_fd_.get(), &count, sizeof count);
  }
  shown_ready_ = ready;
}

// ---- Handed out ----------------------------------------------------------------------------

outcome event_store::copy(const zelta_event& event, const zelta_event*& copied) {
  const size_t bytes = bytes_behind(event);
  const size_t counted = counted_for(event, bytes);
  block* taken = nullptr;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (counted > 0 && held_ + counted > bound_) {
      return {ZELTA_ERROR_FULL, "copies hold " + std::to_string(held_) + " bytes, this one has " +
                                    std::to_string(counted) + ", queue_bytes is " +
                                    std::to_string(bound_)};
    }
    taken = take_locked(bytes, counted);
    if (taken == nullptr) return {ZELTA_ERROR_MEMORY, "no memory for a copy"};
    taken->references = 1;
  }
  copy_event(event, taken->event, taken->bytes.get());
  copied = &taken->event;
  return {};
}

event_store::block* event_store::handed_out_locked(const zelta_event* event) {
  const auto found = blocks_.find(event);
  return found != blocks_.end() && found->second->references > 0 ? found->second.get() : nullptr;
}

bool event_store::hold(const zelta_event* event) {
  const std::lock_guard<std::mutex> guard(mutex_);
  block* const held = handed_out_locked(event);
  if (held != nullptr) ++held->references;
  return held != nullptr;
}

bool event_store::release(const zelta_event* event) {
  const std::lock_guard<std::mutex> guard(mutex_);
  block* const held = handed_out_locked(event);
  if (held == nullptr) return false;
  if (--held->references == 0) recycle_locked(*held);
  return true;
}

// ---- Blocks --------------------------------------------------------------------------------

// Null: `counted` bytes more would go past the bound, or there is no memory.
event_store::block* event_store::take_locked(size_t bytes, size_t counted) {
  if (counted > 0 && held_ + counted > bound_) return nullptr;
  const size_t power = power_for(bytes);
  if (free_.at(power) == nullptr) {
    give_up_free_locked(size_t{1} << power);
    try {
      auto made = std::make_unique<block>(power);
      block* const unused = made.get();
      blocks_.emplace(&unused->event, std::move(made));
      capacity_ += unused->capacity();
      recycle_locked(*unused);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
  block* const taken = std::exchange(free_.at(power), free_.at(power)->next);
  taken->counted = counted;
  held_ += counted;
  return taken;
}

// Largest first: what was needed for pictures makes room for sound soonest.
void event_store::give_up_free_locked(size_t wanted) {
  for (size_t power = kSizes; power-- > kLeastPower;) {
    while (capacity_ + wanted > 2 * bound_ && free_.at(power) != nullptr) {
      const block* const unused = std::exchange(free_.at(power), free_.at(power)->next);
      capacity_ -= unused->capacity();
      blocks_.erase(&unused->event);
    }
  }
}

size_t event_store::capacity() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return capacity_;
}

void event_store::recycle_locked(block& unused) {
  held_ -= std::exchange(unused.counted, 0);
  if (closed_) unused.give_pages_back();
  unused.next = std::exchange(free_.at(unused.power), &unused);
}

}  // namespace zelta::c_interface
