// SPDX-License-Identifier: Apache-2.0
// The framer and the writer over real pipes.
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>

#include "base/packet_reader.h"
#include "base/packet_writer.h"
#include "base/unique_fd.h"
#include "protocol/ipc_protocol.h"

namespace zelta::test {
namespace {

using namespace protocol;
using base::packet_reader;
using base::packet_writer;

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
  pipe.put(bytes_of(leave_packet()));
  pipe.write.reset();
  EXPECT_EQ(reader.read_some(1), packet_reader::result::kMore);
  EXPECT_EQ(reader.read_some(1), packet_reader::result::kEnd);
  EXPECT_EQ(to.seen.size(), 1U);
}

// A payload count that lies about its packet is refused by the decoder, and the next packet is
// fine.
TEST(PacketReader, FrameThatClaimsMoreThanItsPacketIsOneBadPacket) {
  const Pipe pipe;
  Collector to;
  packet_reader reader(pipe.read.get(), to);
  std::string lying = frame_bytes(1, 30000);
  lying[4 + *frame_payload_position(h264_frame2::kUri) - 1] = '\x7f';
  pipe.put(lying + bytes_of(leave_packet()));
  EXPECT_EQ(reader.read_some(kBound), packet_reader::result::kEmpty);
  EXPECT_EQ(to.seen, (std::vector<std::string>{"bad frame", "uri 1"}));
}

TEST(PacketWriter, QueuesWhatThePipeDoesNotTakeAndKeepsTheOrder) {
  const Pipe pipe;
  packet_writer writer(pipe.write.get(), 1 << 20);
  Collector to;
  packet_reader reader(pipe.read.get(), to);
  const std::string packet = frame_bytes(0, 10000);
  int sent = 0;
  while (writer.send({packet.begin(), packet.end()}, false) != packet_writer::result::kRefused) {
    ++sent;
  }
  EXPECT_GT(sent, 50);
  EXPECT_LE(writer.queued_bytes(), 1U << 20);
  const std::string leave = bytes_of(leave_packet());
  EXPECT_EQ(writer.send({leave.begin(), leave.end()}, true), packet_writer::result::kQueued);
  while (writer.flush() == packet_writer::result::kQueued) reader.read_some(kBound);
  reader.read_some(kBound);
  ASSERT_EQ(to.seen.size(), static_cast<size_t>(sent) + 1);
  EXPECT_EQ(to.seen.front(), "frame 0 10000 2");
  EXPECT_EQ(to.seen.back(), "uri 1");
  EXPECT_EQ(writer.queued_bytes(), 0U);
}

TEST(PacketWriter, IsBrokenForGoodOnceNobodyReads) {
  std::signal(SIGPIPE, SIG_IGN);
  Pipe pipe;
  packet_writer writer(pipe.write.get(), 100);
  pipe.read.reset();
  EXPECT_EQ(writer.send({'x'}, false), packet_writer::result::kBroken);
  EXPECT_EQ(writer.send({'x'}, true), packet_writer::result::kBroken);
  EXPECT_EQ(writer.flush(), packet_writer::result::kBroken);
}

}  // namespace
}  // namespace zelta::test
