// SPDX-License-Identifier: Apache-2.0
// What wrong uses of the C interface get, and structs of older and newer headers.
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include <poll.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include "c_interface/configuration.h"
#include "support/c_recording.h"

namespace zelta::test {
namespace {

class WrongUsesTest : public CInterfaceTest {};

TEST_F(WrongUsesTest, GetACodeAndADetail) {
  OnEvent ignore = [](zelta_recording*, const zelta_event&) {};
  const CRecording fresh = made();
  const CRecording joined = made();
  const CRecording left = made();
  const CRecording called = made(options(&ignore));
  join(joined, "join await:1");
  join(left, "join await:1");
  ASSERT_EQ(zelta_recording_leave(left.get()), ZELTA_OK);
  const CRecording finished = made();
  ASSERT_EQ(zelta_recording_finish(finished.get()), ZELTA_OK);
  zelta_recording* const gone = made().release();
  ASSERT_EQ(zelta_recording_release(gone), ZELTA_OK);

  zelta_recording* out = nullptr;
  const zelta_event* event = nullptr;
  int fd = -1;
  char text[8];
  const zelta_event foreign{};
  zelta_layout layout{};
  layout.size = sizeof layout;
  const auto created = [&out](auto change) {
    zelta_options how = options();
    change(how);
    return zelta_recording_create(&how, &out);
  };
  const auto joins = [this, &fresh](auto change) {
    zelta_config changed = config;
    change(changed);
    return zelta_recording_join(fresh.get(), nullptr, "room", 0, &changed);
  };
  const auto join_of = [this](zelta_recording* r, const char* channel) {
    return zelta_recording_join(r, nullptr, channel, 0, &config);
  };
  const auto lays = [&joined, &layout](auto change) {
    zelta_layout changed = layout;
    change(changed);
    return zelta_recording_set_layout(joined.get(), &changed);
  };
  const auto shows = [&lays](auto change) {
    return lays([&change](auto& l) {
      static zelta_region region;
      region = {1, 0, 0, 0, 1, 1, 1};
      change(region);
      l.region_count = 1;
      l.region_size = sizeof region;
      l.regions = &region;
    });
  };
  zelta_recording* const j = joined.get();
  const struct {
    int code;
    zelta_recording* of;  // whose detail it is
    const char* detail;   // a part of it
    std::function<int()> call;
  } rows[] = {
      {ZELTA_ERROR_ARGUMENT, nullptr, "options is null",
       [&] { return zelta_recording_create(nullptr, &out); }},
      {ZELTA_ERROR_ARGUMENT, nullptr, "recording is null",
       [&] {
         const zelta_options how = options();
         return zelta_recording_create(&how, nullptr);
       }},
      {ZELTA_ERROR_STRUCT_SIZE, nullptr, "options.size is 8, it should be a multiple of 8, 16",
       [&] { return created([](auto& o) { o.size = 8; }); }},
      {ZELTA_ERROR_STRUCT_SIZE, nullptr, "options.size is 36",
       [&] { return created([](auto& o) { o.size = 36; }); }},
      {ZELTA_ERROR_STRUCT_SIZE, nullptr, "options.size is 4104",
       [&] { return created([](auto& o) { o.size = 4104; }); }},
      {ZELTA_ERROR_ARGUMENT, nullptr, "app_id is null or empty",
       [&] { return created([](auto& o) { o.app_id = ""; }); }},
      {ZELTA_ERROR_ARGUMENT, nullptr, "options.delivery is 2, it should be 0 to 1",
       [&] { return created([](auto& o) { o.delivery = 2; }); }},
      {ZELTA_ERROR_ARGUMENT, nullptr, "options.callback is null",
       [&] { return created([](auto& o) { o.delivery = ZELTA_DELIVERY_CALLBACK; }); }},
      {ZELTA_ERROR_ARGUMENT, nullptr, "options.callback is set",
       [&] { return created([&](auto& o) { o.callback = options(&ignore).callback; }); }},
      {ZELTA_ERROR_ARGUMENT, nullptr, "queue_bytes",
       [&] { return created([](auto& o) { o.queue_bytes = UINT64_MAX; }); }},

      {ZELTA_ERROR_HANDLE, nullptr, "null", [&] { return zelta_recording_leave(nullptr); }},
      {ZELTA_ERROR_HANDLE, nullptr, "released", [&] { return zelta_recording_leave(gone); }},
      {ZELTA_ERROR_HANDLE, nullptr, "released", [&] { return zelta_recording_release(gone); }},
      {ZELTA_ERROR_HANDLE, nullptr, "released", [&] { return join_of(gone, "room"); }},
      {ZELTA_ERROR_HANDLE, nullptr, "released", [&] { return zelta_next_event(gone, 0, &event); }},

      {ZELTA_ERROR_ARGUMENT, fresh.get(), "channel_id is null",
       [&] { return join_of(fresh.get(), nullptr); }},
      {ZELTA_ERROR_ARGUMENT, fresh.get(), "length of channel_id is 65, it should be 1 to 64",
       [&] { return join_of(fresh.get(), std::string(65, 'c').c_str()); }},
      {ZELTA_ERROR_STRUCT_SIZE, fresh.get(), "config.size is 0",
       [&] { return joins([](auto& c) { c.size = 0; }); }},
      {ZELTA_ERROR_ARGUMENT, fresh.get(), "is_mixing_enabled is 2, it should be 0 to 1",
       [&] { return joins([](auto& c) { c.is_mixing_enabled = 2; }); }},
      {ZELTA_ERROR_ARGUMENT, fresh.get(), "decode_video is -1, it should be 0 to 5",
       [&] { return joins([](auto& c) { c.decode_video = -1; }); }},
      {ZELTA_ERROR_ARGUMENT, fresh.get(), "idle_limit_sec is 2",
       [&] { return joins([](auto& c) { c.idle_limit_sec = 2; }); }},
      {ZELTA_ERROR_ARGUMENT, fresh.get(), "reserved is 1",
       [&] { return joins([](auto& c) { c.reserved = 1; }); }},
      {ZELTA_ERROR_CONFIGURATION, fresh.get(), "mixed_video_audio is 1, it should be 0 unless",
       [&] { return joins([](auto& c) { c.mixed_video_audio = 1; }); }},
      {ZELTA_ERROR_ARGUMENT, fresh.get(), "mix_resolution is \"640x360\", it should be four",
       [&] {
         return joins([](auto& c) {
           c.is_mixing_enabled = 1;
           c.mix_resolution = "640x360";
         });
       }},
      {ZELTA_ERROR_CONFIGURATION, fresh.get(), "refused",
       [&] { return joins([](auto& c) { c.is_audio_only = c.is_video_only = 1; }); }},
      {ZELTA_ERROR_REFUSED, fresh.get(), "refused",
       [&] { return joins([](auto& c) { c.applite_dir = "/nonexistent"; }); }},

      {ZELTA_ERROR_NOT_JOINED, fresh.get(), "before",
       [&] { return zelta_recording_leave(fresh.get()); }},
      {ZELTA_ERROR_NOT_JOINED, fresh.get(), "before",
       [&] { return zelta_recording_set_layout(fresh.get(), &layout); }},
      {ZELTA_ERROR_NOT_JOINED, fresh.get(), "no folder",
       [&] { return zelta_recording_folder(fresh.get(), text, sizeof text); }},
      {ZELTA_ERROR_JOINED, j, "joins once", [&] { return join_of(j, "room"); }},
      {ZELTA_ERROR_ARGUMENT, j, "", [&] { return zelta_error_detail(j, nullptr, sizeof text); }},
      {ZELTA_ERROR_ARGUMENT, j, "the buffer has 8 bytes, it should have",
       [&] { return zelta_recording_folder(j, text, sizeof text); }},
      {ZELTA_ERROR_REFUSED, j, "a start was refused",
       [&] { return zelta_recording_start_service(j); }},
      {ZELTA_ERROR_ARGUMENT, j, "level is 7, it should be 1 to 6",
       [&] { return zelta_recording_set_log_level(j, 7); }},
      {ZELTA_ERROR_ARGUMENT, j, "layout is null",
       [&] { return zelta_recording_set_layout(j, nullptr); }},
      {ZELTA_ERROR_ARGUMENT, j, "layout.regions is null",
       [&] { return lays([](auto& l) { l.region_count = 1; }); }},
      {ZELTA_ERROR_STRUCT_SIZE, j, "layout.region_size is 0",
       [&] {
         const zelta_region region{};
         return lays([&region](auto& l) {
           l.region_count = 1;
           l.regions = &region;
         });
       }},
      {ZELTA_ERROR_ARGUMENT, j, "layout.app_data_bytes is 1048577, it should be 0 to 1048576",
       [&] {
         return lays([](auto& l) {
           l.app_data_bytes = (1 << 20) + 1;
           l.app_data = &l;
         });
       }},
      {ZELTA_ERROR_ARGUMENT, j, "background_color is \"#12345g\", it should be \"#rrggbb\"",
       [&] { return lays([](auto& l) { l.background_color = "#12345g"; }); }},
      {ZELTA_ERROR_ARGUMENT, j, "region 0.x is nan, it should be -2 to 2",
       [&] { return shows([](auto& r) { r.x = std::nan(""); }); }},
      {ZELTA_ERROR_ARGUMENT, j, "region 0.height is 2.5",
       [&] { return shows([](auto& r) { r.height = 2.5; }); }},
      {ZELTA_ERROR_ARGUMENT, j, "region 0.width is -0.1",
       [&] { return shows([](auto& r) { r.width = -0.1; }); }},
      {ZELTA_ERROR_ARGUMENT, j, "region 0.alpha is 1.500000, it should be 0 to 1",
       [&] { return shows([](auto& r) { r.alpha = 1.5; }); }},
      {ZELTA_ERROR_ARGUMENT, j, "region 0.render_mode is 2, it should be 0 to 1",
       [&] { return shows([](auto& r) { r.render_mode = 2; }); }},

      {ZELTA_ERROR_ARGUMENT, j, "event is null", [&] { return zelta_next_event(j, 0, nullptr); }},
      {ZELTA_ERROR_ARGUMENT, j, "timeout_ms is -2",
       [&] { return zelta_next_event(j, -2, &event); }},
      {ZELTA_ERROR_ARGUMENT, j, "fd is null", [&] { return zelta_event_fd(j, nullptr); }},
      {ZELTA_ERROR_UNKNOWN_EVENT, j, "no copy", [&] { return zelta_event_release(j, &foreign); }},
      {ZELTA_ERROR_UNKNOWN_EVENT, j, "not lent",
       [&] { return zelta_event_copy(j, &foreign, &event); }},
      {ZELTA_ERROR_NO_QUEUE, called.get(), "by callback",
       [&] { return zelta_next_event(called.get(), 0, &event); }},
      {ZELTA_ERROR_NO_QUEUE, called.get(), "by callback",
       [&] { return zelta_event_fd(called.get(), &fd); }},

      {ZELTA_ERROR_LEFT, left.get(), "left before",
       [&] { return zelta_recording_leave(left.get()); }},
      {ZELTA_ERROR_LEFT, left.get(), "joins no more", [&] { return join_of(left.get(), "room"); }},
      {ZELTA_ERROR_LEFT, left.get(), "after the leave",
       [&] { return zelta_recording_set_user_background(left.get(), 1, nullptr); }},

      {ZELTA_ERROR_HANDLE, nullptr, "released", [&] { return zelta_recording_finish(gone); }},
      {ZELTA_ERROR_LEFT, finished.get(), "joins no more",
       [&] { return join_of(finished.get(), "room"); }},
      {ZELTA_ERROR_LEFT, finished.get(), "after the finish",
       [&] { return zelta_recording_set_log_level(finished.get(), ZELTA_LOG_INFO); }},
      {ZELTA_ERROR_NOT_JOINED, finished.get(), "before",
       [&] { return zelta_recording_start_service(finished.get()); }},
      {ZELTA_ERROR_NOT_JOINED, finished.get(), "before",
       [&] { return zelta_recording_leave(finished.get()); }},
      {ZELTA_ERROR_NOT_JOINED, finished.get(), "no folder",
       [&] { return zelta_recording_folder(finished.get(), text, sizeof text); }},
  };
  int number = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE("row " + std::to_string(number++));
    EXPECT_EQ(row.call(), row.code) << row.detail;
    EXPECT_NE(detail(row.of).find(row.detail), std::string::npos) << detail(row.of);
    EXPECT_STRNE(zelta_error_text(row.code), zelta_error_text(12345));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(event, nullptr);
  }
  // None of them was one too many: what is right is still done.
  join(fresh, "join await:1");
}

TEST_F(WrongUsesTest, InsideACallbackGetCodes) {
  std::promise<std::array<int, 7>> codes;
  int events = 0;
  OnEvent on_event = [&](zelta_recording* r, const zelta_event& e) {
    if (++events > 1) return;
    codes.set_value({zelta_recording_join(r, nullptr, "room", 0, nullptr),
                     zelta_recording_finish(r), zelta_recording_release(r),
                     zelta_event_release(r, &e), zelta_recording_set_user_background(r, 1, nullptr),
                     zelta_recording_leave(r), zelta_recording_leave(r)});
  };
  const CRecording recording = made(options(&on_event));
  join(recording, "join user:5 user:6 await:1");
  EXPECT_EQ(
      codes.get_future().get(),
      (std::array<int, 7>{ZELTA_ERROR_IN_CALLBACK, ZELTA_ERROR_IN_CALLBACK, ZELTA_ERROR_IN_CALLBACK,
                          ZELTA_ERROR_UNKNOWN_EVENT, ZELTA_OK, ZELTA_OK, ZELTA_ERROR_LEFT}));
  EXPECT_EQ(zelta_recording_leave(recording.get()), ZELTA_OK) << "waits for the one of above";
  EXPECT_EQ(events, 1) << "none came after it had left";
  EXPECT_EQ(zelta_recording_leave(recording.get()), ZELTA_ERROR_LEFT);
}

TEST_F(WrongUsesTest, WhoWaitsForAnEventOfAReleasedRecordingIsTold) {
  CRecording recording = made();
  join(recording, "await:1");
  zelta_recording* const handle = recording.get();
  auto waiting = std::async(std::launch::async, [handle] {
    const zelta_event* event = nullptr;
    return zelta_next_event(handle, -1, &event);
  });
  recording.reset();
  EXPECT_EQ(waiting.get(), ZELTA_ERROR_HANDLE);
}

TEST_F(WrongUsesTest, WhoPollsIsWokenByARelease) {
  CRecording recording = made();
  join(recording, "await:1");
  int fd = -1;
  ASSERT_EQ(zelta_event_fd(recording.get(), &fd), ZELTA_OK);
  const int kept = dup(fd);  // of the same queue, though the recording closes its own
  recording.reset();
  pollfd waited{kept, POLLIN, 0};
  EXPECT_EQ(poll(&waited, 1, 0), 1);
  close(kept);
}

TEST_F(WrongUsesTest, ToAskForADetailChangesNone) {
  zelta_recording* const gone = made().release();
  ASSERT_EQ(zelta_recording_release(gone), ZELTA_OK);
  EXPECT_EQ(zelta_recording_create(nullptr, nullptr), ZELTA_ERROR_ARGUMENT);
  const std::string before = detail(nullptr);
  char text[] = "as it is";
  EXPECT_EQ(zelta_error_detail(gone, text, sizeof text), ZELTA_ERROR_HANDLE);
  EXPECT_STREQ(text, "as it is");
  EXPECT_EQ(detail(nullptr), before);
}

// Whose finalizers would end the parent's recordings.
TEST_F(WrongUsesTest, AChildOfAForkReachesNoRecordingOfItsParent) {
  const CRecording recording = made();
  join(recording, "join await:1");
  const pid_t child = fork();
  if (child == 0) {
    const zelta_event* event = nullptr;
    const bool refused = zelta_recording_release(recording.get()) == ZELTA_ERROR_HANDLE &&
                         zelta_next_event(recording.get(), 0, &event) == ZELTA_ERROR_HANDLE;
    _exit(refused ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(zelta_recording_set_user_background(recording.get(), 1, nullptr), ZELTA_OK);
}

TEST_F(WrongUsesTest, ACancelledThreadLeavesItsFunctionFirst) {
  CRecording recording = made();
  join(recording, "await:1");
  pthread_t waiting{};
  const auto wait = [](void* of) -> void* {
    const zelta_event* event = nullptr;
    zelta_next_event(static_cast<zelta_recording*>(of), -1, &event);
    pthread_testcancel();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&waiting, nullptr, wait, recording.get()), 0);
  ASSERT_EQ(pthread_cancel(waiting), 0);
  recording.reset();
  void* ended = nullptr;
  ASSERT_EQ(pthread_join(waiting, &ended), 0);
  EXPECT_EQ(ended, PTHREAD_CANCELED);
}

TEST_F(WrongUsesTest, NothingComesAfterALeaveFromInsideThatFoundAnotherOne) {
  std::promise<void> inside;
  std::promise<int> inner;
  std::atomic<int> events{0};
  OnEvent on_event = [&](zelta_recording* r, const zelta_event&) {
    if (++events > 1) return;
    inside.set_value();
    // Until the other one has begun, which nothing else tells.
    while (zelta_recording_set_user_background(r, 1, nullptr) != ZELTA_ERROR_LEFT) {
      std::this_thread::yield();
    }
    inner.set_value(zelta_recording_leave(r));
  };
  const CRecording recording = made(options(&on_event));
  join(recording, "join user:5 user:6 user:7 await:1");
  inside.get_future().wait();
  EXPECT_EQ(zelta_recording_leave(recording.get()), ZELTA_OK);
  EXPECT_EQ(inner.get_future().get(), ZELTA_ERROR_LEFT);
  EXPECT_EQ(events, 1);
}

// ---- Structs of other headers --------------------------------------------------------------

// Two of these are what a newer header might have.
template <class Struct>
struct newer {
  Struct known{};
  uint64_t more = 0;
};

TEST(Structs, OfOlderHeadersEndInZerosAndOfNewerOnesMustNot) {
  newer<zelta_config> given;
  zelta_config& c = given.known;
  c.idle_limit_sec = 7;
  c.mix_resolution = const_cast<char*>("1,1,1,1");
  c.proxy_server = reinterpret_cast<const char*>(1);  // never looked at by the older one
  const struct {
    size_t size;
    uint64_t more;
    int code;
  } rows[] = {
      {offsetof(zelta_config, proxy_server), 5, ZELTA_OK},
      {sizeof(zelta_config), 5, ZELTA_OK},
      {sizeof given, 0, ZELTA_OK},
      {sizeof given, 5, ZELTA_ERROR_UNKNOWN_FIELD},
      {sizeof given, uint64_t{1} << 63, ZELTA_ERROR_UNKNOWN_FIELD},
  };
  for (const auto& row : rows) {
    c.size = static_cast<uint32_t>(row.size);
    given.more = row.more;
    recording::RecordingConfig read;
    const c_interface::outcome done = c_interface::read_config(&c, read);
    EXPECT_EQ(done.code, row.code) << row.size << " " << done.detail;
    if (done.code != ZELTA_OK) continue;
    EXPECT_EQ(read.idleLimitSec, 7);
    EXPECT_STREQ(read.mixResolution, "1,1,1,1");
    EXPECT_EQ(read.proxyServer != nullptr, row.size >= sizeof(zelta_config)) << row.size;
  }
}

TEST(Structs, ZeroIsTheDefaultOfAllMembers) {
  const recording::RecordingConfig standard;
  recording::RecordingConfig read;
  read.idleLimitSec = read.captureInterval = 1;
  ASSERT_EQ(c_interface::read_config(nullptr, read).code, ZELTA_OK);
  EXPECT_EQ(read.idleLimitSec, standard.idleLimitSec);
  EXPECT_EQ(read.captureInterval, standard.captureInterval);
}

TEST(Structs, EachMemberReachesItsOwn) {
  zelta_config c{};
  c.size = sizeof c;
  // Numbers that are in range for all that follow each other, and texts that tell their place.
  c.is_mixing_enabled = c.trigger_mode = c.lang = 1;
  c.mixed_video_audio = c.audio_profile = 2;
  c.decode_video = 4;
  c.decode_audio = 3;
  c.low_udp_port = 1000;
  c.high_udp_port = 2000;
  c.idle_limit_sec = 30;
  c.capture_interval = 40;
  c.audio_indication_interval = 50;
  c.channel_profile = 1;
  c.stream_type = 1;
  const char* const names[] = {"1,2,3,4", "b", "c", "d", "e", "f", "g", "h", "i"};
  std::memcpy(&c.mix_resolution, names, sizeof names);
  recording::RecordingConfig r;
  ASSERT_EQ(c_interface::read_config(&c, r).code, ZELTA_OK);
  EXPECT_EQ(
      (std::vector<int>{r.isAudioOnly, r.isVideoOnly, r.isMixingEnabled, r.mixedVideoAudio,
                        r.decodeVideo, r.decodeAudio, r.lowUdpPort, r.highUdpPort, r.idleLimitSec,
                        r.captureInterval, r.audioIndicationInterval, r.channelProfile,
                        r.streamType, r.triggerMode, r.lang, r.audioProfile}),
      (std::vector<int>{0, 0, 1, 2, 4, 3, 1000, 2000, 30, 40, 50, 1, 1, 1, 1, 2}));
  std::string texts;
  for (const char* text :
       {r.mixResolution, r.decryptionMode, r.secret, r.appliteDir, r.recordFileRootDir,
        r.cfgFilePath, r.proxyServer, r.defaultVideoBg, r.defaultUserBg}) {
    texts += text;
  }
  EXPECT_EQ(texts, "1,2,3,4bcdefghi");
  c.is_video_only = 1;
  c.mixed_video_audio = 0;
  ASSERT_EQ(c_interface::read_config(&c, r).code, ZELTA_OK);
  EXPECT_EQ((std::pair{r.isAudioOnly, r.isVideoOnly}), (std::pair{false, true}));
}

TEST(Structs, RegionsOfANewerHeaderAreReadOneByOne) {
  std::array<newer<zelta_region>, 2> regions;
  regions[0].known = {1, 1, 0.1, 0.2, 0.3, 0.4, 0.5};
  regions[1].known = {2, 0, 0, 0, 1, 1, 1};
  zelta_layout l{};
  l.size = sizeof l;
  l.region_size = sizeof regions[0];
  l.region_count = 2;
  l.canvas_width = 640;
  l.canvas_height = 360;
  l.regions = &regions[0].known;
  recording::VideoMixingLayout layout;
  std::vector<recording::VideoMixingLayout::Region> read;
  ASSERT_EQ(c_interface::read_layout(&l, layout, read).code, ZELTA_OK);
  ASSERT_EQ(layout.regionCount, 2U);
  EXPECT_EQ((std::pair{layout.canvasWidth, layout.canvasHeight}), (std::pair{640, 360}));
  const auto& r = layout.regions[0];
  EXPECT_EQ((std::array<double, 7>{double(r.uid), double(r.renderMode), r.x, r.y, r.width, r.height,
                                   r.alpha}),
            (std::array<double, 7>{1, 1, 0.1, 0.2, 0.3, 0.4, 0.5}));
  EXPECT_EQ(layout.regions[1].uid, 2U);
  regions[1].more = 1;
  const c_interface::outcome refused = c_interface::read_layout(&l, layout, read);
  EXPECT_EQ(refused.code, ZELTA_ERROR_UNKNOWN_FIELD);
  EXPECT_NE(refused.detail.find("region 1 has something set at byte 48"), std::string::npos);
}

}  // namespace
}  // namespace zelta::test
