// SPDX-License-Identifier: Apache-2.0
#include "link/pipe_router.h"

#include <memory>
#include <utility>

#include "link/recorder_link.h"

namespace zelta::base {

pipe_router::pipe_router(bool large_pipes) : large_pipes_(large_pipes) {}
pipe_router::~pipe_router() = default;

int pipe_router::launch_recorder(std::vector<const char*>& argv, event_loop* loop) {
  return start_link(argv, loop);
}

int pipe_router::relaunch_recorder(std::vector<const char*>& argv, event_loop* loop) {
  return start_link(argv, loop);
}

int pipe_router::start_link(const std::vector<const char*>& argv, event_loop* loop) {
  std::shared_ptr<link::recorder_link> old;
  {
    const std::lock_guard<std::mutex> guard(link_lock_);
    old = std::move(link_);
  }
  // A recorder of the same folder must have let go of its files before the next one starts. One
  // that another thread's loop still serves can't be taken apart here; it ends with the router.
  if (old && loop->running() && !loop->in_loop_thread()) {
    replaced_.push_back(std::move(old));
  } else if (old) {
    old->finish();
  }
  std::shared_ptr<link::recorder_link> started = link::recorder_link::start(
      argv, {large_pipes_, logger(logdir_, ZELTA_LOG_MODULE_IPC), environment_, listener_, loop});
  if (!started) return -1;
  const std::lock_guard<std::mutex> guard(link_lock_);
  link_ = std::move(started);
  return 0;
}

void pipe_router::shutdown() {
  std::shared_ptr<link::recorder_link> last;
  {
    const std::lock_guard<std::mutex> guard(link_lock_);
    last = std::move(link_);
  }
  if (last) last->finish();
  for (const auto& link : replaced_) link->finish();
  replaced_.clear();
}

void pipe_router::send_packet(packet* p) {
  const std::unique_ptr<packet> owned(p);
  const std::shared_ptr<link::recorder_link> link = current_link();
  if (link && owned) link->send(*owned);
}

void pipe_router::flush() {
  const std::shared_ptr<link::recorder_link> link = current_link();
  if (link) link->flush();
}

std::shared_ptr<link::recorder_link> pipe_router::current_link() {
  const std::lock_guard<std::mutex> guard(link_lock_);
  return link_;
}

}  // namespace zelta::base
