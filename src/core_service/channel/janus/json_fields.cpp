// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/janus/json_fields.h"

#include <exception>
#include <memory>

namespace zelta::core_service::janus {
namespace {

constexpr int kDeepest = 32;

const Json::Value& field(const Json::Value& of, const char* key) {
  return of.isObject() ? of[key] : Json::Value::nullSingleton();
}

}  // namespace

std::optional<Json::Value> parse_json(const std::string& text, std::string& error) {
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = kDeepest;
  builder["collectComments"] = false;
  Json::Value made;
  // What is nested too deep is thrown.
  try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string report;
    if (reader->parse(text.data(), text.data() + text.size(), &made, &report)) return made;
    error = "it is no JSON";
  } catch (const std::exception& e) {
    error = std::string("it is no JSON that can be read: ") + e.what();
  }
  return std::nullopt;
}

std::string json_line(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, value);
}

std::string text_in(const Json::Value& of, const char* key) {
  const Json::Value& value = field(of, key);
  return value.isString() ? value.asString() : "";
}

uint64_t number_in(const Json::Value& of, const char* key) {
  const Json::Value& value = field(of, key);
  return value.isUInt64() ? value.asUInt64() : 0;
}

bool flag_in(const Json::Value& of, const char* key) {
  const Json::Value& value = field(of, key);
  return value.isBool() && value.asBool();
}

const Json::Value& object_in(const Json::Value& of, const char* key) {
  const Json::Value& value = field(of, key);
  return value.isObject() ? value : Json::Value::nullSingleton();
}

const Json::Value& list_in(const Json::Value& of, const char* key) {
  const Json::Value& value = field(of, key);
  return value.isArray() ? value : Json::Value::nullSingleton();
}

std::string id_text(const Json::Value& id) {
  if (id.isString()) return id.asString();
  return id.isUInt64() ? std::to_string(id.asUInt64()) : "";
}

}  // namespace zelta::core_service::janus
