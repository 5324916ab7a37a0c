// SPDX-License-Identifier: Apache-2.0
// Stands in for the recorder: joins nothing, and sends frames of memory that is there already
// through the recorder's own link and frame code, from a thread of its own as GStreamer's are.
#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <gst/video/video.h>
#include <unistd.h>

#include "core_service/engine/engine_link.h"
#include "core_service/frames/frame_sender.h"
#include "core_service/media/picture_memory.h"
#include "load.h"
#include "measure.h"

namespace {

using namespace zelta;
using namespace zelta::bench;
namespace media = zelta::core_service::media;

// As many as a decoder's pool has; more than a second-level cache holds of pictures.
constexpr size_t kSources = 8;
// What may wait for the engine: enough that the pipe never runs dry, little enough to keep nothing
// back.
constexpr size_t kWaitingBytes = 256 << 10;
constexpr std::chrono::seconds kPatience(60);

// One frame's memory, as the recorder's elements give it.
class source {
 public:
  explicit source(const load& what) {
    GstAllocator* const from = what.kind == frame_kind::kYuv ? media::picture_allocator() : nullptr;
    sample_.buffer.reset(gst_buffer_new_allocate(from, what.frame_bytes(), nullptr));
    // Plain memory, which stays where it is.
    GstMapInfo mapped{};
    gst_buffer_map(sample_.buffer.get(), &mapped, GST_MAP_READWRITE);
    bytes_ = mapped.data;
    std::memset(bytes_, 1, mapped.size);
    gst_buffer_unmap(sample_.buffer.get(), &mapped);
    sample_.key = true;
    if (what.kind != frame_kind::kYuv) return;
    sample_.caps.reset(gst_caps_new_simple(
        "video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, what.width, "height",
        G_TYPE_INT, what.height, "framerate", GST_TYPE_FRACTION, 30, 1, nullptr));
    picture_.reset(gst_sample_new(sample_.buffer.get(), sample_.caps.get(), nullptr, nullptr));
  }

  void send(frame_kind kind, core_service::frame_sender& to) {
    switch (kind) {
      case frame_kind::kYuv:
        return to.send_yuv(picture_.get(), media::media_time(0), 0);
      case frame_kind::kH264:
        return to.send_h264(sample_, 0);
      case frame_kind::kJpg:
        return to.send_jpg(sample_, 0);
      case frame_kind::kPcm:
        return to.send_pcm(media::media_time(0), 1, reinterpret_cast<const int16_t*>(bytes_),
                           gst_buffer_get_size(sample_.buffer.get()) / 2);
    }
  }
  // When it was due, where the reader finds it.
  void stamp(int64_t due_ns) { std::memcpy(bytes_, &due_ns, sizeof due_ns); }

 private:
  guint8* bytes_ = nullptr;
  media::media_sample sample_;
  media::sample_ptr picture_;
};

class stand_in final : private core_service::engine_listener {
 public:
  stand_in(int read_fd, int write_fd, const load& what)
      : load_(what),
        link_(read_fd, write_fd, loop_, {},
              what.splice ? link::packet_writer::large::kSplice
                          : link::packet_writer::large::kWrite) {
    link_.listen(*this);
    for (int user = 0; user < what.users; ++user) {
      senders_.push_back(std::make_unique<core_service::frame_sender>(
          core_service::frame_labels{static_cast<uint32_t>(user + 1), 2}, link_));
    }
  }

  void run() {
    protocol::hello_packet hello;
    hello.software = "bench";
    link_.send(hello);
    protocol::user_joined_packet joined;
    joined.info = std::to_string(getpid());
    for (joined.uid = 1; joined.uid <= senders_.size(); ++joined.uid) link_.send(joined);
    std::thread sending([this] {
      if (load_.paced_s > 0) return send_paced();
      if (load_.frames > 0) send_all();
    });
    loop_.run(false);
    sending.join();
  }

 private:
  void send_all() {
    std::vector<source> sources;
    sources.reserve(kSources);
    while (sources.size() < kSources) sources.emplace_back(load_);
    for (size_t i = 0; i < load_.frames && link_.connected(); ++i) {
      sources[i % kSources].send(load_.kind, *senders_[i % senders_.size()]);
      if (link_.waiting_bytes() > kWaitingBytes) link_.flush(kPatience);
    }
    link_.flush(kPatience);
    // The engine may still read out of the memory of the last ones.
    std::unique_lock<std::mutex> lock(end_lock_);
    end_.wait(lock, [this] { return ended_; });
  }

  void send_paced() {
    paced_load pace;
    pace.users = load_.users;
    pace.duration_ns = int64_t{load_.paced_s} * 1'000'000'000;
    load sound;
    sound.kind = frame_kind::kPcm;
    sound.width = static_cast<int>(pace.sound_bytes);
    sound.height = 0;
    std::vector<source> pictures;
    pictures.reserve(kSources * 2);
    while (pictures.size() < kSources * 2) pictures.emplace_back(load_);
    source one_sound(sound);
    size_t next = 0;
    run_paced(pace, [&](bool picture, int user, int64_t due_ns) {
      source& from = picture ? pictures[next++ % pictures.size()] : one_sound;
      from.stamp(due_ns);
      from.send(picture ? frame_kind::kYuv : frame_kind::kPcm,
                *senders_[static_cast<size_t>(user)]);
    });
    link_.send(protocol::recorder_leave_packet());
    std::unique_lock<std::mutex> lock(end_lock_);
    end_.wait(lock, [this] { return ended_; });
  }

  void end() {
    {
      const std::lock_guard<std::mutex> guard(end_lock_);
      ended_ = true;
    }
    end_.notify_all();
    loop_.stop();
  }

  void on_leave_command() override { end(); }
  void on_engine_gone() override { end(); }
  void on_log_level(uint32_t) override {}
  void on_log_modules(uint32_t, bool) override {}
  void on_parameters(const std::string&) override {}
  void on_layout(const std::vector<uint8_t>&) override {}
  void on_start_service() override {}
  void on_stop_service() override {}
  void on_user_background(uint32_t, const std::string&) override {}

  const load load_;
  base::event_loop loop_;
  core_service::engine_link link_;
  std::vector<std::unique_ptr<core_service::frame_sender>> senders_;
  std::mutex end_lock_;
  std::condition_variable end_;
  bool ended_ = false;
};

int value_of(int argc, char** argv, const char* name) {
  char** const found = std::find(argv, argv + argc, std::string(name));
  return found < argv + argc - 1 ? std::atoi(found[1]) : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const auto what = load::parse(std::getenv(kLoadVariable));
  if (!what) {
    std::fprintf(stderr, "this is started by frame_path_bench, which sets %s\n", kLoadVariable);
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  gst_init(nullptr, nullptr);
  stand_in(value_of(argc, argv, "--read"), value_of(argc, argv, "--write"), *what).run();
  return 0;
}
