// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/file_writer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "core_service/files/running_checksum.h"

namespace zelta::core_service::files {
namespace {

// Of one system call.
constexpr size_t kMostParts = 256;
constexpr mode_t kReadable = 0644;

// What is to be done, in this order.
struct piece {
  media::buffer_ptr append;
  std::vector<uint8_t> overwrite;
  uint64_t at = 0;
  bool close = false;
};

// A buffer whose bytes stay in place.
class mapped {
 public:
  explicit mapped(GstBuffer* buffer) : buffer_(buffer) {
    valid_ = gst_buffer_map(buffer_, &map_, GST_MAP_READ) != FALSE;
  }
  mapped(const mapped&) = delete;
  mapped& operator=(const mapped&) = delete;
  ~mapped() {
    if (valid_) gst_buffer_unmap(buffer_, &map_);
  }
  iovec span() const { return {map_.data, valid_ ? map_.size : 0}; }

 private:
  GstBuffer* const buffer_;
  GstMapInfo map_{};
  bool valid_;
};

// All of the parts, however often the kernel has to be asked. 0 or an errno.
int write_all(int fd, iovec* parts, size_t count) {
  while (count > 0) {
    const ssize_t put = ::writev(fd, parts, static_cast<int>(count));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno;
    auto left = static_cast<size_t>(put);
    for (; count > 0 && left >= parts->iov_len; ++parts, --count) left -= parts->iov_len;
    if (count == 0) break;
    parts->iov_base = static_cast<char*>(parts->iov_base) + left;
    parts->iov_len -= left;
  }
  return 0;
}

// 0 or an errno.
int end_line(int fd) {
  struct stat is {};
  if (fstat(fd, &is) != 0) return errno;
  char last = '\n';
  if (is.st_size > 0 && pread(fd, &last, 1, is.st_size - 1) < 0) return errno;
  iovec end{const_cast<char*>("\n"), 1};
  return last == '\n' ? 0 : write_all(fd, &end, 1);
}

// All that the piece will stand in place of.
bool read_former(int fd, const piece& one, std::vector<uint8_t>& former) {
  former.resize(one.overwrite.size());
  for (size_t done = 0; done < former.size();) {
    const ssize_t got =
        ::pread(fd, former.data() + done, former.size() - done, static_cast<off_t>(one.at + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

int overwrite_all(int fd, const piece& one) {
  for (size_t done = 0; done < one.overwrite.size();) {
    const ssize_t put = ::pwrite(fd, one.overwrite.data() + done, one.overwrite.size() - done,
                                 static_cast<off_t>(one.at + done));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno;
    done += static_cast<size_t>(put);
  }
  return 0;
}

}  // namespace

struct output::state {
  std::string path;
  placement where = placement::kOver;
  std::function<void(int)> failed;
  std::function<void()> done;
  // Gone with the output, on the loop's thread.
  std::weak_ptr<int> alive;
  std::shared_ptr<int> life = std::make_shared<int>(0);
  std::atomic<size_t> waiting_bytes{0};
  std::atomic<bool> dropped{false};
  std::atomic<uint64_t> written_bytes{0};

  // The worker's lock guards these.
  std::deque<piece> pieces;
  bool queued = false;
  media::media_time queued_since{};

  // The worker's thread alone.
  base::unique_fd fd;
  bool opened = false;
  bool told = false;
  int error = 0;
  // Of interest to others once the file is closed.
  running_checksum sum;
  bool sum_is_known = true;
};

class file_writer::worker {
 public:
  explicit worker(base::event_loop& loop) : loop_(loop), thread_([this] { run(); }) {}

  void add(const std::shared_ptr<output::state>& to, std::vector<piece> more) {
    {
      const std::lock_guard<std::mutex> guard(lock_);
      for (piece& one : more) to->pieces.push_back(std::move(one));
      if (!std::exchange(to->queued, true)) {
        ready_.push_back(to);
        to->queued_since = media::now();
      }
    }
    changed_.notify_one();
  }

  // The disk may hang over what it is given now.
  media::media_time take_behind() {
    const std::lock_guard<std::mutex> guard(lock_);
    const media::media_time now = media::now();
    if (!ready_.empty()) behind_ = std::max(behind_, now - ready_.front()->queued_since);
    if (working_since_ > media::media_time::zero()) {
      behind_ = std::max(behind_, now - working_since_);
    }
    return std::exchange(behind_, {});
  }

  void stop() {
    {
      const std::lock_guard<std::mutex> guard(lock_);
      over_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(lock_);
    for (;;) {
      changed_.wait(lock, [this] { return over_ || !ready_.empty(); });
      if (over_) return;
      const std::shared_ptr<output::state> next = std::move(ready_.front());
      ready_.pop_front();
      next->queued = false;
      std::deque<piece> pieces = std::exchange(next->pieces, {});
      working_since_ = media::now();
      behind_ = std::max(behind_, working_since_ - next->queued_since);
      lock.unlock();
      work(next, pieces);
      lock.lock();
      working_since_ = {};
    }
  }

  void work(const std::shared_ptr<output::state>& of, std::deque<piece>& pieces) {
    if (!std::exchange(of->opened, true)) open(*of);
    while (!pieces.empty() && of->error == 0 && !of->dropped) {
      if (pieces.front().append) {
        append(*of, pieces);
      } else {
        const piece one = std::move(pieces.front());
        pieces.pop_front();
        if (one.close) return close(of);
        overwrite(*of, one);
      }
    }
    if (of->error != 0) fail(of);
  }

  void open(output::state& of) {
    const bool behind = of.where == placement::kNextLine;
    const int how = behind ? O_RDWR | O_APPEND : O_RDWR;
    of.fd.reset(::open(of.path.c_str(), how | O_CREAT | O_CLOEXEC, kReadable));
    if (!of.fd.valid()) of.error = errno;
    if (of.fd.valid() && behind) of.error = end_line(of.fd.get());
  }

  void append(output::state& of, std::deque<piece>& pieces) {
    std::array<iovec, kMostParts> parts;
    std::deque<mapped> maps;
    size_t bytes = 0;
    size_t count = 0;
    for (const piece& one : pieces) {
      if (!one.append || count == kMostParts) break;
      parts[count] = maps.emplace_back(one.append.get()).span();
      bytes += parts[count++].iov_len;
    }
    for (size_t i = 0; i < count; ++i) of.sum.append(parts[i].iov_base, parts[i].iov_len);
    of.error = write_all(of.fd.get(), parts.data(), count);
    if (of.error == 0) of.written_bytes += bytes;
    maps.clear();
    pieces.erase(pieces.begin(), pieces.begin() + static_cast<std::ptrdiff_t>(count));
    of.waiting_bytes -= bytes;
  }

  void overwrite(output::state& of, const piece& one) {
    std::vector<uint8_t> former;
    of.sum_is_known = of.sum_is_known && read_former(of.fd.get(), one, former);
    of.error = overwrite_all(of.fd.get(), one);
    if (of.sum_is_known) {
      of.sum.overwrite(one.at, former.data(), one.overwrite.data(), former.size());
    }
  }

  void close(const std::shared_ptr<output::state>& of) {
    // Some file systems say only now that they have no room.
    if (::close(of->fd.release()) != 0 && errno != EINTR) {
      of->error = errno;
      return fail(of);
    }
    tell(of, [of] { of->done(); });
  }

  // Once: what is given to a file that failed may still be on its way.
  void fail(const std::shared_ptr<output::state>& of) {
    of->fd.reset();
    if (!std::exchange(of->told, true)) tell(of, [of] { of->failed(of->error); });
  }

  void tell(const std::shared_ptr<output::state>& of, std::function<void()> what) {
    loop_.post([alive = of->alive, what = std::move(what)] {
      if (!alive.expired()) what();
    });
  }

  base::event_loop& loop_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<std::shared_ptr<output::state>> ready_;
  bool over_ = false;
  media::media_time behind_{};
  media::media_time working_since_{};
  std::thread thread_;
};

file_writer::file_writer(base::event_loop& loop) : worker_(std::make_shared<worker>(loop)) {}

media::media_time file_writer::take_behind() {
  return worker_->take_behind();
}

file_writer::~file_writer() {
  worker_->stop();
}

std::unique_ptr<output> file_writer::open(const std::string& path,
                                          std::function<void(int error)> failed, placement where) {
  auto of = std::make_shared<output::state>();
  of->path = path;
  of->where = where;
  of->failed = std::move(failed);
  of->alive = of->life;
  return std::make_unique<output>(worker_, std::move(of));
}

output::output(std::shared_ptr<file_writer::worker> by, std::shared_ptr<state> of)
    : worker_(std::move(by)), state_(std::move(of)) {}

output::~output() {
  state_->dropped = true;
  state_->life.reset();
}

void output::append(std::vector<media::buffer_ptr> bytes) {
  std::vector<piece> pieces(bytes.size());
  for (size_t i = 0; i < bytes.size(); ++i) {
    state_->waiting_bytes += gst_buffer_get_size(bytes[i].get());
    pieces[i].append = std::move(bytes[i]);
  }
  worker_->add(state_, std::move(pieces));
}

void output::overwrite(uint64_t at, std::vector<uint8_t> bytes) {
  std::vector<piece> pieces(1);
  pieces[0].overwrite = std::move(bytes);
  pieces[0].at = at;
  worker_->add(state_, std::move(pieces));
}

void output::close(std::function<void()> done) {
  state_->done = std::move(done);
  std::vector<piece> pieces(1);
  pieces[0].close = true;
  worker_->add(state_, std::move(pieces));
}

size_t output::waiting_bytes() const {
  return state_->waiting_bytes;
}

uint64_t output::written_bytes() const {
  return state_->written_bytes;
}

std::optional<uint32_t> output::crc32() const {
  return state_->sum_is_known ? std::optional(state_->sum.crc32()) : std::nullopt;
}

}  // namespace zelta::core_service::files
