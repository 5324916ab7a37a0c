// SPDX-License-Identifier: Apache-2.0
// A flag that is written on one thread and read on another.
#pragma once

#include <atomic>

namespace zelta::base {

// Every store is sequentially consistent: the writer goes on to wake or join the reader, which must
// then see the new value. A load is a plain read on the machines we run on; acquire only keeps the
// compiler from moving it.
template <class T>
class atomic {
 public:
  atomic(T value = T()) : value_(value) {}  // NOLINT(google-explicit-constructor)
  ~atomic() = default;
  atomic(const atomic&) = delete;

  operator T() const { return load(); }  // NOLINT(google-explicit-constructor)
  atomic& operator=(T value) {
    store(value);
    return *this;
  }
  atomic& operator=(const atomic&) = delete;

  T load() const { return value_.load(std::memory_order_acquire); }
  void store(T value) { value_.store(value, std::memory_order_seq_cst); }

 private:
  std::atomic<T> value_;
};

using atomic_bool_t = atomic<bool>;

}  // namespace zelta::base
