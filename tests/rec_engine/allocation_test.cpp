// SPDX-License-Identifier: Apache-2.0
// The frame path from the pipe to the callback, and waiting, allocate nothing once warm. A program
// of its own, because it counts every allocation of the process.
#include <gtest/gtest.h>

#include "base/event_loop.h"
#include "link/packet_reader.h"
#include "support/counted_new.h"
#include "support/engine_probe.h"
#include "support/packets.h"
#include "support/pipe.h"

namespace zelta::test {
namespace {

class CountingHandler : public RecordingHandler {
 public:
  void audioFrameReceived(unsigned int, const AudioFrame*) override { ++frames; }
  void videoFrameReceived(unsigned int, const VideoFrame*) override { ++frames; }
  size_t frames = 0;
};

class ToEngine : public link::packet_reader::receiver {
 public:
  explicit ToEngine(EngineProbe& engine) : engine_(engine) {}
  void on_packet(base::unpacker& u, uint16_t uri) override { engine_.on_receive_packet(u, uri); }

 private:
  EngineProbe& engine_;
};

TEST(FramePath, AllocatesNothingOnceWarm) {
  CountingHandler handler;
  FakeRouter::Seen router;
  EngineProbe engine("app", &handler, std::make_unique<FakeRouter>(router).release());
  constexpr uint32_t kUsers = 100;
  for (uint32_t uid = 0; uid < kUsers; ++uid) engine.on_user_joined(uid, "/folder/");

  const Pipe pipe;
  ToEngine to(engine);
  link::packet_reader reader(pipe.read.get(), to);

  // Pictures of two sizes, coded pictures of many, and sound, of users in turn.
  std::string stream;
  size_t frames = 0;
  const auto add = [&](auto frame, uint32_t uid, size_t bytes) {
    frame.uid = uid;
    frame.data.assign(bytes, 'p');
    stream += bytes_of(frame);
    ++frames;
  };
  for (uint32_t i = 0; i < 4 * kUsers; ++i) {
    const uint32_t uid = i % kUsers;
    add(protocol::pcm_frame(), uid, 1920);
    add(protocol::aac_frame(), uid, 300);
    add(protocol::h264_frame2(), uid, 2000 + 37'000 * i % 90'000);
    if (i % 10 == 0) add(protocol::yuv_frame2(), uid, i % 20 == 0 ? 1'382'400 : 345'600);
    if (i % 10 == 5) add(protocol::jpg_frame(), uid, 60'000);
  }
  const auto play = [&] {
    for (size_t at = 0; at < stream.size();) {
      const ssize_t put = ::write(pipe.write.get(), stream.data() + at, stream.size() - at);
      ASSERT_GT(put, 0);
      at += static_cast<size_t>(put);
      ASSERT_EQ(reader.read_some(1 << 20), link::packet_reader::result::kEmpty);
    }
  };
  play();
  play();
  const size_t warm = allocations();
  ASSERT_GT(warm, 0U) << "they are counted";
  play();
  EXPECT_EQ(allocations() - warm, 0U);
  EXPECT_EQ(handler.frames, 3 * frames);
  EXPECT_EQ(engine.stats_.errPackets, 0U);
}

// An engine that is joined and gets nothing ticks all the same.
TEST(FramePath, TicksAllocateNothingOnceWarm) {
  struct ticks {
    base::event_loop loop;
    size_t seen = 0;
    size_t warm = 0;
    size_t last = 0;
  } run;
  run.loop.add_timer(
      1,
      [](int, void* context) {
        auto& to = *static_cast<ticks*>(context);
        if (++to.seen == 3) to.warm = allocations();
        if (to.seen < 10) return;
        to.last = allocations();
        to.loop.stop();
      },
      &run);
  run.loop.run(false);
  EXPECT_EQ(run.last - run.warm, 0U);
}

}  // namespace
}  // namespace zelta::test
