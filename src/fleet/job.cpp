// SPDX-License-Identifier: Apache-2.0
#include "fleet/job.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <sstream>

#include "fleet/names.h"

namespace zelta::fleet {
namespace {

constexpr size_t kMostBytes = size_t{1} << 18;
constexpr size_t kMostText = 1024;
constexpr int kMostUsers = 100'000;
constexpr double kLongestSeconds = 366.0 * 24 * 3600;

enum class kind { kFlag, kNumber, kText };
struct allowed {
  const char* name;
  kind is;
};
// Options of zelta-record that change what is recorded, and no place, program or secret.
constexpr allowed kOptions[] = {
    {"is-audio-only", kind::kFlag},     {"is-video-only", kind::kFlag},
    {"is-mixing-enabled", kind::kFlag}, {"mixed-video-audio", kind::kText},
    {"mix-resolution", kind::kText},    {"audio-profile", kind::kText},
    {"decode-video", kind::kText},      {"capture-interval", kind::kNumber},
    {"idle-limit-sec", kind::kNumber},  {"channel-profile", kind::kText},
    {"stream-type", kind::kText},       {"trigger-mode", kind::kText},
    {"chunk", kind::kNumber},           {"uid", kind::kNumber},
    {"decryption-mode", kind::kText},
};

struct wrong : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string shown(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, value).substr(0, 100);
}

[[noreturn]] void refuse(const std::string& key, const Json::Value& value, const char* right) {
  throw wrong(key + ": " + shown(value) + " should be " + right);
}

std::string text_in(const Json::Value& from, const char* key, bool is_name_of = false) {
  const Json::Value& value = from[key];
  if (value.isNull()) return "";
  std::string text = value.isString() ? value.asString() : "";
  const bool is_plain = std::none_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
  });
  if (!value.isString() || text.size() > kMostText || !is_plain) {
    refuse(key, value, "a text of a line, of 1024 bytes at most");
  }
  if (is_name_of && !is_name(text)) {
    refuse(key, value, "a name: letters, digits, \"-\" and \"_\", 64 at most");
  }
  return text;
}

std::string option_text(const std::string& name, const Json::Value& value) {
  const auto* const found = std::find_if(std::begin(kOptions), std::end(kOptions),
                                         [&name](const allowed& one) { return name == one.name; });
  if (found == std::end(kOptions)) {
    std::string all;
    for (const allowed& one : kOptions) all += (all.empty() ? "" : ", ") + std::string(one.name);
    throw wrong("options: " + shown(name) + " is none that a job may set; these are " + all);
  }
  switch (found->is) {
    case kind::kFlag:
      if (!value.isBool()) refuse("options." + name, value, "true or false");
      return value.asBool() ? "true" : "false";
    case kind::kNumber:
      if (!value.isUInt()) refuse("options." + name, value, "a number, 0 to 4294967295");
      return std::to_string(value.asUInt());
    case kind::kText:
      break;
  }
  Json::Value alone;
  alone[name] = value;
  std::string text = text_in(alone, name.c_str());
  // It follows its option as an argument.
  if (text.empty() || text[0] == '-') refuse("options." + name, value, "a text");
  return text;
}

void check_keys(const Json::Value& from) {
  static const char* const kKeys[] = {"id",     "channel", "server",  "label",
                                      "key",    "secret",  "root",    "duration_s",
                                      "expect", "layout",  "options", "settings"};
  for (const std::string& key : from.getMemberNames()) {
    if (std::find(std::begin(kKeys), std::end(kKeys), key) != std::end(kKeys)) continue;
    std::string all;
    for (const char* const one : kKeys) all += (all.empty() ? "" : ", ") + std::string(one);
    throw wrong(shown(key) + " isn't known; there are " + all);
  }
}

job read(const Json::Value& from) {
  if (!from.isObject()) throw wrong("a job should be a JSON object");
  check_keys(from);
  job made;
  if (from["id"].isNull()) refuse("id", from["id"], "the recording's name");
  made.id = text_in(from, "id", true);
  made.channel = text_in(from, "channel");
  if (made.channel.empty()) refuse("channel", from["channel"], "the name of a channel");
  made.server = text_in(from, "server");
  made.label = from["label"].isNull() ? kAnyLabel : text_in(from, "label", true);
  made.key = from["key"].isNull() ? "" : text_in(from, "key", true);
  made.secret = from["secret"].isNull() ? "" : text_in(from, "secret", true);
  made.settings = from["settings"].isNull() ? "" : text_in(from, "settings", true);
  made.root = from["root"].isNull() ? "" : text_in(from, "root", true);
  const Json::Value& duration = from["duration_s"];
  if (!duration.isNull()) {
    made.duration_s = duration.isNumeric() ? duration.asDouble() : -1;
    if (!(made.duration_s >= 0 && made.duration_s <= kLongestSeconds)) {
      refuse("duration_s", duration, "seconds, a year at most; 0: until it is over");
    }
  }
  const Json::Value& expect = from["expect"];
  if (!expect.isNull()) {
    const bool fits = expect.isObject() && expect.size() == 1 && expect["users"].isInt() &&
                      expect["users"].asInt() >= 0 && expect["users"].asInt() <= kMostUsers;
    if (!fits) refuse("expect", expect, "{\"users\": NUMBER}, 0 to 100000");
    made.expected_users = expect["users"].asInt();
  }
  const Json::Value& options = from["options"];
  if (!options.isNull() && !options.isObject()) refuse("options", options, "an object");
  for (const std::string& name : options.getMemberNames()) {
    made.options.emplace_back(name, option_text(name, options[name]));
  }
  made.layout = from["layout"];
  if (!made.layout.isNull() && !made.layout.isObject()) {
    refuse("layout", made.layout, "an object, as in a layout file");
  }
  return made;
}

}  // namespace

std::optional<job> job_of(const std::string& text, std::string& error) {
  if (text.size() > kMostBytes) {
    error = "a job of " + std::to_string(text.size()) + " bytes; 262144 are the most";
    return std::nullopt;
  }
  try {
    Json::CharReaderBuilder strict;
    Json::CharReaderBuilder::strictMode(&strict.settings_);
    const std::unique_ptr<Json::CharReader> reader(strict.newCharReader());
    Json::Value from;
    std::string fault;
    if (!reader->parse(text.data(), text.data() + text.size(), &from, &fault)) throw wrong(fault);
    return read(from);
  } catch (const std::exception& e) {  // jsoncpp's own are among them
    error = e.what();
    return std::nullopt;
  }
}

std::string text_of(const job& of) {
  Json::Value made;
  const auto put = [&made](const char* key, const std::string& text) {
    if (!text.empty()) made[key] = text;
  };
  put("id", of.id);
  put("channel", of.channel);
  put("server", of.server);
  if (of.label != kAnyLabel) put("label", of.label);
  put("key", of.key);
  put("secret", of.secret);
  put("settings", of.settings);
  put("root", of.root);
  if (of.duration_s > 0) made["duration_s"] = of.duration_s;
  if (of.expected_users > 0) made["expect"]["users"] = of.expected_users;
  for (const auto& [name, text] : of.options) {
    const auto* const found =
        std::find_if(std::begin(kOptions), std::end(kOptions),
                     [&name = name](const allowed& one) { return name == one.name; });
    Json::Value& value = made["options"][name];
    if (found->is == kind::kFlag) {
      value = text == "true";
    } else if (found->is == kind::kNumber) {
      value = Json::UInt(std::stoul(text));
    } else {
      value = text;
    }
  }
  if (!of.layout.isNull()) made["layout"] = of.layout;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, made);
}

}  // namespace zelta::fleet
