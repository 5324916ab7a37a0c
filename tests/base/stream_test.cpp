// SPDX-License-Identifier: Apache-2.0
// The framer and the writer over real pipes.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <gtest/gtest.h>

#include "link/packet_reader.h"
#include "link/packet_writer.h"
#include "link/recorder_process.h"
#include "link/service_path.h"
#include "support/packets.h"
#include "support/pipe.h"

namespace zelta::test {
namespace {

using namespace protocol;
using link::packet_reader;
using link::packet_writer;

using Lines = std::vector<std::string>;

// Decodes h264_frame2 and parameters, and keeps one line a packet.
class Collector : public packet_reader::receiver {
 public:
  void on_packet(base::unpacker& u, uint16_t uri) override {
    parameters_packet p;
    if (uri == h264_frame2::kUri) {
      const bool ok = decode(u, frame_);
      const bool torn = frame_.data != std::string(frame_.data.size(), 'p');
      seen.push_back(ok ? frame_line(frame_.frame_num, frame_.data.size()) +
                              std::to_string(frame_.avsync_type) + (torn ? " torn" : "")
                        : "bad frame");
    } else if (uri == parameters_packet::kUri) {
      seen.push_back(decode(u, p) ? "parameters " + std::to_string(p.parameters.size()) : "bad");
    } else {
      seen.push_back("uri " + std::to_string(uri));
    }
  }
  // Without its last word.
  static std::string frame_line(uint32_t number, size_t bytes) {
    return "frame " + std::to_string(number) + " " + std::to_string(bytes) + " ";
  }
  Lines seen;

 private:
  h264_frame2 frame_;
};

std::string frame_bytes(uint32_t number, size_t payload) {
  return bytes_with<h264_frame2>(0, 0, 0, number, std::string(payload, 'p'), 2);
}

std::string parameters_bytes(size_t size) {
  return bytes_with<parameters_packet>(std::string(size, 'x'));
}

constexpr size_t kBound = 1 << 20;

// A reader at the end of a pipe.
struct Stream : Collector {
  explicit Stream(bool of_sockets = false) : pipe(of_sockets) {}
  packet_reader::result read(size_t bound = kBound) { return reader.read_some(bound); }
  // Puts so many bytes at a time into the pipe, and reads them.
  void take(const std::string& bytes, size_t chunk = kBound) {
    for (size_t at = 0; at == 0 || at < bytes.size(); at += chunk) {
      ASSERT_TRUE(pipe.put(bytes.substr(at, chunk)));
      EXPECT_EQ(read(), packet_reader::result::kEmpty);
    }
  }

  Pipe pipe;
  packet_reader reader{pipe.read.get(), *this};
};

// At every byte of small packets, and so that all of a large payload comes with a part of what
// stands behind it.
TEST(PacketReader, TakesPacketsApartWhereverTheyAreSplit) {
  const std::string large = frame_bytes(3, 60'000);
  const struct {
    std::string bytes;
    size_t first;
    Lines seen;
  } rows[] = {{bytes_of(leave_packet()) + frame_bytes(1, 5) + frame_bytes(2, 0),
               0,
               {"uri 1", "frame 1 5 2", "frame 2 0 2"}},
              {large, large.size() - 11, {"frame 3 60000 2"}}};
  for (const auto& row : rows) {
    for (size_t split = row.first; split <= row.bytes.size(); ++split) {
      Stream stream;
      stream.take(row.bytes.substr(0, split));
      stream.take(row.bytes.substr(split));
      EXPECT_EQ(stream.seen, row.seen) << split;
    }
  }
}

// Larger than what is read at once, in chunks of many sizes, with small packets around them. A
// payload count that lies about its packet is refused by the decoder, and the next packet is fine.
TEST(PacketReader, PutsLargePacketsTogetherAndGoesBackToSmallOnes) {
  const std::string small = bytes_of(leave_packet());
  std::vector<std::pair<std::string, Lines>> rows = {
      {frame_bytes(1, 20000) + small + frame_bytes(2, 300000) + frame_bytes(3, 16 << 10) +
           frame_bytes(4, 70000) + small,
       {"frame 1 20000 2", "uri 1", "frame 2 300000 2", "frame 3 16384 2", "frame 4 70000 2",
        "uri 1"}},
      {parameters_bytes(200000) + small, {"parameters 200000", "uri 1"}},
  };
  const size_t count_at = 4 + *frame_payload_position(h264_frame2::kUri) - 4;
  for (const uint32_t count : {0x7f000000U, 400'001U, 399'999U, 40'000U, 0U}) {
    const std::string lying = frame_bytes(1, 400'000).replace(count_at, 4, length_prefix(count));
    rows.push_back({lying + small, {"bad frame", "uri 1"}});
  }
  for (size_t row = 0; row < rows.size(); ++row) {
    for (const size_t chunk : {1000U, 4093U, 50'000U, 60'000U}) {
      Stream stream;
      stream.take(rows[row].first, chunk);
      EXPECT_EQ(stream.seen, rows[row].second) << "row " << row << ", chunks of " << chunk;
    }
  }
}

TEST(PacketReader, NoticesEndBoundAndNonsense) {
  const std::string small = bytes_of(leave_packet());
  const struct {
    std::string bytes;
    packet_reader::result result;
    size_t packets;
  } rows[] = {
      {length_prefix(0), packet_reader::result::kBroken, 0},
      {length_prefix(5), packet_reader::result::kBroken, 0},
      {length_prefix((64U << 20) + 1), packet_reader::result::kBroken, 0},
      {length_prefix(0xFFFFFFFF), packet_reader::result::kBroken, 0},
      {small + length_prefix(3), packet_reader::result::kBroken, 1},
      {length_prefix(64U << 20) + "x", packet_reader::result::kEmpty, 0},
  };
  for (const auto& row : rows) {
    Stream stream;
    ASSERT_TRUE(stream.pipe.put(row.bytes));
    EXPECT_EQ(stream.read(), row.result) << "row " << &row - rows;
    EXPECT_EQ(stream.seen.size(), row.packets) << "row " << &row - rows;
  }
  Stream stream;
  ASSERT_GE(fcntl(stream.pipe.write.get(), F_SETPIPE_SZ, 1 << 20), 0);
  std::string many;
  while (many.size() < 400'000) many += small;
  ASSERT_TRUE(stream.pipe.put(many));
  stream.pipe.write.reset();
  EXPECT_EQ(stream.read(1), packet_reader::result::kMore) << "others get their turn";
  EXPECT_LT(stream.seen.size() * small.size(), many.size());
  EXPECT_EQ(stream.read(), packet_reader::result::kEmpty);
  EXPECT_EQ(stream.read(), packet_reader::result::kEnd);
  EXPECT_EQ(stream.seen.size() * small.size(), many.size());
}

// ---- Writer --------------------------------------------------------------------------------

using result = packet_writer::result;
using room = packet_writer::room;
using large = packet_writer::large;

// Memory as a decoder's pool has it: used again, and therefore changed, the moment it is let go of.
class PooledMemory {
 public:
  std::shared_ptr<const void> take(const std::string& bytes) {
    const size_t slot = in_use_.size();
    in_use_.push_back(std::make_unique<std::string>(bytes));
    return {in_use_[slot]->data(), [this, slot](const void*) {
              in_use_[slot]->assign(in_use_[slot]->size(), '\xEE');
              spoilt_.push_back(std::move(in_use_[slot]));
            }};
  }
  size_t held() const { return in_use_.size() - spoilt_.size(); }

 private:
  std::vector<std::unique_ptr<std::string>> in_use_;
  // Kept, so that what reads them finds the new bytes and not a fault.
  std::vector<std::unique_ptr<std::string>> spoilt_;
};

// And a writer at its beginning, of numbered frames.
struct WrittenStream : Stream {
  explicit WrittenStream(size_t limit, large payloads = large::kSplice, bool of_sockets = false)
      : Stream(of_sockets), writer(std::in_place, pipe.write.get(), limit, payloads) {}
  result send(size_t bytes, bool replaceable = false) {
    const auto number = static_cast<uint32_t>(sent.size());
    sent.push_back(frame_line(number, bytes) + "2");
    std::shared_ptr<const void> memory = pool.take(std::string(bytes, 'p'));
    const void* const data = memory.get();
    return writer->send_frame(made<h264_frame2>(0, 0, 0, number, "", 2),
                              {std::move(memory), data, bytes}, replaceable);
  }
  // Reads what is there, and what comes when the writer goes on, until it has nothing left.
  void exchange() {
    for (result how = result::kQueued; how == result::kQueued; read()) how = writer->flush();
    read();
  }

  PooledMemory pool;
  std::optional<packet_writer> writer;
  Lines sent;
};

// Every size around the limits at which frames are copied, gathered or spliced, over a pipe and
// over what can't splice; the reader falls behind, and lets go again.
TEST(PacketWriter, EveryFrameArrivesAsItWasSentHoweverItTravels) {
  std::signal(SIGPIPE, SIG_IGN);
  for (const bool sockets : {false, true}) {
    for (const large payloads : {large::kSplice, large::kWrite}) {
      WrittenStream stream(64 << 20, payloads, sockets);
      for (int round = 0; round < 20; ++round) {
        for (const size_t bytes : {0U, 1U, 1920U, 8191U, 8192U, 20'000U, 32'000U, 70'000U, 345'600U,
                                   1920U, 1920U, 262'145U, 4095U}) {
          const result how = stream.send(bytes);
          ASSERT_TRUE(how == result::kDone || how == result::kQueued || how == result::kGathering);
        }
        EXPECT_TRUE(payloads == large::kSplice || stream.writer->held_bytes() == 0U);
        if (round % 3 == 2) stream.read(100'000);
        if (round % 7 == 6) stream.exchange();
      }
      stream.exchange();
      EXPECT_EQ(stream.seen, stream.sent) << sockets << static_cast<int>(payloads);
      EXPECT_EQ(stream.writer->queued_bytes(), 0U);
    }
  }
}

// The reader stalls while the pipe is full of memory that its owner wants back.
TEST(PacketWriter, SplicedBytesStayAsTheyWereUntilTheyAreRead) {
  WrittenStream stream(64 << 20);
  fcntl(stream.pipe.write.get(), F_SETPIPE_SZ, 1 << 20);
  for (int number = 0; number < 40; ++number) stream.send(number % 2 == 0 ? 20'000 : 200'000);
  stream.writer->flush();
  EXPECT_EQ(stream.pool.held(), 40U) << "nothing has been read, so nothing may be let go of";
  EXPECT_GT(stream.writer->held_bytes(), 500'000U);
  // Slowly, a part of a frame at a time.
  for (int i = 0; i < 300 && stream.seen.size() < 30; ++i) {
    stream.read(1);
    stream.writer->flush();
  }
  EXPECT_LT(stream.pool.held(), 30U) << "what has been read is let go of";
  while (stream.writer->flush() == result::kQueued) stream.read(1);
  // The writer goes first, as a recorder does that ends; the last frames are still in the pipe.
  EXPECT_GT(stream.pool.held(), 0U);
  stream.writer.reset();
  stream.pipe.write.reset();
  while (stream.read() != packet_reader::result::kEnd) {
  }
  EXPECT_EQ(stream.seen, stream.sent);
}

TEST(PacketWriter, OldestReplaceablePacketsMakeRoom) {
  WrittenStream stream(1 << 30);
  // More than a pipe holds, so that the first is half written.
  const size_t big = 1 << 20;
  for (int number = 0; number < 4; ++number) stream.send(big, number != 1);
  EXPECT_EQ(stream.writer->drop_replaceable(1), 1U) << "2: 0 is half in the pipe, 1 has to stay";
  EXPECT_EQ(stream.writer->drop_replaceable(2 * big), 1U) << "3";
  stream.exchange();
  EXPECT_EQ(stream.seen, (Lines{stream.sent[0], stream.sent[1]}));
  EXPECT_EQ(stream.writer->queued_bytes(), 0U);
  EXPECT_EQ(stream.writer->replaceable_bytes(), 0U);
}

TEST(PacketWriter, RefusesPastItsLimitAndKeepsTheOrder) {
  WrittenStream stream(1 << 20, large::kWrite);
  int told = 0;
  for (result how = result::kDone; how != result::kRefused;) {
    how = stream.send(10'000);
    told += how == result::kQueued ? 1 : 0;
  }
  stream.sent.pop_back();
  EXPECT_GT(stream.sent.size(), 50U);
  EXPECT_EQ(told, 1) << "what there is to do is told once";
  packet_writer& writer = *stream.writer;
  EXPECT_LE(writer.queued_bytes(), 1U << 20);
  EXPECT_EQ(writer.send(leave_packet(), room::kLimited), result::kDone) << "it is small";
  const auto longer = made<parameters_packet>(std::string(20'000, 'x'));
  EXPECT_EQ(writer.send(longer, room::kLimited), result::kRefused);
  EXPECT_EQ(writer.send(longer, room::kAlways), result::kDone);
  stream.exchange();
  stream.sent.insert(stream.sent.end(), {"uri 1", "parameters 20000"});
  EXPECT_EQ(stream.seen, stream.sent);
}

TEST(PacketWriter, KeepsBackNothingButSmallFrames) {
  WrittenStream stream(1 << 20);
  for (int round = 0; round < 20; ++round, stream.exchange()) {
    stream.send(1);
    stream.writer->send(leave_packet(), room::kLimited);
    EXPECT_EQ(stream.writer->queued_bytes(), 0U) << "a command takes along what was gathered";
    stream.send(1);
    EXPECT_EQ(stream.send(300'000), result::kQueued) << "more than is gathered";
  }
}

TEST(PacketWriter, IsBrokenForGoodOnceNobodyReads) {
  std::signal(SIGPIPE, SIG_IGN);
  WrittenStream stream(1 << 20);
  stream.send(40'000);
  stream.pipe.read.reset();
  stream.send(300'000);
  EXPECT_EQ(stream.writer->flush(), result::kBroken);
  EXPECT_EQ(stream.send(40'000), result::kBroken);
  EXPECT_EQ(stream.writer->send(leave_packet(), room::kAlways), result::kBroken);
  EXPECT_EQ(stream.pool.held(), 0U) << "nobody can see what becomes of it";
  WrittenStream half(1 << 20);
  EXPECT_EQ(half.send(300'000, true), result::kQueued);
  half.writer->close();
  EXPECT_EQ(half.writer->queued_bytes() + half.writer->replaceable_bytes(), 0U);
  EXPECT_EQ(half.pool.held(), 1U) << "a part of it can still be read";
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
            (Lines{"/named/service", own + "/service", own + "/" ZELTA_LIBEXEC_FROM_LIB "/service",
                   "/one/service", "/two/service"}));
  EXPECT_EQ(link::service_candidates("./service"), Lines{"./service"});
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
  // Where the application ignores its children's ends, the kernel keeps none.
  std::signal(SIGCHLD, SIG_IGN);
  auto unkept = link::recorder_process::start({"/bin/sleep", "60"}, {}, pipe.read.get(),
                                              pipe.write.get(), error);
  const bool ended = unkept && *unkept->end(std::chrono::seconds(0), std::chrono::seconds(10));
  std::signal(SIGCHLD, SIG_DFL);
  ASSERT_TRUE(ended) << error;
  EXPECT_EQ(unkept->how_ended(), "status unknown");
}

}  // namespace
}  // namespace zelta::test
