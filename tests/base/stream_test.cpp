// SPDX-License-Identifier: Apache-2.0
// The framer and the writer over real pipes.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "link/packet_reader.h"
#include "link/packet_writer.h"
#include "link/recorder_process.h"
#include "link/service_path.h"
#include "protocol/ipc_protocol.h"

namespace zelta::test {
namespace {

using namespace protocol;
using link::packet_reader;
using link::packet_writer;

struct Pipe {
  Pipe() {
    int fds[2];
    EXPECT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
    read.reset(fds[0]);
    write.reset(fds[1]);
  }
  void put(const std::string& bytes) const {
    ASSERT_EQ(::write(write.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  base::unique_fd read;
  base::unique_fd write;
};

// Decodes h264_frame2 and leave_packet, and keeps one line a packet.
class Collector : public packet_reader::receiver {
 public:
  void on_packet(base::unpacker& u, uint16_t uri) override {
    if (uri == h264_frame2::kUri) {
      const bool ok = decode(u, frame_);
      seen.push_back(ok ? "frame " + std::to_string(frame_.frame_num) + " " +
                              std::to_string(frame_.data.size()) + " " +
                              std::to_string(frame_.avsync_type) +
                              (frame_.data == std::string(frame_.data.size(), 'p') ? "" : " torn")
                        : "bad frame");
    } else if (uri == parameters_packet::kUri) {
      parameters_packet p;
      seen.push_back(decode(u, p) ? "parameters " + std::to_string(p.parameters.size()) : "bad");
    } else {
      seen.push_back("uri " + std::to_string(uri));
    }
  }
  std::vector<std::string> seen;

 private:
  h264_frame2 frame_;
};

std::string bytes_of(const base::packet& packet) {
  base::packer p;
  packet.pack(p);
  return {p.buffer(), p.length()};
}

std::string frame_bytes(uint32_t number, size_t payload) {
  h264_frame2 frame;
  frame.frame_num = number;
  frame.data.assign(payload, 'p');
  frame.avsync_type = 2;
  return bytes_of(frame);
}

constexpr size_t kBound = 1 << 20;

TEST(PacketReader, TakesPacketsApartWhereverTheyAreSplit) {
  const std::string stream = bytes_of(leave_packet()) + frame_bytes(1, 5) + frame_bytes(2, 0);
  for (size_t split = 0; split <= stream.size(); ++split) {
    const Pipe pipe;
    Collector to;
    packet_reader reader(pipe.read.get(), to);
    pipe.put(stream.substr(0, split));
    EXPECT_EQ(reader.read_some(kBound), packet_reader::result::kEmpty);
    pipe.put(stream.substr(split));
    EXPECT_EQ(reader.read_some(kBound), packet_reader::result::kEmpty);
    EXPECT_EQ(to.seen, (std::vector<std::string>{"uri 1", "frame 1 5 2", "frame 2 0 2"})) << split;
  }
  // All of a large payload, and a part of what stands behind it.
  const std::string large = frame_bytes(3, 60'000);
  for (size_t rest = 1; rest < 12; ++rest) {
    const Pipe pipe;
    Collector to;
    packet_reader reader(pipe.read.get(), to);
    pipe.put(large.substr(0, large.size() - rest));
    reader.read_some(kBound);
    pipe.put(large.substr(large.size() - rest));
    reader.read_some(kBound);
    EXPECT_EQ(to.seen, (std::vector<std::string>{"frame 3 60000 2"})) << rest;
  }
}

// Larger than what is read at once, in chunks of many sizes, with small packets around them.
TEST(PacketReader, PutsLargeFramesTogether) {
  for (const size_t chunk : {1000U, 4093U, 60000U}) {
    const Pipe pipe;
    Collector to;
    packet_reader reader(pipe.read.get(), to);
    const std::string stream = frame_bytes(1, 20000) + bytes_of(leave_packet()) +
                               frame_bytes(2, 300000) + frame_bytes(3, 16 << 10) +
                               frame_bytes(4, 70000) + bytes_of(leave_packet());
    for (size_t at = 0; at < stream.size(); at += chunk) {
      pipe.put(stream.substr(at, chunk));
      EXPECT_EQ(reader.read_some(kBound), packet_reader::result::kEmpty);
    }
    EXPECT_EQ(to.seen, (std::vector<std::string>{"frame 1 20000 2", "uri 1", "frame 2 300000 2",
                                                 "frame 3 16384 2", "frame 4 70000 2", "uri 1"}))
        << chunk;
  }
}

TEST(PacketReader, TakesLongControlPacketsAndGoesBackToSmallOnes) {
  const Pipe pipe;
  Collector to;
  packet_reader reader(pipe.read.get(), to);
  parameters_packet p;
  p.parameters.assign(200000, 'x');
  const std::string stream = bytes_of(p) + bytes_of(leave_packet());
  for (size_t at = 0; at < stream.size(); at += 50000) {
    pipe.put(stream.substr(at, 50000));
    EXPECT_EQ(reader.read_some(kBound), packet_reader::result::kEmpty);
  }
  EXPECT_EQ(to.seen, (std::vector<std::string>{"parameters 200000", "uri 1"}));
}

TEST(PacketReader, NoticesEndBoundAndNonsense) {
  const auto length = [](uint32_t value) {
    return std::string(reinterpret_cast<const char*>(&value), 4);
  };
  const struct {
    std::string bytes;
    packet_reader::result result;
    size_t packets;
  } rows[] = {
      {length(0), packet_reader::result::kBroken, 0},
      {length(5), packet_reader::result::kBroken, 0},
      {length((64U << 20) + 1), packet_reader::result::kBroken, 0},
      {length(0xFFFFFFFF), packet_reader::result::kBroken, 0},
      {bytes_of(leave_packet()) + length(3), packet_reader::result::kBroken, 1},
      {length(64U << 20) + "x", packet_reader::result::kEmpty, 0},
  };
  for (const auto& row : rows) {
    const Pipe pipe;
    Collector to;
    packet_reader reader(pipe.read.get(), to);
    pipe.put(row.bytes);
    EXPECT_EQ(reader.read_some(kBound), row.result);
    EXPECT_EQ(to.seen.size(), row.packets);
  }
  Pipe pipe;
  Collector to;
  packet_reader reader(pipe.read.get(), to);
  ASSERT_GE(fcntl(pipe.write.get(), F_SETPIPE_SZ, 1 << 20), 0);
  std::string many;
  while (many.size() < 400'000) many += bytes_of(leave_packet());
  pipe.put(many);
  pipe.write.reset();
  EXPECT_EQ(reader.read_some(1), packet_reader::result::kMore) << "others get their turn";
  EXPECT_LT(to.seen.size() * bytes_of(leave_packet()).size(), many.size());
  EXPECT_EQ(reader.read_some(kBound), packet_reader::result::kEmpty);
  EXPECT_EQ(reader.read_some(kBound), packet_reader::result::kEnd);
  EXPECT_EQ(to.seen.size() * bytes_of(leave_packet()).size(), many.size());
}

// A payload count that lies about its packet is refused by the decoder, and the next packet is
// fine.
TEST(PacketReader, FrameThatLiesAboutItsPayloadIsOneBadPacket) {
  const size_t count_at = 4 + *frame_payload_position(h264_frame2::kUri) - 4;
  for (const uint32_t count : {0x7f000000U, 400'001U, 399'999U, 40'000U, 0U}) {
    const Pipe pipe;
    Collector to;
    packet_reader reader(pipe.read.get(), to);
    std::string lying = frame_bytes(1, 400'000);
    std::memcpy(&lying[count_at], &count, sizeof count);
    const std::string stream = lying + bytes_of(leave_packet());
    for (size_t at = 0; at < stream.size(); at += 50'000) {
      pipe.put(stream.substr(at, 50'000));
      EXPECT_EQ(reader.read_some(kBound), packet_reader::result::kEmpty);
    }
    EXPECT_EQ(to.seen, (std::vector<std::string>{"bad frame", "uri 1"})) << count;
  }
}

// ---- Writer --------------------------------------------------------------------------------

using result = packet_writer::result;
using room = packet_writer::room;
using large = packet_writer::large;

// Memory as a decoder's pool has it: used again, and therefore changed, the moment it is let go of.
class PooledMemory {
 public:
  explicit PooledMemory(size_t count) : in_use_(count) {}
  std::shared_ptr<const void> take(const std::string& bytes) {
    size_t slot = 0;
    while (in_use_[slot]) ++slot;
    in_use_[slot] = std::make_unique<std::string>(bytes);
    return {in_use_[slot]->data(), [this, slot](const void*) {
              in_use_[slot]->assign(in_use_[slot]->size(), '\xEE');
              spoilt_.push_back(std::move(in_use_[slot]));
            }};
  }
  size_t held() const {
    size_t sum = 0;
    for (const auto& one : in_use_) sum += one ? 1 : 0;
    return sum;
  }

 private:
  std::vector<std::unique_ptr<std::string>> in_use_;
  // Kept, so that what reads them finds the new bytes and not a fault.
  std::vector<std::unique_ptr<std::string>> spoilt_;
};

result send_payload(packet_writer& to, PooledMemory& pool, uint32_t number, size_t bytes,
                    bool replaceable = false) {
  h264_frame2 frame;
  frame.frame_num = number;
  frame.avsync_type = 2;
  std::shared_ptr<const void> memory = pool.take(std::string(bytes, 'p'));
  const void* const data = memory.get();
  return to.send_frame(frame, {std::move(memory), data, bytes}, replaceable);
}

// Reads what is there, and what comes when the writer goes on, until it has nothing left.
void exchange(packet_writer& writer, packet_reader& reader) {
  result how = result::kQueued;
  while (how == result::kQueued) {
    how = writer.flush();
    reader.read_some(kBound);
  }
  reader.read_some(kBound);
}

struct Sent {
  uint32_t number;
  size_t bytes;
};

std::vector<std::string> lines_of(const std::vector<Sent>& frames) {
  std::vector<std::string> lines;
  for (const Sent& one : frames) {
    lines.push_back("frame " + std::to_string(one.number) + " " + std::to_string(one.bytes) + " 2");
  }
  return lines;
}

// Every size around the limits at which frames are copied, gathered or spliced, over a pipe and
// over what can't splice; the reader falls behind, and lets go again.
TEST(PacketWriter, EveryFrameArrivesAsItWasSentHoweverItTravels) {
  std::signal(SIGPIPE, SIG_IGN);
  for (const bool socket : {false, true}) {
    for (const large payloads : {large::kSplice, large::kWrite}) {
      Pipe pipe;
      if (socket) {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
        pipe.read.reset(fds[0]);
        pipe.write.reset(fds[1]);
      }
      PooledMemory pool(2000);
      packet_writer writer(pipe.write.get(), 64 << 20, payloads);
      Collector to;
      packet_reader reader(pipe.read.get(), to);
      std::vector<Sent> sent;
      uint32_t number = 0;
      for (int round = 0; round < 20; ++round) {
        for (const size_t bytes : {0U, 1U, 1920U, 8191U, 8192U, 20'000U, 32'000U, 70'000U, 345'600U,
                                   1920U, 1920U, 262'145U, 4095U}) {
          sent.push_back({number, bytes});
          const result how = send_payload(writer, pool, number++, bytes);
          ASSERT_TRUE(how == result::kDone || how == result::kQueued || how == result::kGathering);
        }
        EXPECT_TRUE(payloads == large::kSplice || writer.held_bytes() == 0U);
        if (round % 3 == 2) reader.read_some(100'000);
        if (round % 7 == 6) exchange(writer, reader);
      }
      exchange(writer, reader);
      EXPECT_EQ(to.seen, lines_of(sent)) << socket << static_cast<int>(payloads);
      EXPECT_EQ(writer.queued_bytes(), 0U);
    }
  }
}

// The reader stalls while the pipe is full of memory that its owner wants back.
TEST(PacketWriter, SplicedBytesStayAsTheyWereUntilTheyAreRead) {
  Pipe pipe;
  fcntl(pipe.write.get(), F_SETPIPE_SZ, 1 << 20);
  PooledMemory pool(100);
  auto writer = std::make_unique<packet_writer>(pipe.write.get(), 64 << 20, large::kSplice);
  Collector to;
  packet_reader reader(pipe.read.get(), to);
  std::vector<Sent> sent;
  for (uint32_t number = 0; number < 40; ++number) {
    const size_t bytes = number % 2 == 0 ? 20'000 : 200'000;
    sent.push_back({number, bytes});
    send_payload(*writer, pool, number, bytes);
  }
  writer->flush();
  EXPECT_EQ(pool.held(), 40U) << "nothing has been read, so nothing may be let go of";
  EXPECT_GT(writer->held_bytes(), 500'000U);
  // Slowly, a part of a frame at a time.
  for (int i = 0; i < 300 && to.seen.size() < 30; ++i) {
    reader.read_some(1);
    writer->flush();
  }
  EXPECT_LT(pool.held(), 30U) << "what has been read is let go of";
  while (writer->flush() == result::kQueued) reader.read_some(1);
  // The writer goes first, as a recorder does that ends; the last frames are still in the pipe.
  EXPECT_GT(pool.held(), 0U);
  writer.reset();
  pipe.write.reset();
  while (reader.read_some(kBound) != packet_reader::result::kEnd) {
  }
  EXPECT_EQ(to.seen, lines_of(sent));
}

TEST(PacketWriter, OldestReplaceablePacketsMakeRoom) {
  const Pipe pipe;
  PooledMemory pool(10);
  packet_writer writer(pipe.write.get(), 1 << 30, large::kSplice);
  Collector to;
  packet_reader reader(pipe.read.get(), to);
  // More than a pipe holds, so that the first is half written.
  const size_t big = 1 << 20;
  for (uint32_t number = 0; number < 4; ++number) {
    send_payload(writer, pool, number, big, number != 1);
  }
  EXPECT_EQ(writer.drop_replaceable(1), 1U) << "2: 0 is half in the pipe, 1 has to stay";
  EXPECT_EQ(writer.drop_replaceable(2 * big), 1U) << "3";
  exchange(writer, reader);
  EXPECT_EQ(to.seen, lines_of({{0, big}, {1, big}}));
  EXPECT_EQ(writer.queued_bytes(), 0U);
  EXPECT_EQ(writer.replaceable_bytes(), 0U);
}

TEST(PacketWriter, RefusesPastItsLimitAndKeepsTheOrder) {
  const Pipe pipe;
  PooledMemory pool(1000);
  packet_writer writer(pipe.write.get(), 1 << 20, large::kWrite);
  Collector to;
  packet_reader reader(pipe.read.get(), to);
  std::vector<Sent> sent;
  int told = 0;
  for (uint32_t number = 0;; ++number) {
    const result how = send_payload(writer, pool, number, 10'000);
    if (how == result::kRefused) break;
    told += how == result::kQueued ? 1 : 0;
    sent.push_back({number, 10'000});
  }
  EXPECT_GT(sent.size(), 50U);
  EXPECT_EQ(told, 1) << "what there is to do is told once";
  EXPECT_LE(writer.queued_bytes(), 1U << 20);
  EXPECT_EQ(writer.send(leave_packet(), room::kLimited), result::kDone) << "it is small";
  parameters_packet longer;
  longer.parameters.assign(20'000, 'x');
  EXPECT_EQ(writer.send(longer, room::kLimited), result::kRefused);
  EXPECT_EQ(writer.send(longer, room::kAlways), result::kDone);
  exchange(writer, reader);
  std::vector<std::string> expected = lines_of(sent);
  expected.insert(expected.end(), {"uri 1", "parameters 20000"});
  EXPECT_EQ(to.seen, expected);
}

TEST(PacketWriter, IsBrokenForGoodOnceNobodyReads) {
  std::signal(SIGPIPE, SIG_IGN);
  Pipe pipe;
  PooledMemory pool(10);
  packet_writer writer(pipe.write.get(), 1 << 20, large::kSplice);
  send_payload(writer, pool, 0, 40'000);
  pipe.read.reset();
  send_payload(writer, pool, 1, 300'000);
  EXPECT_EQ(writer.flush(), result::kBroken);
  EXPECT_EQ(send_payload(writer, pool, 2, 40'000), result::kBroken);
  EXPECT_EQ(writer.send(leave_packet(), room::kAlways), result::kBroken);
  EXPECT_EQ(pool.held(), 0U) << "nobody can see what becomes of it";
  Pipe half;
  packet_writer closed(half.write.get(), 1 << 20, large::kSplice);
  EXPECT_EQ(send_payload(closed, pool, 3, 300'000), result::kQueued);
  closed.close();
  EXPECT_EQ(pool.held(), 1U) << "a part of it can still be read";
}

TEST(UniqueFd, BelongsToTheOneThatItWasMovedTo) {
  Pipe pipe;
  const int fd = pipe.read.get();
  base::unique_fd other;
  other = std::move(pipe.read);
  EXPECT_EQ(other.get(), fd);
  EXPECT_FALSE(pipe.read.valid());
  EXPECT_EQ(other.release(), fd);
  EXPECT_FALSE(other.valid());
  EXPECT_GE(fcntl(fd, F_GETFD), 0) << "not closed by who let go of it";
  other.reset(fd);
  other = base::unique_fd();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

// ---- The program at the other end -----------------------------------------------------------

TEST(ServicePath, PlacesAreTriedInThisOrder) {
  setenv("ZELTA_SERVICE_DIR", "/named", 1);
  const char* const given = getenv("PATH");
  const std::string path = given != nullptr ? given : "";
  setenv("PATH", "/one:/two/:", 1);
  const std::string own = std::filesystem::path(program_invocation_name).parent_path();
  EXPECT_EQ(link::service_candidates("service"),
            (std::vector<std::string>{"/named/service", own + "/service",
                                      own + "/" ZELTA_LIBEXEC_FROM_LIB "/service", "/one/service",
                                      "/two/service"}));
  EXPECT_EQ(link::service_candidates("./service"), std::vector<std::string>{"./service"});
  setenv("PATH", path.c_str(), 1);
  unsetenv("ZELTA_SERVICE_DIR");
}

TEST(RecorderProcess, IsWaitedForOnceAndNeverSignalledAgain) {
  Pipe pipe;
  std::string error;
  auto child = link::recorder_process::start({"/bin/sh", "-c", "exit 5"}, {}, pipe.read.get(),
                                             pipe.write.get(), error);
  ASSERT_TRUE(child) << error;
  EXPECT_TRUE(child->wait(std::chrono::seconds(10)));
  EXPECT_EQ(child->how_ended(), "exit status 5");
  EXPECT_TRUE(child->wait(std::chrono::milliseconds(0))) << "it has ended";
  EXPECT_STREQ(child->end(std::chrono::milliseconds(0), std::chrono::milliseconds(0)), "");
  // An end that was seen isn't waited for once more: by then there may be other children.
  auto gone = std::move(*child);
  EXPECT_TRUE(gone.wait(std::chrono::milliseconds(0)));
  EXPECT_EQ(gone.how_ended(), "exit status 5");
}

}  // namespace
}  // namespace zelta::test
