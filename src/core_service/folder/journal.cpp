// SPDX-License-Identifier: Apache-2.0
#include "core_service/folder/journal.h"

#include <charconv>
#include <exception>
#include <fstream>
#include <utility>

#include <json/json.h>
#include <unistd.h>

namespace zelta::core_service {
namespace {

constexpr int kVersion = 1;

std::string hex_of(const std::vector<uint8_t>& bytes) {
  const char* const digits = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : bytes) {
    text += digits[byte >> 4U];
    text += digits[byte & 15U];
  }
  return text;
}

std::vector<uint8_t> bytes_of(const std::string& hex) {
  std::vector<uint8_t> bytes;
  if (hex.size() % 2 != 0) throw Json::RuntimeError("layout: half a byte");
  for (size_t at = 0; at < hex.size(); at += 2) {
    uint8_t byte = 0;
    const auto [end, failed] = std::from_chars(hex.data() + at, hex.data() + at + 2, byte, 16);
    if (failed != std::errc() || end != hex.data() + at + 2) {
      throw Json::RuntimeError("layout: \"" + hex.substr(at, 2) + "\" is no byte");
    }
    bytes.push_back(byte);
  }
  return bytes;
}

journal_state from_json(const Json::Value& root) {
  journal_state state;
  if (root.get("version", 0).asInt() != kVersion) throw Json::RuntimeError("unknown version");
  state.session = root.get("session", "").asString();
  state.layout = bytes_of(root.get("layout", "").asString());
  const Json::Value& backgrounds = root["user_backgrounds"];
  for (const std::string& uid : backgrounds.getMemberNames()) {
    state.user_backgrounds[static_cast<uint32_t>(std::stoul(uid))] = backgrounds[uid].asString();
  }
  state.log_level = root.get("log_level", 0U).asUInt();
  state.log_modules = root.get("log_modules", -1).asInt64();
  state.serving = root.get("serving", false).asBool();
  const Json::Value& left_out = root["left_out"];
  for (const std::string& uid : left_out.getMemberNames()) {
    const auto suspect = parse_crash_note(uid + " " + std::to_string(left_out[uid].asInt()));
    if (!suspect) throw Json::RuntimeError("left_out: \"" + uid + "\" is no user with a stage");
    state.left_out[suspect->uid] = suspect->stage;
  }
  state.unexplained_crashes = root.get("unexplained_crashes", 0U).asUInt();
  return state;
}

}  // namespace

void journal_state::blame(const crash_suspect& suspect) {
  if (suspect.stage == crash_stage::kUnknown) {
    const bool first = ++unexplained_crashes == 1;
    // Of nobody in particular, the first may not come again.
    if (first && suspect.uid == 0) return;
    left_out.emplace(first ? suspect.uid : 0, crash_stage::kDecoding);
    return;
  }
  const auto [known, added] = left_out.emplace(suspect.uid, suspect.stage);
  // What was left out was not all of it.
  if (!added) known->second = crash_stage::kReceiving;
}

crash_stage journal_state::left_out_of(uint32_t uid) const {
  auto found = left_out.find(uid);
  if (found == left_out.end()) found = left_out.find(0);
  return found != left_out.end() ? found->second : crash_stage::kUnknown;
}

std::optional<journal_state> read_journal(const std::string& path, std::string& error) {
  std::ifstream file(path);
  if (!file) {
    error = "there is no " + path;
    return std::nullopt;
  }
  try {
    Json::Value root;
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), file, &root, &errors)) {
      throw Json::RuntimeError(errors);
    }
    return from_json(root);
  } catch (const std::exception& e) {
    error = path + " can't be read: " + e.what();
    return std::nullopt;
  }
}

journal::journal(std::string path, std::string session, state_writer& writer)
    : path_(std::move(path)), writer_(writer) {
  state.session = std::move(session);
}

bool journal::load(std::string& error) {
  auto left = read_journal(path_, error);
  if (!left) return false;
  if (left->session != state.session) {
    error = path_ + " is of another session, \"" + left->session + "\"";
    return false;
  }
  state = std::move(*left);
  return true;
}

void journal::remove() {
  over_ = true;
  unlink(path_.c_str());
}

void journal::save() const {
  if (over_) return;
  Json::Value root(Json::objectValue);
  root["version"] = kVersion;
  root["session"] = state.session;
  root["layout"] = hex_of(state.layout);
  Json::Value backgrounds(Json::objectValue);
  for (const auto& [uid, path] : state.user_backgrounds) backgrounds[std::to_string(uid)] = path;
  root["user_backgrounds"] = std::move(backgrounds);
  root["log_level"] = state.log_level;
  root["log_modules"] = Json::Int64{state.log_modules};
  root["serving"] = state.serving;
  Json::Value left_out(Json::objectValue);
  for (const auto& [uid, stage] : state.left_out) {
    left_out[std::to_string(uid)] = static_cast<int>(stage);
  }
  root["left_out"] = std::move(left_out);
  root["unexplained_crashes"] = state.unexplained_crashes;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  writer_.replace(path_, Json::writeString(writer, root) + "\n");
}

}  // namespace zelta::core_service
