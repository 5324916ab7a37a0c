// SPDX-License-Identifier: Apache-2.0
#include "fleet/worker_settings.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <set>
#include <sstream>

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fleet/names.h"

namespace zelta::fleet {
namespace {

// Appended, as it comes of many pieces.
template <class... Pieces>
std::string joined(const Pieces&... pieces) {
  std::string made;
  (made.append(pieces), ...);
  return made;
}

class reader {
 public:
  reader(const std::string& path, const Json::Value& from, std::vector<std::string>& errors)
      : path_(path), from_(from), errors_(errors) {}

  void text(const char* key, std::string& to) {
    if (const Json::Value* const value = take(key)) {
      value->isString() ? void(to = value->asString()) : wrong(key, *value, "a text");
    }
  }
  void texts(const char* key, std::vector<std::string>& to) {
    const Json::Value* const value = take(key);
    if (value == nullptr) return;
    const bool fits = value->isArray() && !value->empty() &&
                      std::all_of(value->begin(), value->end(),
                                  [](const Json::Value& one) { return one.isString(); });
    if (!fits) return wrong(key, *value, "a list of texts");
    to.clear();
    for (const Json::Value& one : *value) to.push_back(one.asString());
  }
  void paths(const char* key, std::map<std::string, std::string>& to) {
    const Json::Value* const value = take(key);
    if (value == nullptr) return;
    if (!value->isObject()) return wrong(key, *value, "an object of names and absolute paths");
    for (const std::string& name : value->getMemberNames()) {
      const Json::Value& at = (*value)[name];
      const bool fits = is_name(name) && at.isString() && at.asString().rfind('/', 0) == 0;
      if (!fits) {
        wrong((std::string(key) + "." + name).c_str(), at, "an absolute path by a name");
      } else {
        to[name] = at.asString();
      }
    }
  }
  template <class Number>
  void number(const char* key, Number& to, double lowest, double highest) {
    const Json::Value* const value = take(key);
    if (value == nullptr) return;
    const double given = value->isNumeric() ? value->asDouble() : lowest - 1;
    if (!(given >= lowest && given <= highest)) {
      std::ostringstream right;
      right << "a number, " << lowest << " to " << highest;
      return wrong(key, *value, right.str().c_str());
    }
    to = static_cast<Number>(given);
  }
  const Json::Value* object(const char* key) {
    const Json::Value* const value = take(key);
    if (value == nullptr || value->isObject()) return value;
    wrong(key, *value, "an object");
    return nullptr;
  }
  void wrong(const char* key, const Json::Value& value, const char* right) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    errors_.push_back(path_ + ": " + key + ": " + Json::writeString(writer, value).substr(0, 100) +
                      " should be " + right);
  }
  void no_others() {
    for (const std::string& key : from_.getMemberNames()) {
      if (known_.count(key) > 0) continue;
      std::string all;
      for (const std::string& one : known_) all += (all.empty() ? "" : ", ") + one;
      errors_.push_back(joined(path_, ": \"", key, "\" isn't known; there are ", all));
    }
  }

 private:
  const Json::Value* take(const char* key) {
    known_.insert(key);
    return from_.isMember(key) ? &from_[key] : nullptr;
  }

  const std::string& path_;
  const Json::Value& from_;
  std::vector<std::string>& errors_;
  std::set<std::string> known_;
};

std::string machine_name() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) != 0) return "worker";
  std::string made = name;
  std::replace_if(
      made.begin(), made.end(), [](char c) { return !is_name(std::string(1, c)); }, '-');
  return made.empty() ? "worker" : made.substr(0, 64);
}

void read_nats(const std::string& path, const Json::Value& from, broker_settings& to,
               std::vector<std::string>& errors) {
  reader read(path, from, errors);
  read.texts("urls", to.urls);
  read.text("credentials_file", to.credentials_file);
  read.text("ca_file", to.ca_file);
  read.text("certificate_file", to.certificate_file);
  read.text("key_file", to.key_file);
  read.number("replicas", to.replicas, 1, 5);
  read.no_others();
  if (to.certificate_file.empty() != to.key_file.empty()) {
    errors.push_back(path + ": nats: certificate_file and key_file belong together");
  }
}

void check(const std::string& path, const worker_settings& of, std::vector<std::string>& errors) {
  for (const std::string& label : of.labels) {
    if (!is_name(label))
      errors.push_back(joined(path, ": labels: \"", label, "\" should be a name"));
  }
  if (!is_name(of.name)) errors.push_back(path + ": name: \"" + of.name + "\" should be a name");
  std::map<std::string, std::string> places = of.roots;
  places["root"] = of.root;
  for (const auto& [name, place] : places) {
    struct stat is {};
    const bool is_folder = stat(place.c_str(), &is) == 0 && S_ISDIR(is.st_mode);
    if (!is_folder || access(place.c_str(), W_OK | X_OK) != 0) {
      errors.push_back(
          joined(path, ": ", name, ": \"", place, "\" should be a folder that can be written to"));
    }
  }
  if (access(of.recorder.c_str(), X_OK) != 0) {
    errors.push_back(path + ": recorder: \"" + of.recorder +
                     "\" should be the program zelta-record");
  }
}

}  // namespace

worker_settings load_worker_settings(const std::string& path, const std::string& fallback_recorder,
                                     std::vector<std::string>& errors) {
  worker_settings made;
  made.name = machine_name();
  made.recorder = fallback_recorder;
  std::ifstream file(path);
  Json::Value from;
  std::string fault;
  try {
    Json::CharReaderBuilder strict;
    Json::CharReaderBuilder::strictMode(&strict.settings_);
    if (!file || !Json::parseFromStream(strict, file, &from, &fault) || !from.isObject()) {
      errors.push_back(path + ": " +
                       (fault.empty() ? "there is no JSON object to be read" : fault));
      return made;
    }
  } catch (const std::exception& e) {
    errors.push_back(path + ": " + e.what());
    return made;
  }
  reader read(path, from, errors);
  if (const Json::Value* const nats = read.object("nats")) {
    read_nats(path + ": nats", *nats, made.nats, errors);
  }
  read.text("name", made.name);
  read.texts("labels", made.labels);
  read.text("root", made.root);
  read.paths("roots", made.roots);
  read.paths("settings", made.settings);
  read.paths("credentials", made.credentials);
  read.paths("images", made.images);
  read.texts("servers", made.servers);
  read.text("server", made.server);
  read.text("recorder", made.recorder);
  int lease_ms = static_cast<int>(made.lease.count());
  read.number("lease_ms", lease_ms, 1000, 600'000);
  made.lease = std::chrono::milliseconds(lease_ms);
  read.number("most_tries", made.most_tries, 1, 1000);
  read.number("most_jobs", made.room.most_jobs, 1, 100'000);
  read.number("busy_share", made.room.busy_share, 0.05, 100);
  read.number("free_memory_share", made.room.memory_share, 0, 0.9);
  read.number("network_mbit", made.room.network_mbit, 0, 1e9);
  double disk_mib = static_cast<double>(made.room.disk_bytes >> 20U);
  read.number("free_disk_mib", disk_mib, 0, 1e9);
  made.room.disk_bytes = static_cast<uint64_t>(disk_mib) << 20U;
  read.no_others();
  made.nats.name = made.name;
  check(path, made, errors);
  return made;
}

}  // namespace zelta::fleet
