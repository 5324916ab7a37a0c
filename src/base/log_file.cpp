// SPDX-License-Identifier: Apache-2.0
#include "base/log_file.h"

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/clocks.h"
#include "base/log.h"
#include "base/unique_fd.h"

namespace zelta::base {
namespace {

// The engine logs command lines, and secrets with them.
constexpr mode_t kPrivate = 0600;
constexpr off_t kRotateBytes = 16 << 20;
constexpr int kKeptFiles = 4;
constexpr int64_t kIdleMs = 60'000;
constexpr int64_t kCheckMs = 1'000;

class log_file {
 public:
  explicit log_file(const std::string& dir) : path_(dir) {
    if (path_.back() != '/') path_ += '/';
    path_ += kLogFileName;
  }
  log_file(const log_file&) = delete;
  log_file& operator=(const log_file&) = delete;
  ~log_file() { say_what_was_lost(); }

  bool write(const std::string& line, bool may_drop, int64_t now) {
    last_use_ = now;
    if (now - period_start_ >= kCheckMs) start_period(now);
    if (may_drop && lines_in_period_ >= log_config::DROP_COUNT) return ++lost_, false;
    ++lines_in_period_;
    if (!file_.valid()) open();
    say_loss();
    if (!append(line)) return ++lost_, false;
    return true;
  }

  bool idle(int64_t now) const { return now - last_use_ >= kIdleMs; }

 private:
  bool say_loss() {
    if (lost_ == 0 || append(loss_line())) lost_ = 0;
    return lost_ == 0;
  }

  // The last chance. Where the disk is still full, standard error is where somebody may look.
  void say_what_was_lost() {
    if (lost_ > 0 && !file_.valid()) open();
    if (say_loss()) return;
    const std::string line = path_ + ": " + loss_line();
    [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
  }

  void start_period(int64_t now) {
    period_start_ = now;
    lines_in_period_ = 0;
    close_if_rotated();
  }

  // Somebody else may have renamed or removed the file under us.
  void close_if_rotated() {
    struct stat ours {};
    struct stat named {};
    if (!file_.valid()) return;
    if (fstat(file_.get(), &ours) != 0 || stat(path_.c_str(), &named) != 0 ||
        ours.st_ino != named.st_ino || ours.st_dev != named.st_dev) {
      file_.reset();
    }
  }

  void open() {
    file_.reset(::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kPrivate));
    struct stat status {};
    size_ = file_.valid() && fstat(file_.get(), &status) == 0 ? status.st_size : 0;
  }

  bool append(const std::string& text) {
    if (file_.valid() && size_ + static_cast<off_t>(text.size()) > kRotateBytes) rotate();
    if (!file_.valid()) return false;
    // Half a line that a full disk took stays, because others may have written behind it; what
    // comes next begins a line of its own.
    const std::string whole = torn_ ? "\n" + text : text;
    const ssize_t written = ::write(file_.get(), whole.data(), whole.size());
    if (written <= 0) return false;
    size_ += written;
    torn_ = written != static_cast<ssize_t>(whole.size());
    return !torn_;
  }

  void rotate() {
    // Another process may have rotated since the last look; its fresh file is not pushed on.
    close_if_rotated();
    if (!file_.valid()) {
      open();
      if (size_ < kRotateBytes / 2) return;
    }
    // A missing older file is the usual case, so results are of no interest here; if the rename of
    // the file itself fails, it simply grows on.
    for (int i = kKeptFiles - 1; i >= 1; --i) std::rename(kept(i).c_str(), kept(i + 1).c_str());
    std::rename(path_.c_str(), kept(1).c_str());
    open();
  }

  std::string kept(int number) const { return path_ + "." + std::to_string(number); }

  std::string loss_line() const {
    return utc_iso_text(utc_ms()) + " warn common " + std::to_string(lost_) +
           " log lines were lost here\n";
  }

  std::string path_;
  unique_fd file_;
  off_t size_ = 0;
  uint64_t lost_ = 0;
  bool torn_ = false;
  int64_t last_use_ = 0;
  int64_t period_start_ = 0;
  uint32_t lines_in_period_ = 0;
};

struct log_files {
  std::mutex mutex;
  std::map<std::string, log_file> by_dir;
};

// Never destroyed: an engine may be released after static destruction has begun.
log_files& files() {
  static log_files& instance = *std::make_unique<log_files>().release();
  return instance;
}

}  // namespace

bool log_file_write(const std::string& dir, const std::string& line, bool may_drop) {
  const int64_t now = tick_ms();
  log_files& all = files();
  const std::lock_guard<std::mutex> guard(all.mutex);
  for (auto it = all.by_dir.begin(); it != all.by_dir.end();) {
    it = it->second.idle(now) ? all.by_dir.erase(it) : std::next(it);
  }
  return all.by_dir.try_emplace(dir, dir).first->second.write(line, may_drop, now);
}

void log_file_close(const std::string& dir) {
  log_files& all = files();
  const std::lock_guard<std::mutex> guard(all.mutex);
  all.by_dir.erase(dir);
}

}  // namespace zelta::base
