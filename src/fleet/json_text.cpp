// SPDX-License-Identifier: Apache-2.0
#include "fleet/json_text.h"

#include <exception>
#include <memory>

namespace zelta::fleet {

std::string line_of(const Json::Value& of) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, of);
}

Json::Value parsed(const std::string& text) {
  Json::Value made;
  try {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &made, nullptr)) return made;
  } catch (const std::exception&) {
    // Nested too deeply.
  }
  return Json::nullValue;
}

std::string cut(std::string text) {
  constexpr size_t kMost = 500;
  if (text.size() > kMost) text.resize(kMost);
  return text;
}

}  // namespace zelta::fleet
