// SPDX-License-Identifier: Apache-2.0
// A recorder that has gone mad: whatever it sends or does, the application is told in time, nothing
// hangs or leaks, and no pointer leaves its buffer.
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "protocol/ipc_protocol.h"
#include "support/link_fixture.h"

namespace zelta::test {
namespace {

using namespace protocol;
using namespace std::chrono_literals;

std::string bytes_of(const base::packet& packet) {
  base::packer p;
  packet.pack(p);
  return {p.buffer(), p.length()};
}

std::string length(uint32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string user(uint32_t uid) {
  user_joined_packet p;
  p.uid = uid;
  p.info = "/f/";
  return bytes_of(p);
}

std::string picture(uint16_t width, uint16_t height, uint16_t y, uint16_t u, uint16_t v,
                    size_t payload) {
  yuv_frame2 p;
  p.uid = 5;
  p.width = width;
  p.height = height;
  p.ystride = y;
  p.ustride = u;
  p.vstride = v;
  p.data.assign(payload, 'y');
  return bytes_of(p);
}

class HostileRecorder : public LinkTest {
 protected:
  // Says in the log of the test how long a case took to settle.
  static void measured(const std::string& what, Clock::time_point since) {
    std::printf(
        "[ settled ] %5lld ms  %s\n",
        static_cast<long long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count()),
        what.c_str());
  }
  std::string send(const std::string& bytes) {
    return "bytes:" + dir.file("bytes-" + std::to_string(++files_), bytes);
  }

 private:
  int files_ = 0;
};

// What breaks the link is told within a second, what doesn't is skipped; what came before counts.
TEST_F(HostileRecorder, BytesThatMakeNoSenseCostAtMostTheLink) {
  const std::string half = user(7).substr(0, 9);
  const struct {
    const char* name;
    std::string bytes;
    const char* then;
    std::vector<std::string> calls;
  } rows[] = {
      {"length 0", user(1) + length(0), "hang", {"user in 1 /f/", "error 3 8"}},
      {"length 5", user(1) + length(5), "hang", {"user in 1 /f/", "error 3 8"}},
      {"length 64 MiB + 1",
       user(1) + length((64U << 20) + 1),
       "hang",
       {"user in 1 /f/", "error 3 8"}},
      {"length 4 GiB - 1", user(1) + length(0xFFFFFFFF), "hang", {"user in 1 /f/", "error 3 8"}},
      {"noise", user(1) + std::string(5000, '\xA5'), "hang", {"user in 1 /f/", "error 3 8"}},
      {"noise, then an end",
       user(1) + std::string(5000, '\xA5'),
       "exit:0",
       {"user in 1 /f/", "error 3 8"}},
      {"64 MiB announced, then an end",
       user(1) + length(64U << 20) + "abc",
       "exit:0",
       {"user in 1 /f/", "error 3 16"}},
      {"half a packet, then an end", user(1) + half, "exit:0", {"user in 1 /f/", "error 3 16"}},
      {"half a packet, then a closed pipe",
       user(1) + half,
       "close-write hang",
       {"user in 1 /f/", "error 3 16"}},
      {"a leave, then death",
       user(1) + bytes_of(recorder_leave_packet()),
       "kill",
       {"user in 1 /f/", "leave 0", "error 3 16"}},
  };
  const int descriptors = open_descriptors();
  for (const auto& row : rows) {
    handler.clear();
    const auto start = Clock::now();
    ASSERT_EQ(join(send(row.bytes) + " " + row.then), 0);
    ASSERT_TRUE(handler.wait_for("error 3")) << row.name;
    EXPECT_LT(Clock::now() - start, 3s) << row.name;
    measured(row.name, start);
    EXPECT_FALSE(has_children()) << row.name;
    engine.reset();
    EXPECT_EQ(handler.calls(), row.calls) << row.name;
    EXPECT_LE(open_descriptors(), descriptors) << row.name;
  }
}

TEST_F(HostileRecorder, EndsAtAnyStepOfTheStart) {
  hello_packet hello;
  hello.software = "mad";
  const std::string start_up = bytes_of(hello) + user(1);
  for (const size_t sent : {size_t{0}, size_t{1}, size_t{4}, size_t{7}, bytes_of(hello).size(),
                            start_up.size() - 1, start_up.size()}) {
    for (const char* const end : {"exit:0", "exit:7", "kill", "close-write hang"}) {
      handler.clear();
      ASSERT_EQ(join(send(start_up.substr(0, sent)) + " " + end), 0);
      ASSERT_TRUE(handler.wait_for("error 3 16")) << sent << end;
      engine.reset();
      EXPECT_EQ(handler.calls().size(), sent == start_up.size() ? 2U : 1U) << sent << end;
    }
  }
}

// An application may read every byte of the planes that it is given.
TEST_F(HostileRecorder, PicturesWhosePlanesDoNotFitAreRefused) {
  const struct {
    const char* name;
    std::string packet;
    bool delivered;
  } rows[] = {
      {"as it should be", picture(8, 8, 8, 4, 4, 96), true},
      {"more than is needed", picture(8, 8, 8, 4, 4, 1000), true},
      {"no payload", picture(8, 8, 8, 4, 4, 0), true},
      {"a byte short", picture(8, 8, 8, 4, 4, 95), false},
      {"only luma", picture(8, 8, 8, 4, 4, 64), false},
      {"stride below width", picture(8, 8, 7, 4, 4, 96), false},
      {"chroma stride below", picture(8, 8, 8, 3, 4, 96), false},
      {"second chroma stride below", picture(8, 8, 8, 4, 0, 96), false},
      {"second chroma stride beyond", picture(8, 8, 8, 4, 400, 96), false},
      {"everything 65535", picture(65535, 65535, 65535, 65535, 65535, 96), false},
      {"products past 32 bits", picture(2, 65535, 65535, 65535, 65535, 131072), false},
      {"no height", picture(8, 0, 8, 4, 4, 96), true},
      {"odd height", picture(8, 7, 8, 4, 4, 84), true},
      {"odd height, a byte short", picture(8, 7, 8, 4, 4, 83), false},
      {"wide", picture(65535, 2, 65535, 32767, 32767, 196603), false},
      {"wide, with room", picture(65535, 2, 65535, 32768, 32768, 196606), true},
  };
  std::string stream;
  uint32_t expected = 0;
  for (const auto& row : rows) {
    stream += row.packet;
    expected += row.delivered ? 1 : 0;
  }
  bool inside = true;
  ASSERT_EQ(join(send(stream + user(9)) + " await:1"), 0);
  ASSERT_TRUE(handler.wait_for("user in 9"));
  const std::vector<std::string> calls = handler.calls();
  ASSERT_EQ(calls.size(), expected + 1);
  for (const std::string& call : calls) {
    // "yuv UID MS W H YS US VS SIZE Y-AT U-AT V-AT ROTATION"
    unsigned uid = 0;
    unsigned w = 0;
    unsigned h = 0;
    unsigned ys = 0;
    unsigned us = 0;
    unsigned vs = 0;
    size_t size = 0;
    size_t y_at = 0;
    size_t u_at = 0;
    size_t v_at = 0;
    unsigned long long ms = 0;
    if (std::sscanf(call.c_str(), "yuv %u %llu %u %u %u %u %u %zu %zu %zu %zu", &uid, &ms, &w, &h,
                    &ys, &us, &vs, &size, &y_at, &u_at, &v_at) != 11) {
      continue;
    }
    if (size == 0) continue;
    const size_t half = h / 2;
    inside = inside && y_at + size_t{ys} * h <= size && u_at + us * half <= size &&
             v_at + vs * half <= size;
  }
  EXPECT_TRUE(inside);
}

TEST_F(HostileRecorder, SingleBytesArriveAsOnePacketEach) {
  const std::string stream = user(1) + picture(8, 8, 8, 4, 4, 96) + user(2);
  ASSERT_EQ(join("drip:" + dir.file("bytes", stream) + " await:1"), 0);
  ASSERT_TRUE(handler.wait_for("user in 2"));
  EXPECT_EQ(handler.calls().size(), 3U);
}

TEST_F(HostileRecorder, AMillionPacketsHoldUpNeitherEventsNorTheLeave) {
  const auto start = Clock::now();
  ASSERT_EQ(join("user:1 flood:1000000 user:2 flood:100000000"), 0);
  ASSERT_TRUE(handler.wait_for("user in 2"));
  measured("a million packets", start);
  const auto leaving = Clock::now();
  engine->leaveChannel();
  EXPECT_LT(Clock::now() - leaving, 3s) << "while it floods on";
  engine.reset();
  measured("leave and release in the middle of a flood", leaving);
  EXPECT_EQ(handler.count("error"), 0);
  EXPECT_FALSE(has_children());
}

TEST_F(HostileRecorder, GrandchildThatHoldsThePipesDoesNotHideAnEnd) {
  const std::string until = dir.path() + "until";
  ASSERT_EQ(mkfifo(until.c_str(), 0600), 0);
  setenv("FAKE_GRANDCHILD_ENDS", until.c_str(), 1);
  const auto start = Clock::now();
  ASSERT_EQ(join("user:1 grandchild user:2 kill"), 0);
  EXPECT_TRUE(handler.wait_for("error 3 16"));
  EXPECT_LT(Clock::now() - start, 3s);
  measured("a grandchild that holds the pipes", start);
  engine.reset();
  EXPECT_EQ(handler.calls().size(), 3U);
  EXPECT_FALSE(has_children());
  // Opening it lets the grandchild go on, and end.
  const int end = open(until.c_str(), O_WRONLY);
  close(end);
  unsetenv("FAKE_GRANDCHILD_ENDS");
}

// Half a packet and then nothing is no error: more may come. The application can leave all the
// same.
TEST_F(HostileRecorder, SilenceInTheMiddleOfAPacketDoesNotKeepTheApplication) {
  const std::string large = picture(640, 360, 640, 320, 320, 345'600);
  ASSERT_EQ(join(send(user(1) + large.substr(0, 300'000)) + " await:1"), 0);
  ASSERT_TRUE(handler.wait_for("user in 1"));
  const auto leaving = Clock::now();
  engine->leaveChannel();
  engine.reset();
  EXPECT_LT(Clock::now() - leaving, 3s);
  measured("leave after half a packet", leaving);
  EXPECT_EQ(handler.calls().size(), 1U);
}

}  // namespace
}  // namespace zelta::test
