// SPDX-License-Identifier: Apache-2.0
#include "object_reader.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "disk.h"

namespace zelta::deliver {
namespace {

constexpr size_t kLongestShown = 80;
constexpr size_t kLongestCredential = 4096;
constexpr size_t kLongestText = 4096;

bool is_plain(const std::string& text) {
  return !text.empty() && text.size() <= kLongestText &&
         std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

bool looks_like_path(const std::string& text) {
  return text.front() == '/' || text.rfind("./", 0) == 0 || text.rfind("../", 0) == 0;
}

// As variables of the environment are called, in capitals.
bool looks_like_variable(const std::string& text) {
  return (text.front() < '0' || text.front() > '9') &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
         });
}

}  // namespace

std::string shown(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  std::string text = Json::writeString(writer, value);
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  if (text.size() > kLongestShown) text.replace(kLongestShown, std::string::npos, "...");
  return text;
}

object_reader::object_reader(const Json::Value& object, std::string prefix,
                             std::vector<std::string>& errors)
    : object_(object), prefix_(std::move(prefix)), errors_(errors) {}

bool object_reader::has(const char* key) const {
  return object_.isMember(key);
}

const Json::Value* object_reader::find(const char* key) {
  asked_.insert(key);
  return object_.isMember(key) ? &object_[key] : nullptr;
}

bool object_reader::url(const char* key, std::string& to, const char* right, const check& fits) {
  const Json::Value* const value = find(key);
  if (value == nullptr) return false;
  if (value->isString() && is_plain(value->asString()) && fits(value->asString())) {
    to = value->asString();
    return true;
  }
  if (value->isString()) {
    std::string safe = value->asString();
    safe.erase(std::min(safe.size(), safe.find_first_of("?#")));
    const size_t at = safe.rfind('@');
    if (at != std::string::npos) safe.replace(0, at, "...");
    wrong(key, Json::Value(safe), right);
  } else {
    wrong(key, std::string("should be ") + right);
  }
  return false;
}

bool object_reader::text(const char* key, std::string& to, const char* right, const check& fits) {
  const Json::Value* const value = find(key);
  if (value == nullptr) return false;
  if (value->isString() && is_plain(value->asString()) && (!fits || fits(value->asString()))) {
    to = value->asString();
    return true;
  }
  wrong(key, *value, right != nullptr ? right : "a text without control characters");
  return false;
}

void object_reader::number(const char* key, int64_t& to, int64_t lowest, int64_t highest) {
  const Json::Value* const value = find(key);
  if (value == nullptr) return;
  if (value->type() != Json::realValue && value->isInt64() && value->asInt64() >= lowest &&
      value->asInt64() <= highest) {
    to = value->asInt64();
    return;
  }
  wrong(key, *value,
        "a whole number of " + std::to_string(lowest) + " to " + std::to_string(highest));
}

void object_reader::flag(const char* key, bool& to) {
  const Json::Value* const value = find(key);
  if (value == nullptr) return;
  if (value->isBool()) {
    to = value->asBool();
  } else {
    wrong(key, *value, "true or false");
  }
}

void object_reader::texts(const char* key, std::vector<std::string>& to) {
  const Json::Value* const value = find(key);
  if (value == nullptr) return;
  const bool fits = value->isArray() && !value->empty() &&
                    std::all_of(value->begin(), value->end(), [](const Json::Value& one) {
                      return one.isString() && is_plain(one.asString());
                    });
  if (!fits) return wrong(key, *value, "a list of texts, the first one a program's path");
  for (const Json::Value& one : *value) to.push_back(one.asString());
}

bool object_reader::place(const std::string& key, std::string& to, const char* right,
                          bool (*looks_right)(const std::string&), std::string& shown_as) {
  const Json::Value* const value = find(key.c_str());
  if (value == nullptr) return false;
  if (!value->isString() || !is_plain(value->asString())) {
    wrong(key, std::string("should be ") + right);
    return false;
  }
  to = value->asString();
  shown_as = looks_right(to) ? shown(*value) : "what it names";
  return true;
}

void object_reader::credential(const std::string& key, std::string& to,
                               std::set<std::string>& variables) {
  const std::string file_key = key + "_file";
  const std::string env_key = key + "_env";
  std::string path;
  std::string variable;
  std::string shown_file;
  std::string shown_variable;
  const bool of_file = place(file_key, path, "a file's path", looks_like_path, shown_file);
  const bool of_env =
      place(env_key, variable, "a variable's name", looks_like_variable, shown_variable);
  if (of_file && of_env) return wrong(env_key, "should not stand beside " + file_key);
  std::string found;
  if (of_file) {
    std::string error;
    const auto read = read_text(path, kLongestCredential, error);
    if (!read) return wrong(file_key, looks_like_path(path) ? error : "can't be read");
    found = read->substr(0, read->find_first_of("\r\n"));
  } else if (of_env) {
    const char* const value = std::getenv(variable.c_str());
    if (value == nullptr) return wrong(env_key, shown_variable + " should be set, and isn't");
    found = value;
    variables.insert(variable);
  } else {
    return;
  }
  if (is_plain(found)) {
    to = found;
  } else {
    wrong(of_file ? file_key : env_key, (of_file ? shown_file : shown_variable) +
                                            " should hold a text without control characters");
  }
}

const Json::Value* object_reader::object(const char* key) {
  const Json::Value* const value = find(key);
  if (value == nullptr || value->isObject()) return value;
  wrong(key, *value, "an object");
  return nullptr;
}

const Json::Value* object_reader::list(const char* key, const char* right) {
  const Json::Value* const value = find(key);
  if (value == nullptr || value->isArray()) return value;
  if (right != nullptr) {
    wrong(key, std::string("should be ") + right);
  } else {
    wrong(key, *value, "a list");
  }
  return nullptr;
}

void object_reader::require(const char* key, const char* right) {
  if (find(key) == nullptr) wrong(key, std::string("is missing; it should be ") + right);
}

void object_reader::wrong(const std::string& key, const Json::Value& value,
                          const std::string& right) {
  wrong(key, shown(value) + " should be " + right);
}

void object_reader::wrong(const std::string& key, const std::string& what) {
  errors_.push_back(prefix_ + key + ": " + what);
}

void object_reader::tell_unknown() {
  for (const std::string& key : object_.getMemberNames()) {
    if (asked_.count(key) != 0) continue;
    std::string known;
    for (const std::string& one : asked_) known += (known.empty() ? "" : ", ") + one;
    const std::string name = shown(key);
    wrong(name.substr(1, name.size() - 2), "no such setting; " + known + " are");
  }
}

}  // namespace zelta::deliver
