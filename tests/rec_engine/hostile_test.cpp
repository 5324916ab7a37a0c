// SPDX-License-Identifier: Apache-2.0
// A recorder that has gone mad: whatever it sends or does, the application is told in time, nothing
// hangs or leaks, and no pointer leaves its buffer.
#include <cstdio>
#include <iterator>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>

#include "support/link_fixture.h"
#include "support/packets.h"

namespace zelta::test {
namespace {

using namespace protocol;
using namespace std::chrono_literals;

std::string user(uint32_t uid) {
  return bytes_with<user_joined_packet>(uid, "/f/");
}

std::string picture(int width, int height, int y, int u, int v, size_t payload) {
  return bytes_with<yuv_frame2>(0, 5U, 0, width, height, y, u, v, std::string(payload, 'y'), 0);
}

class HostileRecorder : public LinkTest {
 protected:
  // Says in the log of the test how long a case took to settle.
  static void measured(const std::string& what, Clock::time_point since) {
    const std::chrono::duration<double, std::milli> ms = Clock::now() - since;
    std::printf("[ settled ] %5.0f ms  %s\n", ms.count(), what.c_str());
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
  const std::string noise(5000, '\xA5');
  const struct {
    const char* name;
    std::string bytes;  // behind a user who joins
    const char* then;
    std::vector<std::string> calls;
  } rows[] = {
      {"length 0", length_prefix(0), "hang", {"error 3 8"}},
      {"length 5", length_prefix(5), "hang", {"error 3 8"}},
      {"length 64 MiB + 1", length_prefix((64U << 20) + 1), "hang", {"error 3 8"}},
      {"length 4 GiB - 1", length_prefix(0xFFFFFFFF), "hang", {"error 3 8"}},
      {"noise", noise, "hang", {"error 3 8"}},
      {"noise, then an end", noise, "exit:0", {"error 3 8"}},
      {"64 MiB, then an end", length_prefix(64U << 20) + "abc", "exit:0", {"error 3 16"}},
      {"half a packet, then an end", half, "exit:0", {"error 3 16"}},
      {"half a packet, then a closed pipe", half, "close-write hang", {"error 3 16"}},
      {"a leave, then death", bytes_of(recorder_leave_packet()), "kill", {"leave 0", "error 3 16"}},
  };
  const int descriptors = open_descriptors();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto start = Clock::now();
    ASSERT_TRUE(join(send(user(1) + row.bytes) + " " + row.then, "error 3"));
    EXPECT_LT(Clock::now() - start, 3s);
    measured(row.name, start);
    EXPECT_FALSE(has_children());
    engine.reset();
    std::vector<std::string> calls = row.calls;
    calls.insert(calls.begin(), "user in 1 /f/");
    EXPECT_EQ(handler.calls(), calls);
    EXPECT_LE(open_descriptors(), descriptors);
  }
}

TEST_F(HostileRecorder, EndsAtAnyStepOfTheStart) {
  const std::string hello = bytes_with<hello_packet>(kProtocolVersion, "mad");
  const std::string start_up = hello + user(1);
  for (const size_t sent : {size_t{0}, size_t{1}, size_t{4}, size_t{7}, hello.size(),
                            start_up.size() - 1, start_up.size()}) {
    for (const char* const end : {"exit:0", "exit:7", "kill", "close-write hang"}) {
      ASSERT_TRUE(join(send(start_up.substr(0, sent)) + " " + end, "error 3 16")) << sent << end;
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
  ASSERT_TRUE(join(send(stream + user(9)) + " await:1", "user in 9"));
  const std::vector<std::string> calls = handler.calls();
  ASSERT_EQ(calls.size(), expected + 1);
  for (const std::string& call : calls) {
    // UID MS WIDTH HEIGHT, three strides, SIZE, where three planes are
    std::istringstream line(call.rfind("yuv ", 0) == 0 ? call.substr(4) : "");
    const std::vector<size_t> all(std::istream_iterator<size_t>(line), {});
    const size_t size = all.empty() ? 0 : all.at(7);
    for (size_t plane = 0; size > 0 && plane < 3; ++plane) {
      const size_t rows_of_plane = plane == 0 ? all.at(3) : all.at(3) / 2;
      EXPECT_LE(all.at(8 + plane) + all.at(4 + plane) * rows_of_plane, size) << call;
    }
  }
}

TEST_F(HostileRecorder, SingleBytesArriveAsOnePacketEach) {
  const std::string stream = user(1) + picture(8, 8, 8, 4, 4, 96) + user(2);
  ASSERT_TRUE(join("drip:" + dir.file("bytes", stream) + " await:1", "user in 2"));
  EXPECT_EQ(handler.calls().size(), 3U);
}

TEST_F(HostileRecorder, AMillionPacketsHoldUpNeitherEventsNorTheLeave) {
  const auto start = Clock::now();
  ASSERT_TRUE(join("user:1 flood:1000000 user:2 flood:100000000", "user in 2"));
  measured("a million packets", start);
  const auto leaving = Clock::now();
  engine->leaveChannel();
  EXPECT_LT(Clock::now() - leaving, 3s) << "while it floods on";
  engine.reset();
  measured("leave and release in the middle of a flood", leaving);
  EXPECT_EQ(handler.count("error"), 0);
}

TEST_F(HostileRecorder, GrandchildThatHoldsThePipesDoesNotHideAnEnd) {
  const std::string until = dir.path() + "until";
  ASSERT_EQ(mkfifo(until.c_str(), 0600), 0);
  setenv("FAKE_GRANDCHILD_ENDS", until.c_str(), 1);
  const auto start = Clock::now();
  EXPECT_TRUE(join("user:1 grandchild user:2 kill", "error 3 16"));
  EXPECT_LT(Clock::now() - start, 3s);
  measured("a grandchild that holds the pipes", start);
  engine.reset();
  EXPECT_EQ(handler.calls().size(), 3U);
  // Opening it lets the grandchild go on, and end.
  const int end = open(until.c_str(), O_WRONLY);
  close(end);
  unsetenv("FAKE_GRANDCHILD_ENDS");
}

// Half a packet and then nothing is no error: more may come. The application can leave all the
// same.
TEST_F(HostileRecorder, SilenceInTheMiddleOfAPacketDoesNotKeepTheApplication) {
  const std::string large = picture(640, 360, 640, 320, 320, 345'600);
  ASSERT_TRUE(join(send(user(1) + large.substr(0, 300'000)) + " await:1", "user in 1"));
  const auto leaving = Clock::now();
  engine->leaveChannel();
  engine.reset();
  EXPECT_LT(Clock::now() - leaving, 3s);
  measured("leave after half a packet", leaving);
  EXPECT_EQ(handler.calls().size(), 1U);
}

}  // namespace
}  // namespace zelta::test
