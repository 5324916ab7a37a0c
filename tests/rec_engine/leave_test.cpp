// SPDX-License-Identifier: Apache-2.0
// A leave is the recorder's when the engine thread has ended, whatever was sent just before it.
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>

#include "link/pipe_router.h"
#include "support/engine_probe.h"
#include "support/folder_watch.h"
#include "support/link_fixture.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

class LeaveTest : public LinkTest {
 protected:
  LeaveTest() {
    config.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE;
    config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
  }
  // The recorder's last steps, and whether it comes to them: they stand behind its wait for a
  // leave. It may take its time with what was sent before; nothing but a release would send a leave
  // that is kept back, however long that is waited for.
  std::string leaves(int number = 0) const { return "await:1 facts:" + left(number); }
  bool has_left(int number = 0) const {
    return wait_in_folder(dir.path(), 5s, [&] { return !read_file(left(number)).empty(); });
  }
  std::string left(int number) const { return dir.path() + "left" + std::to_string(number); }
  std::string gate() const {
    std::string path = dir.path() + "gate";
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    return path;
  }
  static void open_gate(const std::string& path) { close(open(path.c_str(), O_WRONLY)); }
};

// Every fourth tick reports first, and a packet that follows another closely must not be kept back.
TEST_F(LeaveTest, OnAnyTickIsWithTheRecorderWhenTheCallReturns) {
  constexpr int kTicks = 8;
  std::array<RecordingHandler, kTicks> handlers;
  std::vector<std::unique_ptr<EngineProbe, Releaser>> engines;
  for (int tick = 0; tick < kTicks; ++tick) {
    setenv("FAKE_RECORDER", ("join user:5 " + leaves(tick)).c_str(), 1);
    auto& handler_of_tick = handlers.at(static_cast<size_t>(tick));
    engines.emplace_back(new EngineProbe("app", &handler_of_tick, new base::pipe_router(true)));
    engines.back()->loopCnt_ = static_cast<uint32_t>(tick);
    ASSERT_EQ(engines.back()->joinChannel("key", "room", 1, config), 0);
    ASSERT_TRUE(handler_of_tick.wait_for("user in 5"));
  }
  std::vector<std::thread> leavers;
  for (const auto& one : engines) leavers.emplace_back([&one] { one->leaveChannel(); });
  for (std::thread& one : leavers) one.join();
  for (int tick = 0; tick < kTicks; ++tick) EXPECT_TRUE(has_left(tick)) << "tick " << tick + 1;
}

TEST_F(LeaveTest, FromInsideACallbackIsSentWithoutTheRelease) {
  const std::string fifo = gate();
  const struct {
    std::string script;
    const char* callback;
    std::function<void()> call;
  } rows[] = {
      {"join user:5 ", "user in 5", [this] { callable.load()->leaveChannel(); }},
      {"join error ", "error 1 2", [this] { callable.load()->stoppedOnError(); }},
      // A recorder that begins to read when the loop has been told to stop.
      {"join user:5 gate:" + fifo + " ", "user in 5",
       [&, this] {
         send_layouts(*callable.load(), 3);
         callable.load()->leaveChannel();
         open_gate(fifo);
       }},
  };
  int number = 0;
  for (const auto& row : rows) {
    handler.also = [&](const std::string& call) {
      if (call.rfind(row.callback, 0) != 0) return;
      callable.load()->setUserBackground(5, "a.png");
      row.call();
    };
    ASSERT_TRUE(join(row.script + leaves(++number), row.callback));
    EXPECT_TRUE(has_left(number)) << row.script;
    engine.reset();
    handler.also = nullptr;
  }
}

TEST_F(LeaveTest, ThatARecorderDoesNotReadIsToldAndKeptForTheRelease) {
  const std::string fifo = gate();
  ASSERT_TRUE(join("join gate:" + fifo + " " + leaves(), "joined"));
  send_layouts(*engine, 3);
  engine->leaveChannel();
  EXPECT_TRUE(log_matches(" error ipc .* bytes for the recorder could not be written"));
  open_gate(fifo);
  engine.reset();
  EXPECT_FALSE(read_file(left(0)).empty());
}

}  // namespace
}  // namespace zelta::test
