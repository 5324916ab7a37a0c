// SPDX-License-Identifier: Apache-2.0
#include "engine_run.h"

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>

#include <malloc.h>
#include <unistd.h>

#include "support/counted_new.h"
#include "support/quiet_handler.h"

namespace zelta::bench {
namespace {

using namespace recording;

// A folder of recordings that goes with the run.
class scratch_dir {
 public:
  scratch_dir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zelta-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~scratch_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  scratch_dir(const scratch_dir&) = delete;
  scratch_dir& operator=(const scratch_dir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Waits for the recorder's first users and for the end of what it sends.
class handler : public test::QuietHandler {
 public:
  void wait_until_done() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::minutes(5), [this] { return done_; })) {
      throw std::runtime_error("the frames did not arrive in 5 minutes");
    }
  }
  bool failed() const { return failed_; }

  void onError(int, STAT_CODE_TYPE) override { failed_ = true, done(); }
  void onLeaveChannel(LEAVE_PATH_CODE) override { done(); }
  void onUserJoined(recording::uid_t, UserJoinInfos& infos) override {
    writer_ = std::atoi(infos.storageDir);
    on_user();
  }
  void audioFrameReceived(unsigned int, const AudioFrame* frame) override {
    arrived(frame->frame.pcm->pcmBuf_, frame->frame.pcm->pcmBufSize_, false);
  }
  void videoFrameReceived(unsigned int, const VideoFrame* frame) override {
    switch (frame->type) {
      case VIDEO_FRAME_RAW_YUV:
        return arrived(frame->frame.yuv->buf_, frame->frame.yuv->bufSize_, true);
      case VIDEO_FRAME_H264:
        return arrived(frame->frame.h264->buf_, frame->frame.h264->bufSize_, true);
      default:
        return arrived(frame->frame.jpg->buf_, frame->frame.jpg->bufSize_, true);
    }
  }

 protected:
  virtual void arrived(const unsigned char* data, size_t bytes, bool picture) = 0;
  virtual void on_user() {}
  void done() {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      done_ = true;
    }
    changed_.notify_all();
  }
  pid_t writer_ = 0;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  std::atomic<bool> failed_{false};
};

class counting_handler final : public handler {
 public:
  explicit counting_handler(const load& what)
      : watch_(what.frame_bytes(), what.frames), warm_(what.frames / 10), last_(what.frames) {}
  engine_transfer result() const {
    engine_transfer measured;
    static_cast<transfer&>(measured) = watch_.measured();
    measured.allocations_a_frame =
        static_cast<double>(allocations_) / static_cast<double>(last_ - warm_);
    return measured;
  }

 private:
  void arrived(const unsigned char*, size_t, bool) override {
    if (++seen_ == warm_) allocations_at_warm_ = test::allocations();
    if (seen_ == last_) allocations_ = test::allocations() - allocations_at_warm_;
    if (watch_.arrived(writer_)) done();
  }

  stopwatch watch_;
  const size_t warm_;
  const size_t last_;
  size_t seen_ = 0;
  size_t allocations_at_warm_ = 0;
  size_t allocations_ = 0;
};

class timing_handler final : public handler {
 public:
  timing_handler() {
    // The measurement allocates nothing while it runs.
    found.pictures.reserve(1 << 16);
    found.sound.reserve(1 << 16);
  }
  latencies found;

 private:
  void arrived(const unsigned char* data, size_t, bool picture) override {
    int64_t sent = 0;
    std::memcpy(&sent, data, sizeof sent);
    (picture ? found.pictures : found.sound).push_back(now_ns() - sent);
  }
};

class idle_handler final : public handler {
  void arrived(const unsigned char*, size_t, bool) override {}
  void on_user() override { done(); }
};

struct releaser {
  void operator()(IRecordingEngine* engine) const { engine->release(); }
};
using engine_ptr = std::unique_ptr<IRecordingEngine, releaser>;

engine_ptr join(const load& what, const scratch_dir& folder, handler& to) {
  ::setenv(kLoadVariable, what.text().c_str(), 1);
  ::setenv("ZELTA_SERVICE_DIR", BENCH_SERVICE_DIR, 1);
  RecordingConfig config;
  config.recordFileRootDir = const_cast<char*>(folder.path().c_str());
  config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
  config.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE;
  engine_ptr engine(IRecordingEngine::createZeltaRecordingEngine("bench", &to));
  if (!engine || engine->joinChannel("", "bench", 0, config) != 0) {
    throw std::runtime_error("joinChannel failed");
  }
  return engine;
}

size_t entries_of(const char* folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

double resident_kb() {
  std::ifstream status("/proc/self/statm");
  size_t all = 0;
  size_t resident = 0;
  status >> all >> resident;
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1024;
}

}  // namespace

engine_transfer run_engine(const load& what) {
  const scratch_dir folder;
  counting_handler to(what);
  const engine_ptr engine = join(what, folder, to);
  to.wait_until_done();
  if (to.failed()) throw std::runtime_error("the stand-in of the recorder failed");
  return to.result();
}

latencies run_paced_engine(const load& what) {
  const scratch_dir folder;
  timing_handler to;
  {
    const engine_ptr engine = join(what, folder, to);
    to.wait_until_done();
  }
  if (to.failed()) throw std::runtime_error("the stand-in of the recorder failed");
  return std::move(to.found);
}

idle_cost run_idle(int engines, int seconds) {
  const scratch_dir folder;
  load nothing;
  nothing.frames = 0;
  const auto count = static_cast<double>(engines);
  ::malloc_trim(0);
  const double memory = resident_kb();
  const size_t descriptors = entries_of("/proc/self/fd");
  const size_t threads = entries_of("/proc/self/task");
  std::vector<std::unique_ptr<idle_handler>> handlers;
  std::vector<engine_ptr> joined;
  for (int i = 0; i < engines; ++i) {
    handlers.push_back(std::make_unique<idle_handler>());
    joined.push_back(join(nothing, folder, *handlers.back()));
  }
  for (const auto& one : handlers) one->wait_until_done();
  idle_cost cost;
  cost.memory_kb = (resident_kb() - memory) / count;
  cost.descriptors = static_cast<double>(entries_of("/proc/self/fd") - descriptors) / count;
  cost.threads = static_cast<double>(entries_of("/proc/self/task") - threads) / count;
  const int64_t cpu = cpu_ns(::getpid());
  const int64_t start = now_ns();
  pace_until(start + int64_t{seconds} * 1'000'000'000);
  cost.cpu_ms_per_s = static_cast<double>(cpu_ns(::getpid()) - cpu) / 1e6 / seconds / count;
  return cost;
}

}  // namespace zelta::bench
