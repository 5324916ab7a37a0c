// SPDX-License-Identifier: Apache-2.0
#include "values.h"

namespace zelta::node {

namespace {

napi_valuetype type_of(napi_env env, napi_value value) {
  napi_valuetype type = napi_undefined;
  if (napi_typeof(env, value, &type) != napi_ok) return napi_undefined;
  return type;
}

std::string text_of(napi_env env, napi_value value) {
  size_t bytes = 0;
  if (napi_get_value_string_utf8(env, value, nullptr, 0, &bytes) != napi_ok) return {};
  // The null at the end is written over that of the string.
  std::string text(bytes, '\0');
  if (napi_get_value_string_utf8(env, value, text.data(), bytes + 1, &bytes) != napi_ok) return {};
  return text;
}

}  // namespace

napi_value number_value(napi_env env, double number) {
  napi_value made = nullptr;
  return napi_create_double(env, number, &made) == napi_ok ? made : nullptr;
}

napi_value text_value(napi_env env, const char* text) {
  napi_value made = nullptr;
  return napi_create_string_utf8(env, text, NAPI_AUTO_LENGTH, &made) == napi_ok ? made : nullptr;
}

napi_value array_value(napi_env env) {
  napi_value made = nullptr;
  return napi_create_array(env, &made) == napi_ok ? made : nullptr;
}

void append(napi_env env, napi_value array, napi_value element) {
  uint32_t count = 0;
  if (array == nullptr || napi_get_array_length(env, array, &count) != napi_ok) return;
  static_cast<void>(napi_set_element(env, array, count, element));
}

object_value::object_value(napi_env env) : env_(env) {
  if (napi_create_object(env, &object_) != napi_ok) object_ = nullptr;
}

object_value& object_value::set(const char* name, napi_value value) {
  if (object_ != nullptr && value != nullptr) {
    static_cast<void>(napi_set_named_property(env_, object_, name, value));
  }
  return *this;
}

object_value& object_value::set(const char* name, double number) {
  return set(name, number_value(env_, number));
}

object_value& object_value::set(const char* name, const char* text) {
  return set(name, text_value(env_, text));
}

object_value& object_value::set_flag(const char* name, bool flag) {
  napi_value made = nullptr;
  return set(name, napi_get_boolean(env_, flag, &made) == napi_ok ? made : nullptr);
}

arguments::arguments(napi_env env, napi_callback_info info) : env_(env) {
  size_t count = values_.size();
  // Those that weren't given become `undefined`.
  if (napi_get_cb_info(env, info, &count, values_.data(), nullptr, nullptr) != napi_ok)
    values_ = {};
}

bool arguments::is_nothing(size_t i) const {
  const napi_valuetype type = type_of(env_, at(i));
  return type == napi_undefined || type == napi_null;
}

double arguments::number(size_t i) const {
  double number = 0;
  return napi_get_value_double(env_, at(i), &number) == napi_ok ? number : 0;
}

uint32_t arguments::uid(size_t i) const {
  uint32_t uid = 0;
  return napi_get_value_uint32(env_, at(i), &uid) == napi_ok ? uid : 0;
}

bool arguments::flag(size_t i) const {
  bool flag = false;
  return napi_get_value_bool(env_, at(i), &flag) == napi_ok && flag;
}

std::string arguments::text(size_t i) const {
  return text_of(env_, at(i));
}

bool text_at(napi_env env, napi_value array, uint32_t i, std::string& text) {
  napi_value element = nullptr;
  if (napi_get_element(env, array, i, &element) != napi_ok) return false;
  if (type_of(env, element) != napi_string) return false;
  text = text_of(env, element);
  return true;
}

}  // namespace zelta::node
