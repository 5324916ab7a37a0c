// SPDX-License-Identifier: Apache-2.0
#include "layout_file.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <stdexcept>

#include "json_file.h"
#include "words.h"

namespace zelta::record {
namespace {

using region = recording::VideoMixingLayout::Region;

void refuse(const std::string& what) {
  throw std::invalid_argument(what);
}

std::string text_of(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, value);
}

void refuse_others(const Json::Value& object, const std::vector<std::string>& known) {
  for (const std::string& name : object.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) != known.end()) continue;
    std::string all;
    for (const std::string& k : known) {
      if (!all.empty()) all += ", ";
      all += k;
    }
    refuse(std::string("\"").append(name).append("\" isn't known; there are ").append(all));
  }
}

struct share {
  const char* name;
  double region::*value;
  bool needed;
};
constexpr share kShares[] = {{"x", &region::x, true},
                             {"y", &region::y, true},
                             {"width", &region::width, true},
                             {"height", &region::height, true},
                             {"alpha", &region::alpha, false}};

region region_of(const Json::Value& from) {
  if (!from.isObject()) refuse("a region should be an object, not " + text_of(from));
  refuse_others(from, {"uid", "x", "y", "width", "height", "alpha", "renderMode"});
  region made;
  if (!from["uid"].isUInt()) refuse("a region needs \"uid\", a number from 0 to 4294967295");
  made.uid = from["uid"].asUInt();
  const std::string whose = "region of uid " + std::to_string(made.uid) + ": ";
  for (const share& s : kShares) {
    const Json::Value& value = from[s.name];
    if (value.isNull() && !s.needed) continue;
    if (!value.isNumeric() || value.asDouble() < 0 || value.asDouble() > 1) {
      refuse(whose + "\"" + s.name + "\" should be a number from 0 to 1, not " + text_of(value));
    }
    made.*s.value = value.asDouble();
  }
  const Json::Value& mode = from["renderMode"];
  if (!mode.isNull()) {
    const auto number =
        number_of(kRenderModes, mode.isConvertibleTo(Json::stringValue) ? mode.asString() : "");
    if (!number) {
      refuse(whose + "\"renderMode\" should be " + choices(kRenderModes) + ", not " +
             text_of(mode));
    }
    made.renderMode = *number;
  }
  return made;
}

std::string colour_of(const Json::Value& value) {
  std::string text = value.isString() ? value.asString() : "";
  if (text.size() != 7 || text[0] != '#' ||
      !std::all_of(text.begin() + 1, text.end(),
                   [](unsigned char c) { return std::isxdigit(c) != 0; })) {
    refuse("\"backgroundColor\" should be text such as \"#20a0ff\", not " + text_of(value));
  }
  return text;
}

}  // namespace

std::optional<layout_file> layout_file::read(const std::string& path, std::string& error) {
  const Json::Value root = read_json_object(path, error);
  if (!root.isObject()) return std::nullopt;
  try {
    layout_file made;
    refuse_others(root, {"backgroundColor", "regions", "appData"});
    if (root.isMember("backgroundColor")) made.background_ = colour_of(root["backgroundColor"]);
    if (!root["regions"].isArray()) refuse("\"regions\" should be an array");
    for (const Json::Value& one : root["regions"]) made.regions_.push_back(region_of(one));
    if (root.isMember("appData")) {
      if (!root["appData"].isString()) refuse("\"appData\" should be text");
      made.app_data_ = root["appData"].asString();
    }
    return made;
  } catch (const std::exception& e) {
    error = path + ": " + e.what();
    return std::nullopt;
  }
}

recording::VideoMixingLayout layout_file::layout() const {
  recording::VideoMixingLayout made;
  if (!background_.empty()) made.backgroundColor = background_.c_str();
  made.regionCount = static_cast<uint32_t>(regions_.size());
  made.regions = regions_.data();
  made.appData = app_data_.data();
  made.appDataLength = static_cast<int>(app_data_.size());
  return made;
}

}  // namespace zelta::record
