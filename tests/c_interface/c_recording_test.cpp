// SPDX-License-Identifier: Apache-2.0
// Recordings by the C interface: with the generated channel, and with a recorder that floods.
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <poll.h>

#include "support/c_recording.h"
#include "support/read_json.h"

namespace zelta::test {
namespace {

// What came, and whether it was in order; for the engine's thread and the test's.
class Seen {
 public:
  void see(const zelta_event& e) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (kinds_.empty()) {
      EXPECT_EQ(e.kind, ZELTA_EVENT_JOINED);
      EXPECT_STREQ(e.as.joined.channel_id, "room");
      EXPECT_EQ(e.uid, 77U);
    }
    if (e.kind == ZELTA_EVENT_USER_JOINED) folder_ = e.as.user_joined.storage_dir;
    if (e.kind == ZELTA_EVENT_VIDEO_FRAME) see_picture(e.as.video);
    if (e.kind == ZELTA_EVENT_AUDIO_FRAME) see_sound(e.as.audio);
    ++kinds_[{e.kind, e.uid}];
    changed_.notify_all();
  }
  bool enough() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return enough_locked();
  }
  bool wait_enough() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [this] { return enough_locked(); });
  }
  std::string folder() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return folder_;
  }

 private:
  bool enough_locked() {
    for (const uint32_t uid : {1U, 2U}) {
      if (kinds_[{ZELTA_EVENT_USER_JOINED, uid}] != 1) return false;
      if (kinds_[{ZELTA_EVENT_AUDIO_FRAME, uid}] < 5) return false;
      if (kinds_[{ZELTA_EVENT_VIDEO_FRAME, uid}] < 5) return false;
    }
    return true;
  }
  static void see_picture(const zelta_video_frame& v) {
    EXPECT_EQ(std::make_pair(v.width, v.height), std::make_pair(160U, 90U));
    ASSERT_EQ(v.format, ZELTA_VIDEO_YUV);
    EXPECT_EQ(v.planes[0], v.data);
    EXPECT_EQ(v.planes[1], v.data + size_t{v.strides[0]} * v.height);
    EXPECT_LE(v.planes[2] + size_t{v.strides[2]} * v.height / 2, v.data + v.data_bytes);
    EXPECT_NE(v.planes[2][0], 0) << "chroma of a picture is never black";
  }
  static void see_sound(const zelta_audio_frame& a) {
    ASSERT_EQ(a.format, ZELTA_AUDIO_PCM);
    EXPECT_EQ(a.samples * 2, a.data_bytes);
    EXPECT_GT(a.sample_rate, 0U);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::pair<int, uint32_t>, int> kinds_;
  std::string folder_;
};

class GeneratedChannelTest : public CInterfaceTest {
 protected:
  GeneratedChannelTest() {
    unsetenv("ZELTA_SERVICE_DIR");
    setenv("ZELTA_CHANNEL_SERVER", "test:users=2,size=160x90,fps=15", 1);
    config.decode_audio = ZELTA_DECODE_AUDIO_PCM_FRAMES;
    config.decode_video = ZELTA_DECODE_VIDEO_YUV_FRAMES;
  }
  void join(const CRecording& recording) const {
    ASSERT_EQ(zelta_recording_join(recording.get(), nullptr, "room", 77, &config), ZELTA_OK)
        << detail(recording.get());
  }
  static std::string folder_of(const CRecording& recording) {
    char path[400] = "";
    EXPECT_EQ(zelta_recording_folder(recording.get(), path, sizeof path), ZELTA_OK);
    return path;
  }
  Seen seen;
};

TEST_F(GeneratedChannelTest, ComesByQueueToWhoPolls) {
  const CRecording recording = made();
  int fd = -1;
  ASSERT_EQ(zelta_event_fd(recording.get(), &fd), ZELTA_OK);
  join(recording);
  const zelta_event* event = nullptr;
  while (!seen.enough()) {
    pollfd ready{fd, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 20'000), 1);
    int code = ZELTA_OK;
    while ((code = zelta_next_event(recording.get(), 0, &event)) == ZELTA_OK) {
      seen.see(*event);
      EXPECT_EQ(zelta_event_release(recording.get(), event), ZELTA_OK);
    }
    ASSERT_EQ(code, ZELTA_NO_EVENT);
  }
  EXPECT_EQ(zelta_recording_leave(recording.get()), ZELTA_OK);
  int code = ZELTA_OK;
  while (code == ZELTA_OK) code = zelta_next_event(recording.get(), -1, &event);
  EXPECT_EQ(code, ZELTA_END);
  EXPECT_EQ(seen.folder(), folder_of(recording));
}

TEST_F(GeneratedChannelTest, ComesByCallbackAndCopiesOutliveIt) {
  std::vector<std::pair<const zelta_event*, std::string>> copies;
  const auto bytes_of = [](const zelta_event& e) {
    return std::string(reinterpret_cast<const char*>(e.as.video.data), e.as.video.data_bytes);
  };
  OnEvent on_event = [&](zelta_recording* r, const zelta_event& e) {
    seen.see(e);
    if (e.kind != ZELTA_EVENT_VIDEO_FRAME || copies.size() == 5) return;
    const zelta_event* copy = nullptr;
    ASSERT_EQ(zelta_event_copy(r, &e, &copy), ZELTA_OK);
    EXPECT_NE(copy->as.video.data, e.as.video.data);
    copies.emplace_back(copy, bytes_of(e));
  };
  const CRecording recording = made(options(&on_event));
  join(recording);
  EXPECT_TRUE(seen.wait_enough());
  EXPECT_EQ(zelta_recording_leave(recording.get()), ZELTA_OK);
  EXPECT_EQ(seen.folder(), folder_of(recording));
  EXPECT_EQ(copies.size(), 5U);
  for (const auto& [copy, bytes] : copies) {
    EXPECT_TRUE(bytes_of(*copy) == bytes);
    EXPECT_EQ(zelta_event_release(recording.get(), copy), ZELTA_OK);
  }
}

TEST_F(GeneratedChannelTest, AFinishCompletesTheFilesAndTakesNothingFromAnybody) {
  config.decode_audio = ZELTA_DECODE_AUDIO_FILES;
  const CRecording recording = made();
  join(recording);
  const zelta_event* kept = nullptr;
  for (int kind = 0; kind != ZELTA_EVENT_VIDEO_FRAME; kind = kept->kind) {
    ASSERT_EQ(zelta_next_event(recording.get(), 20'000, &kept), ZELTA_OK);
  }
  const std::string bytes(reinterpret_cast<const char*>(kept->as.video.data),
                          kept->as.video.data_bytes);
  const std::string folder = folder_of(recording);
  EXPECT_EQ(zelta_recording_finish(recording.get()), ZELTA_OK);
  EXPECT_EQ(read_json(folder + "recording.json")["sessions"][0]["ended"], "application left");
  EXPECT_EQ(zelta_recording_finish(recording.get()), ZELTA_OK) << "a second one";
  EXPECT_EQ(folder_of(recording), folder);

  const zelta_event* event = nullptr;
  int code = ZELTA_OK;
  while (code == ZELTA_OK) code = zelta_next_event(recording.get(), -1, &event);
  EXPECT_EQ(code, ZELTA_END);
  EXPECT_EQ(bytes.compare(0, bytes.size(), reinterpret_cast<const char*>(kept->as.video.data),
                          kept->as.video.data_bytes),
            0);
  EXPECT_EQ(zelta_event_release(recording.get(), kept), ZELTA_OK);
}

class RetryTest : public CInterfaceTest {};

TEST_F(RetryTest, AfterARefusedJoinARecorderThatDiesIsStartedAgain) {
  const CRecording recording = made();
  zelta_config wrong = config;
  wrong.applite_dir = "/nonexistent";
  EXPECT_EQ(zelta_recording_join(recording.get(), nullptr, "room", 1, &wrong), ZELTA_ERROR_REFUSED);
  join(recording, "join kill");
  const zelta_event* e = nullptr;
  for (const int kind : {ZELTA_EVENT_JOINED, ZELTA_EVENT_WARNING}) {
    ASSERT_EQ(zelta_next_event(recording.get(), 20'000, &e), ZELTA_OK);
    ASSERT_EQ(e->kind, kind);
  }
  EXPECT_EQ(e->as.warning.warning, ZELTA_WARNING_RECOVERED);
}

class LeftTest : public CInterfaceTest {};

TEST_F(LeftTest, ARecorderThatHasLeftIsNoFailureWhenItsProcessEnds) {
  const CRecording recording = made();
  join(recording, "join leave:4");
  const zelta_event* e = nullptr;
  for (const int kind : {ZELTA_EVENT_JOINED, ZELTA_EVENT_LEFT}) {
    ASSERT_EQ(zelta_next_event(recording.get(), 20'000, &e), ZELTA_OK);
    ASSERT_EQ(e->kind, kind);
  }
  // Where it is told, that comes within milliseconds.
  EXPECT_EQ(zelta_next_event(recording.get(), 500, &e), ZELTA_NO_EVENT);
}

class FloodTest : public CInterfaceTest {};

TEST_F(FloodTest, OfFramesIsDroppedToldAndNothingElseIsLost) {
  zelta_options how = options();
  how.queue_bytes = 100'000;
  const CRecording recording = made(how);
  join(recording, "hello join user:5 pcm:3000 user:6 await:1");
  uint64_t frames = 0;
  uint64_t dropped = 0;
  for (uint32_t last_uid = 0; last_uid != 6;) {
    const zelta_event* e = nullptr;
    ASSERT_EQ(zelta_next_event(recording.get(), 20'000, &e), ZELTA_OK);
    if (e->kind == ZELTA_EVENT_USER_JOINED) last_uid = e->uid;
    if (e->kind == ZELTA_EVENT_DROPPED) {
      dropped += e->as.dropped.audio_frames;
      EXPECT_EQ(e->as.dropped.frames_so_far, dropped);
      EXPECT_EQ(e->as.dropped.other_events, 0U);
      EXPECT_EQ(zelta_event_release(recording.get(), e), ZELTA_OK);
    }
    // Those are kept, so that there must be a first one that doesn't fit.
    if (e->kind != ZELTA_EVENT_AUDIO_FRAME) continue;
    EXPECT_EQ(e->as.audio.time_ms, frames);
    ++frames;
  }
  EXPECT_EQ(frames + dropped, 3000U);
  EXPECT_GT(frames, 40U);
  EXPECT_LT(frames, 52U) << "1,920 bytes each";
}

TEST_F(FloodTest, CopiesInTheCallbackHaveABoundToo) {
  std::vector<int> codes;
  std::promise<void> all;
  OnEvent on_event = [&](zelta_recording* r, const zelta_event& e) {
    const zelta_event* copy = nullptr;
    if (e.kind == ZELTA_EVENT_AUDIO_FRAME) codes.push_back(zelta_event_copy(r, &e, &copy));
    if (e.kind == ZELTA_EVENT_USER_OFFLINE) all.set_value();
  };
  zelta_options how = options(&on_event);
  how.queue_bytes = 5000;
  const CRecording recording = made(how);
  join(recording, "join user:5 pcm:3 drop:5 await:1");
  all.get_future().wait();
  EXPECT_EQ(codes, (std::vector<int>{ZELTA_OK, ZELTA_OK, ZELTA_ERROR_FULL}));
}

}  // namespace
}  // namespace zelta::test
