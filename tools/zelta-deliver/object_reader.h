// SPDX-License-Identifier: Apache-2.0
// Reads a JSON object of settings key by key: what is wrong is told with its key, its value and
// what would be right, and what nobody has asked for is told as unknown. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

namespace zelta::deliver {

class object_reader {
 public:
  // `prefix` stands before each key in errors. All arguments outlive it.
  object_reader(const Json::Value& object, std::string prefix, std::vector<std::string>& errors);

  bool has(const char* key) const;
  // These leave `to` as it is when the key isn't there. Of a text, `right` says in words what
  // `fits` takes.
  using check = std::function<bool(const std::string&)>;
  bool text(const char* key, std::string& to, const char* right = nullptr,
            const check& fits = nullptr);
  // A text of which errors show neither user, password nor query.
  bool url(const char* key, std::string& to, const char* right, const check& fits);
  void number(const char* key, int64_t& to, int64_t lowest, int64_t highest);
  void flag(const char* key, bool& to);
  void texts(const char* key, std::vector<std::string>& to);
  // What the first line of the file KEY_file holds, or the variable that KEY_env names.
  // The variable's name is added to `variables`. Errors show names that look like one: whoever
  // mistakes the key for the credential's own place would have it in the log.
  void credential(const std::string& key, std::string& to, std::set<std::string>& variables);
  const Json::Value* object(const char* key);
  // With `right` the error shows no value.
  const Json::Value* list(const char* key, const char* right = nullptr);
  void require(const char* key, const char* right);
  void wrong(const std::string& key, const Json::Value& value, const std::string& right);
  void wrong(const std::string& key, const std::string& what);
  // To be called last.
  void tell_unknown();

 private:
  const Json::Value* find(const char* key);
  bool place(const std::string& key, std::string& to, const char* right,
             bool (*looks_right)(const std::string&), std::string& shown_as);

  const Json::Value& object_;
  const std::string prefix_;
  std::vector<std::string>& errors_;
  std::set<std::string> asked_;
};

// In printable ASCII, and not too long for a line.
std::string shown(const Json::Value& value);

}  // namespace zelta::deliver
