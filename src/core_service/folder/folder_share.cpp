// SPDX-License-Identifier: Apache-2.0
#include "core_service/folder/folder_share.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "base/process_name.h"
#include "core_service/folder/journal.h"

namespace zelta::core_service {
namespace {

// More sessions than a machine takes.
constexpr int kMost = 10'000;

constexpr const char* kManifest = "recording";

std::string numbered(const char* stem, int number, const char* ending) {
  return stem + (number > 1 ? "_" + std::to_string(number) : "") + ending;
}

std::string session_of(const std::string& journal) {
  std::string error;
  const auto state = read_journal(journal, error);
  return state ? state->session : "";
}

}  // namespace

folder_share::folder_share(std::string folder, std::string session, bool recovery, int first)
    : folder_(std::move(folder)), session_(std::move(session)) {
  number_ = first;
  for (; recovery && access(lock_path().c_str(), F_OK) == 0; ++number_) {
    if (session_of(folder_ + journal_name()) == session_ && take()) return;
  }
  number_ = first;
  while (number_ < kMost && (is_awaited() || !take())) ++number_;
}

int folder_share::first_of_environment() {
  const char* const text = std::getenv("ZELTA_FIRST_MANIFEST");
  int number = 1;
  if (text != nullptr) std::from_chars(text, text + std::strlen(text), number);
  return std::clamp(number, 1, kMost);
}

std::string folder_share::session_name(unsigned uid, const std::string& channel_id) {
  return base::process_name(getppid()) + " " + std::to_string(uid) + " " + channel_id;
}

std::string folder_share::manifest_name() const {
  return numbered(kManifest, number_, ".json");
}

std::string folder_share::journal_name() const {
  return numbered("journal", number_, ".json");
}

std::string folder_share::messages_name() const {
  return numbered("messages", number_, ".jsonl");
}

std::string folder_share::volumes_name() const {
  return numbered("volumes", number_, ".jsonl");
}

// The first's is the folder itself, which most sessions have alone.
std::string folder_share::lock_path() const {
  return number_ == 1 ? folder_ : folder_ + numbered(".recording", number_, ".lock");
}

bool folder_share::take() {
  // Who may only read may lock: it may be another account's.
  const int how = number_ == 1 ? O_DIRECTORY : O_CREAT;
  lock_.reset(open(lock_path().c_str(), O_RDONLY | how | O_CLOEXEC, 0666));
  return !lock_.valid() || flock(lock_.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// Between the death of a recorder and its relaunch nobody holds the lock; but while the engine
// lives, somebody will want the journal.
bool folder_share::is_awaited() const {
  const std::string owner = session_of(folder_ + journal_name());
  const std::string engine = owner.substr(0, owner.find(' '));
  pid_t pid = 0;
  std::from_chars(engine.data(), engine.data() + engine.size(), pid);
  return pid > 0 && owner != session_ && base::process_name(pid) == engine;
}

}  // namespace zelta::core_service
