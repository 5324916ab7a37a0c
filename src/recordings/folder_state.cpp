// SPDX-License-Identifier: Apache-2.0
#include "recordings/folder_state.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <exception>
#include <filesystem>
#include <memory>
#include <system_error>

#include <fcntl.h>
#include <json/json.h>
#include <sys/file.h>

#include "base/process_name.h"
#include "base/unique_fd.h"
#include "recordings/recording_folder.h"
#include "recordings/regular_file.h"

namespace zelta::recordings {
namespace {

constexpr size_t kMostJournal = size_t{16} << 20U;

bool starts(const std::string& name, const std::string& with) {
  return name.compare(0, with.size(), with) == 0;
}

bool ends(const std::string& name, const std::string& with) {
  return name.size() >= with.size() &&
         name.compare(name.size() - with.size(), with.size(), with) == 0;
}

bool is_digits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// STEM.ENDING of the first session, STEM_2.ENDING of the second one, and so on: as manifests are.
bool is_share(const std::string& name, const std::string& stem, const std::string& ending) {
  return name.size() >= stem.size() + ending.size() && starts(name, stem) && ends(name, ending) &&
         is_manifest_name(
             "recording" +
             name.substr(stem.size(), name.size() - stem.size() - ending.size()).append(".json"));
}

bool is_journal(const std::string& name) {
  return is_share(name, "journal", ".json");
}

// UID_YYYYMMDDTHHMMSSmmm.jpg
bool is_picture(const std::string& name) {
  const size_t line = name.find('_');
  return line != std::string::npos && is_digits(name.substr(0, line)) && name.size() > line + 5 &&
         ends(name, ".jpg");
}

bool is_companion(const std::string& name) {
  return is_share(name, "messages", ".jsonl") || is_share(name, "volumes", ".jsonl") ||
         is_picture(name) || starts(name, "recording_engine.log");
}

// UID_TIME.ENDING, and mix_TIME.ENDING of the mix.
bool is_recorders_media(const std::string& name) {
  const size_t line = name.find('_');
  if (line == std::string::npos || !is_media_name(name)) return false;
  const std::string whose = name.substr(0, line);
  return (is_digits(whose) || whose == "mix") &&
         (ends(name, ".mp4") || ends(name, ".m4a") || ends(name, ".webm"));
}

std::vector<std::string> names_in(const std::string& folder, std::error_code& failed) {
  std::vector<std::string> names;
  std::filesystem::directory_iterator at(folder, failed);
  for (; !failed && at != std::filesystem::directory_iterator(); at.increment(failed)) {
    names.push_back(at->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> names_in(const std::string& folder,
                                  bool (*is_wanted)(const std::string&)) {
  std::error_code failed;
  std::vector<std::string> names = names_in(folder, failed);
  names.erase(std::remove_if(names.begin(), names.end(),
                             [&](const std::string& name) { return !is_wanted(name); }),
              names.end());
  return names;
}

// What isn't there, or is no file, locks nothing. What can't be looked at may be held.
bool is_held(const std::string& path) {
  const base::unique_fd lock(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!lock.valid()) return errno != ENOENT && errno != ELOOP && errno != ENXIO;
  return flock(lock.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

// Empty, too, of what is no journal: somebody else may have put it there.
std::string session_of(const std::string& folder, const std::string& journal) {
  const auto read = read_regular(folder, journal, kMostJournal);
  if (!read) return "";
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  try {
    Json::Value root;
    const std::string& text = read->text;
    const bool is_read = reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
    return is_read && root.isObject() && root["session"].isString() ? root["session"].asString()
                                                                    : "";
  } catch (const std::exception&) {
    return "";  // it is nested too deeply
  }
}

// Between the death of a recorder and its relaunch nobody holds the lock. The journal's session
// begins with the name of the process that has called the recorder.
bool is_awaited(const std::string& folder, const std::string& journal) {
  const std::string session = session_of(folder, journal);
  const std::string caller = session.substr(0, session.find(' '));
  pid_t pid = 0;
  std::from_chars(caller.data(), caller.data() + caller.size(), pid);
  return pid > 0 && base::process_name(pid) == caller;
}

}  // namespace

bool is_over(const std::string& folder, bool left_over) {
  std::error_code failed;
  const std::vector<std::string> names = names_in(folder, failed);
  if (failed) return false;
  const bool runs = std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    return is_journal(name) && (!left_over || is_awaited(folder, name));
  });
  if (runs || is_held(folder + "/.")) return false;
  return std::none_of(names.begin(), names.end(), [&](const std::string& name) {
    return is_share(name, ".recording", ".lock") && is_held(folder + "/" + name);
  });
}

bool is_media_name(const std::string& name) {
  const bool leads_out = name.empty() || name.front() == '.' ||
                         name.find('/') != std::string::npos ||
                         name.find('\0') != std::string::npos;
  if (leads_out) return false;
  const bool is_states = starts(name, "delivery.json") || ends(name, ".json") ||
                         ends(name, ".new") || ends(name, ".lock");
  return !is_states && !is_companion(name);
}

std::vector<std::string> media_names(const std::string& folder) {
  return names_in(folder, is_recorders_media);
}

std::vector<std::string> companion_names(const std::string& folder) {
  return names_in(folder, is_companion);
}

}  // namespace zelta::recordings
