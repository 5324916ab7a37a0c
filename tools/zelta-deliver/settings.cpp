// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <set>

#include <json/json.h>

#include "disk.h"
#include "object_reader.h"

namespace zelta::deliver {
namespace {

constexpr size_t kMostBytes = 1 << 20;
constexpr int kDeepest = 16;
constexpr const char* kExample =
    "it should hold a JSON object such as {\"targets\": [{\"name\": \"nas\", \"type\": \"folder\", "
    "\"path\": \"/mnt/nas/calls\", \"mount\": \"/mnt/nas\"}]}";
constexpr int64_t kMiB = 1 << 20;
// S3 takes no smaller parts but the last one, and larger ones would have to fit into memory.
constexpr int64_t kSmallestPart = 5 * kMiB;
constexpr int64_t kLargestPart = 512 * kMiB;

bool is_absolute(const std::string& text) {
  return text.front() == '/';
}

bool is_name(const std::string& text) {
  return text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '-' || c == '_';
         });
}

bool is_bucket(const std::string& text) {
  return text.size() >= 3 && text.size() <= 63 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
         });
}

bool starts(const std::string& text, const std::string& with) {
  return text.size() > with.size() && text.rfind(with, 0) == 0 && text[with.size()] != '/';
}

// No user, password or query: those have keys of their own, and would be logged.
bool is_http_url(const std::string& text) {
  return (starts(text, "http://") || starts(text, "https://")) &&
         text.find_first_of("@?# ") == std::string::npos;
}

// To libcurl /~/ is the home, of which commands know nothing.
bool is_sftp_url(const std::string& text) {
  const size_t slash = text.find('/', std::string("sftp://").size());
  const bool is_home = slash != std::string::npos && text.compare(slash, 2, "/~") == 0 &&
                       (text.size() == slash + 2 || text[slash + 2] == '/');
  return starts(text, "sftp://") && text.find_first_of("@?# ") == std::string::npos && !is_home;
}

constexpr const char* kHttpUrl =
    "an http:// or https:// URL without user, password, query or spaces";

void url(object_reader& from, const char* key, std::string& to, const char* right,
         bool (*fits)(const std::string&)) {
  from.require(key, right);
  from.url(key, to, right, fits);
  while (!to.empty() && to.back() == '/') to.pop_back();
}

void read_folder(object_reader& from, target_settings& to, std::set<std::string>&) {
  from.require("path", "the path of an existing folder, such as \"/mnt/nas\"");
  from.text("path", to.path, "an absolute path", is_absolute);
  from.text("mount", to.mount, "an absolute path", is_absolute);
  for (std::string* path : {&to.path, &to.mount}) {
    while (path->size() > 1 && path->back() == '/') path->pop_back();
  }
  const bool is_below = to.mount.empty() || to.mount == "/" || to.path == to.mount ||
                        to.path.rfind(to.mount + "/", 0) == 0;
  if (!is_below) from.wrong("mount", shown(to.mount) + " should be path or a folder above it");
}

void read_http(object_reader& from, target_settings& to, std::set<std::string>& variables) {
  url(from, "url", to.url, kHttpUrl, is_http_url);
  from.text("user", to.user);
  from.credential("password", to.password, variables);
  from.credential("token", to.token, variables);
  from.text("ca_file", to.ca_file, "an absolute path", is_absolute);
  from.flag("make_folders", to.make_folders);
  if (!to.token.empty() && !to.user.empty()) from.wrong("user", "should not stand beside a token");
  if (!to.password.empty() && to.user.empty()) {
    from.wrong("user", "is missing; a password needs the name that it goes with");
  }
}

void read_s3(object_reader& from, target_settings& to, std::set<std::string>& variables) {
  url(from, "endpoint", to.url, kHttpUrl, is_http_url);
  from.require("bucket", "a bucket's name");
  from.text("bucket", to.bucket, "a bucket's name: 3 to 63 of a-z, 0-9, dot and hyphen", is_bucket);
  to.region = "us-east-1";
  from.text("region", to.region, "a region's name, such as \"eu-central-1\"", is_name);
  from.text("prefix", to.prefix, "a text that doesn't begin with a slash",
            [](const std::string& text) { return text.front() != '/'; });
  from.flag("path_style", to.path_style);
  from.text("ca_file", to.ca_file, "an absolute path", is_absolute);
  for (const std::string key : {"access_key", "secret_key"}) {
    if (!from.has((key + "_file").c_str()) && !from.has((key + "_env").c_str())) {
      from.wrong(key + "_file", "is missing; it, or " + key + "_env, should say where it stands");
    }
  }
  from.credential("access_key", to.access_key, variables);
  from.credential("secret_key", to.secret_key, variables);
  auto part = static_cast<int64_t>(to.part_bytes);
  from.number("part_bytes", part, kSmallestPart, kLargestPart);
  to.part_bytes = static_cast<uint64_t>(part);
}

void read_sftp(object_reader& from, target_settings& to, std::set<std::string>& variables) {
  url(from, "url", to.url, "an sftp:// URL without user, password or ~, such as sftp://host/folder",
      is_sftp_url);
  from.require("user", "the name to log in with");
  from.text("user", to.user);
  from.credential("password", to.password, variables);
  from.text("key_file", to.key_file, "an absolute path", is_absolute);
  if (!from.has("key_file") && !from.has("password_file") && !from.has("password_env")) {
    from.wrong("key_file", "is missing; it, password_file or password_env should be there");
  }
  // Without it libcurl would believe any server.
  from.require("known_hosts", "the absolute path of a file with the server's key");
  from.text("known_hosts", to.known_hosts, "an absolute path", is_absolute);
}

bool begins(const std::string& text, const char* with) {
  return text.rfind(with, 0) == 0;
}

// Keys of age's own kind, in its letters (Bech32). It has plugins for others, which are programs.
bool is_age_key(const std::string& text) {
  constexpr size_t kSize = 62;
  constexpr const char* kLetters = "qpzry9x8gf2tvdw0s3jn54khce6mua7l";
  return begins(text, "age1") && text.size() == kSize &&
         text.find_first_not_of(kLetters, 4) == std::string::npos;
}

bool is_ssh_key(const std::string& text) {
  return (begins(text, "ssh-ed25519 ") || begins(text, "ssh-rsa ")) &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool may_hold_secret(const std::string& text) {
  std::string upper = text;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
  return upper.find("SECRET") != std::string::npos || upper.find("PRIVATE") != std::string::npos;
}

void read_keys(object_reader& from, target_settings& to) {
  constexpr const char* kKey =
      "a public key: \"age1...\" of age-keygen, or \"ssh-ed25519 ...\" or \"ssh-rsa ...\" of "
      "ssh-keygen";
  constexpr const char* kKeys = "a list of one public key or more";
  const Json::Value* const keys = from.list("encrypt_for", kKeys);
  if (keys == nullptr) return;
  if (keys->empty()) from.wrong("encrypt_for", *keys, kKeys);
  for (Json::ArrayIndex at = 0; at < keys->size(); ++at) {
    const Json::Value& one = (*keys)[at];
    const std::string name = "encrypt_for[" + std::to_string(at) + "]";
    const std::string key = one.isString() ? one.asString() : "";
    if (is_age_key(key) || is_ssh_key(key)) {
      to.encrypt_for.push_back(key);
    } else if (may_hold_secret(shown(one)) || may_hold_secret(key)) {
      // Whoever mixes them up has it told to a log.
      from.wrong(name, "holds a secret key, which has no business here; it should be " +
                           std::string(kKey));
    } else {
      from.wrong(name, one, kKey);
    }
  }
}

struct kind_row {
  const char* word;
  target_kind kind;
  void (*read)(object_reader& from, target_settings& to, std::set<std::string>& variables);
};

constexpr kind_row kKinds[] = {
    {"folder", target_kind::kFolder, read_folder},
    {"http", target_kind::kHttp, read_http},
    {"s3", target_kind::kS3, read_s3},
    {"sftp", target_kind::kSftp, read_sftp},
};

void read_target(const Json::Value& value, const std::string& key, delivery_settings& to,
                 std::vector<std::string>& errors) {
  if (!value.isObject()) {
    errors.push_back(key + shown(value) + " should be an object");
    return;
  }
  object_reader from(value, key, errors);
  target_settings made;
  from.require("name", "a name of letters, digits, - and _");
  from.text("name", made.name, "a name of 1 to 64 letters, digits, - and _", is_name);
  for (const target_settings& other : to.targets) {
    if (other.name == made.name) from.wrong("name", value["name"], "another target's than before");
  }
  constexpr const char* kRight = "\"folder\", \"http\", \"s3\" or \"sftp\"";
  std::string word;
  from.require("type", kRight);
  const kind_row* row = nullptr;
  from.text("type", word, kRight, [&row](const std::string& text) {
    for (const kind_row& one : kKinds) row = text == one.word ? &one : row;
    return row != nullptr;
  });
  if (row == nullptr) return;  // which keys are right depends on it
  made.kind = row->kind;
  std::string verify;
  from.text("verify", verify, "\"size\" or \"content\"",
            [](const std::string& text) { return text == "size" || text == "content"; });
  made.verify_content = verify == "content";
  read_keys(from, made);
  row->read(from, made, to.secret_variables);
  from.tell_unknown();
  to.targets.push_back(made);
}

void read_keep(const Json::Value& value, delivery_settings& to, std::vector<std::string>& errors) {
  object_reader from(value, "keep.", errors);
  int64_t minutes = -1;
  int64_t quota = 0;
  from.number("minutes", minutes, 0, 100'000'000);
  from.number("quota_mib", quota, 1, int64_t{1} << 40);
  from.tell_unknown();
  to.keep = std::chrono::seconds(minutes < 0 ? -1 : minutes * 60);
  to.quota_bytes = static_cast<uint64_t>(quota * kMiB);
}

void read_retry(const Json::Value& value, delivery_settings& to, std::vector<std::string>& errors) {
  object_reader from(value, "retry.", errors);
  int64_t first = to.first_retry.count();
  int64_t longest = to.longest_retry.count();
  int64_t refusals = to.refusals;
  from.number("first_ms", first, 10, 3'600'000);
  from.number("longest_ms", longest, 10, 86'400'000);
  from.number("refusals", refusals, 1, 1000);
  if (longest < first) {
    from.wrong("longest_ms", std::to_string(longest) + " should be at least retry.first_ms, " +
                                 std::to_string(first));
  }
  from.tell_unknown();
  to.first_retry = std::chrono::milliseconds(first);
  to.longest_retry = std::chrono::milliseconds(longest);
  to.refusals = static_cast<int>(refusals);
}

void read_hooks(const Json::Value& value, delivery_settings& to, std::vector<std::string>& errors) {
  object_reader from(value, "hooks.", errors);
  from.texts("file", to.file_hook);
  from.texts("session", to.session_hook);
  for (const auto* hook : {&to.file_hook, &to.session_hook}) {
    if (hook->empty() || is_absolute(hook->front())) continue;
    from.wrong(hook == &to.file_hook ? "file" : "session",
               shown(hook->front()) + " should be a program's absolute path");
  }
  int64_t limit = to.hook_limit.count();
  from.number("limit_s", limit, 1, 86'400);
  from.tell_unknown();
  to.hook_limit = std::chrono::seconds(limit);
}

void read_webhook(const Json::Value& value, delivery_settings& to,
                  std::vector<std::string>& errors) {
  object_reader from(value, "webhook.", errors);
  url(from, "url", to.webhook_url, kHttpUrl, is_http_url);
  if (!from.has("secret_file") && !from.has("secret_env")) {
    from.wrong("secret_file",
               "is missing; it, or secret_env, should say where the key of its "
               "signatures stands");
  }
  from.credential("secret", to.webhook_secret, to.secret_variables);
  from.tell_unknown();
}

delivery_settings read(const Json::Value& root, std::vector<std::string>& errors) {
  delivery_settings made;
  object_reader from(root, "", errors);
  from.require("targets", "a list of one target or more");
  if (const Json::Value* const targets = from.list("targets")) {
    if (targets->empty()) from.wrong("targets", *targets, "a list of one target or more");
    for (Json::ArrayIndex at = 0; at < targets->size(); ++at) {
      read_target((*targets)[at], "targets[" + std::to_string(at) + "].", made, errors);
    }
  }
  int64_t connections = made.connections;
  int64_t kbps = made.kbps;
  int64_t stall = made.stall.count();
  from.number("connections", connections, 1, 64);
  from.number("kbps", kbps, 64, 100'000'000);
  from.number("stall_s", stall, 1, 3600);
  made.connections = static_cast<int>(connections);
  made.kbps = static_cast<int>(kbps);
  made.stall = std::chrono::seconds(stall);
  if (const auto* one = from.object("retry")) read_retry(*one, made, errors);
  if (const auto* one = from.object("keep")) read_keep(*one, made, errors);
  if (const auto* one = from.object("hooks")) read_hooks(*one, made, errors);
  if (const auto* one = from.object("webhook")) read_webhook(*one, made, errors);
  from.tell_unknown();
  return made;
}

}  // namespace

delivery_settings parse_delivery_settings(const std::string& path, const std::string& text,
                                          std::vector<std::string>& errors) {
  delivery_settings made;
  std::vector<std::string> found;
  try {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kDeepest;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string fault;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &fault)) {
      std::replace(fault.begin(), fault.end(), '\n', ' ');
      found.push_back(fault + "; " + kExample);
    } else if (!root.isObject()) {
      found.push_back(shown(root) + " is no object; " + kExample);
    } else {
      made = read(root, found);
    }
  } catch (const std::exception& e) {
    found.push_back(std::string("can't be read: ") + e.what() + "; " + kExample);
  }
  for (const std::string& one : found) errors.push_back((path + ": ").append(one));
  return made;
}

delivery_settings load_delivery_settings(const std::string& path,
                                         std::vector<std::string>& errors) {
  std::string fault;
  const auto text = read_text(path, kMostBytes, fault);
  if (text) return parse_delivery_settings(path, *text, errors);
  errors.push_back(path + ": can't be read: " + fault);
  return {};
}

}  // namespace zelta::deliver
