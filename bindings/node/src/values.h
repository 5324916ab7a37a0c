// SPDX-License-Identifier: Apache-2.0
// Values of JavaScript's, made and read. Where the runtime refuses one, because it is ending or an
// exception is on its way, the result is empty, which is `undefined` to JavaScript.
//
// Thread rule: all of it belongs to the thread of the environment.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <node_api.h>

namespace zelta::node {

napi_value number_value(napi_env env, double number);
napi_value text_value(napi_env env, const char* text);
// With element 0, 1 ... set in that order.
napi_value array_value(napi_env env);
void append(napi_env env, napi_value array, napi_value element);

// An object, member by member.
class object_value {
 public:
  explicit object_value(napi_env env);
  object_value& set(const char* name, napi_value value);
  object_value& set(const char* name, double number);
  object_value& set(const char* name, const char* text);
  object_value& set_flag(const char* name, bool flag);
  napi_value get() const { return object_; }

 private:
  napi_env env_;
  napi_value object_ = nullptr;
};

// What JavaScript keeps of ours: a share of a T, until the value is collected.
template <class T>
napi_value share_value(napi_env env, std::shared_ptr<T> shared) {
  auto share = std::make_unique<std::shared_ptr<T>>(std::move(shared));
  const napi_finalize collected = [](napi_env, void* data, void*) {
    const std::unique_ptr<std::shared_ptr<T>> last(static_cast<std::shared_ptr<T>*>(data));
  };
  napi_value made = nullptr;
  if (napi_create_external(env, share.get(), collected, nullptr, &made) != napi_ok) return nullptr;
  static_cast<void>(share.release());
  return made;
}

// The arguments of a call. They were checked in JavaScript: of a wrong type they are empty.
class arguments {
 public:
  arguments(napi_env env, napi_callback_info info);
  napi_value at(size_t i) const { return values_.at(i); }
  bool is_nothing(size_t i) const;  // undefined or null
  double number(size_t i) const;
  uint32_t uid(size_t i) const;
  bool flag(size_t i) const;
  std::string text(size_t i) const;
  template <class T>
  std::shared_ptr<T> share(size_t i) const {
    void* data = nullptr;
    if (napi_get_value_external(env_, at(i), &data) != napi_ok) return nullptr;
    return *static_cast<std::shared_ptr<T>*>(data);
  }

 private:
  static constexpr size_t kMost = 6;
  napi_env env_;
  std::array<napi_value, kMost> values_{};
};

// The element, a text or null, at `i` of an array.
bool text_at(napi_env env, napi_value array, uint32_t i, std::string& text);

}  // namespace zelta::node
