// SPDX-License-Identifier: Apache-2.0
// Every packet there and back, the decoder of the engine's side, the mixing layout.
#include <cstring>

#include <gtest/gtest.h>

#include "base/protocol/ProtocolHandler.h"
#include "protocol/mixing_layout.h"
#include "support/engine_probe.h"
#include "support/packets.h"

namespace zelta::test {
namespace {

using namespace protocol;

// Fills every field with a value of its own, so that two swapped ones are noticed.
struct Filler {
  uint64_t next = 0x0102030405060708;
  template <class T>
  std::enable_if_t<std::is_integral_v<T>> fill(T& field) {
    field = static_cast<T>(next += 0x0101010101010101);
  }
  void fill(std::string& field) { field = std::string("\0a", 2) + std::to_string(next++ % 100); }
  template <class T>
  void fill(std::vector<T>& field) {
    field.resize(2);
    for (T& element : field) fill(element);
  }
};

template <class Packet>
Packet filled() {
  Packet packet;
  std::apply([filler = Filler()](auto&... field) mutable { (filler.fill(field), ...); },
             Packet::fields(packet));
  return packet;
}

std::string body_of(const base::packet& packet) {
  return bytes_of(packet).substr(base::kLengthPrefixBytes);
}

template <class Packet>
class PacketTest : public ::testing::Test {};

template <class... A, class... B, class... C>
auto test_types(packet_list<A...>, packet_list<B...>, packet_list<C...>)
    -> ::testing::Types<A..., B..., C...>;
using AllPackets = decltype(test_types(control_packets(), event_packets(), frame_packets()));
TYPED_TEST_SUITE(PacketTest, AllPackets);

TYPED_TEST(PacketTest, GoesThereAndBack) {
  const auto sent = filled<TypeParam>();
  const std::string body = body_of(sent);
  base::unpacker u(body.data(), body.size(), true);
  TypeParam received(uint16_t{77});
  EXPECT_TRUE(decode(u, received));
  EXPECT_EQ(TypeParam::fields(received), TypeParam::fields(sent));
  EXPECT_EQ(received.uri, TypeParam::kUri);
  EXPECT_EQ(received.server_type, 77) << "stays what the object was made with";
  EXPECT_EQ(body_of(received), body);
  std::string untouched = body_of(TypeParam()).substr(sizeof(uint16_t));
  // The version, which is said by nobody else.
  if (TypeParam::kUri == hello_packet::kUri) untouched[0] = static_cast<char>(untouched[0] - 1);
  EXPECT_EQ(untouched, std::string(untouched.size(), '\0')) << "what nobody sets is nothing";
}

TYPED_TEST(PacketTest, RefusesEveryTruncationAndLeftOver) {
  const std::string body = body_of(filled<TypeParam>());
  for (size_t length = 0; length < body.size(); ++length) {
    base::unpacker u(body.data(), length, true);
    TypeParam received;
    EXPECT_FALSE(decode(u, received)) << length;
  }
  const std::string longer = body + "x";
  base::unpacker u(longer.data(), longer.size(), false);
  TypeParam received;
  EXPECT_FALSE(decode(u, received));
}

std::string hex(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
    text += digits;
  }
  return text;
}

template <class... Packets>
Lines bytes_of_all(packet_list<Packets...>) {
  return {hex(body_of(filled<Packets>()))...};
}

// Every packet with a value of its own in every field: a new number or place of one is another
// protocol.
TEST(Packets, BytesOnTheWireAreThese) {
  EXPECT_EQ(bytes_of_all(control_packets()),
            words_of("010009080706 0d000400000000613536 0e0002000000090a 0f0009080706 100009080706 "
                     "110002000000090807060a090807020000000b0a09080c0b0a09020000000d0c0b0a0e0d0c0b0"
                     "20000000f0e0d0c100f0e0d0200000011100f0e1211100f "
                     "120002000000090807060a090807020000000b0a09080c0b0a09 "
                     "130002000000090807060a090807020000000b0a09080c0b0a09020000000d0c0b0a0e0d0c0b0"
                     "20000000f0e0d0c100f0e0d "
                     "140009080706 150009080706 1700090807060400000000613239 180009080706 "
                     "1a00090807060a090807"));
  EXPECT_EQ(
      bytes_of_all(event_packets()),
      words_of(
          "6400090807060400000000613239 6500090807060400000000613239 6600090807060400000000613239 "
          "670009080706 680009080706 690002000000090807060a090807020000000b0a09080c0b0a09 "
          "6a00090807060a090807 6b0009080706 6c00090807060a0908070b0a09080c0b0a09 "
          "6d00090807060a090807 6e00090807060a090807 6f00 7000 7100090807060400000000613239"));
  EXPECT_EQ(bytes_of_all(frame_packets()),
            words_of("8300090807060a090807060504030b0c0d0c0b0a04000000006132310f0d0c0b "
                     "8400090807060a09080706050403030000000061320c0a09080d0b0a090e0c0b0a "
                     "8500090807060a090807060504030b0a0c0b0d0c0e0d0f0e0400000000613637 "
                     "8600090807060a090807060504030b0a09080400000000613735 "
                     "870009080a0908070b0a0908070605040c0b0d0c0e0d0f0e100f040000000061343012100f0e "
                     "880009080a0908070b0a0908070605040c0b0a0904000000006134380e0c0b0a "
                     "890009080a0908070b0a0908070605040400000000613735"));
  EXPECT_EQ(hex(bytes_of(leave_packet())), "0a000000010000000000");
}

TEST(Packets, LayoutReadIntoBytesAppends) {
  auto packet = made<video_mixing_layout_packet>(std::vector<uint8_t>{1, 2});
  const std::string body = body_of(packet);
  base::unpacker u(body.data(), body.size(), false);
  packet.unmarshall(u);
  EXPECT_EQ(packet.data, (std::vector<uint8_t>{1, 2, 1, 2}));
}

TEST(Packets, HugeCountsAllocateNothing) {
  const std::string body("\x0e\0\xff\xff\xff\xff", 6);
  base::unpacker u(body.data(), body.size(), false);
  video_mixing_layout_packet packet;
  EXPECT_FALSE(decode(u, packet));
  EXPECT_EQ(packet.data.capacity(), 0U);
}

TEST(Packer, GrowsAndPatches) {
  base::packer p;
  p.push(uint8_t{1}).push(int16_t{-2}).push(std::string(1000, 'x')).push(int64_t{-1});
  p.write(uint16_t{7}, 5);
  p.pack();
  base::unpacker u(p.body(), p.length() - 4, false);
  EXPECT_EQ(u.pop_uint8(), 1);
  EXPECT_EQ(u.pop_uint16(), 7);
  EXPECT_EQ(u.pop_string().size(), 1000U);
  EXPECT_EQ(u.pop_uint64(), ~uint64_t{0});
  EXPECT_TRUE(u.complete());
  EXPECT_EQ(u.pop_uint8(), 0);
  EXPECT_FALSE(u.ok());
  u.rewind();
  EXPECT_EQ(u.pop_uint8(), 1) << "rewinding forgets the failure";
  const std::vector<char> taken = p.take_buffer();
  EXPECT_EQ(taken.size(), 4U + 1 + 2 + 4 + 1000 + 8);
  EXPECT_EQ(p.pack().length(), 4U) << "ready for the next packet";
}

// ---- The engine's decoder ------------------------------------------------------------------

class DecoderTest : public EngineTest {
 protected:
  bool receive(const base::packet& packet) { return receive_bytes(body_of(packet)); }
  bool receive_bytes(const std::string& body) {
    base::unpacker u(body.data(), body.size(), false);
    return engine->on_receive_packet(u, static_cast<uint16_t>(static_cast<uint8_t>(body[0])));
  }
};

using V = std::vector<uint32_t>;

TEST_F(DecoderTest, RoutesEveryEvent) {
  Lines answered;
  router.on_send = [&] { answered.push_back(handler.calls().back()); };
  receive(made<hello_packet>(1U, "test"));
  receive(made<join_channel_success_packet>(1U, "room"));
  receive(made<user_joined_packet>(2U, "/f/"));
  receive(made<active_speaker_packet>(2U));
  receive(made<audio_volume_indication_packet>(V{2, 3}, V{9, 8, 7}));
  receive(made<audio_volume_indication_packet>(V{}, V{1}));
  receive(made<audio_volume_indication_packet>(V{1}, V{}));
  receive(made<first_video_decoded_packet>(2U, 3, 4, 5));
  receive(made<first_audio_frame_packet>(2U, 6));
  receive(made<receiving_stream_status_packet>(2, 0));
  receive(connection_interrupted_packet());
  receive(connection_lost_packet());
  receive(made<user_background_packet>(2U, "x"));
  receive(made<user_dropped_packet>(2U));
  receive(made<user_dropped_packet>(4U));
  receive(made<recorder_error_packet>(1, 2U));
  receive(made<recorder_leave_packet>(16U));
  router.on_send = nullptr;
  EXPECT_EQ(handler.calls(),
            (Lines{"joined room 1", "user in 2 /f/", "speaker 2", "volumes 2=9,3=8,",
                   "first video 2 3 4 5", "first audio 2 6", "receiving 1 0", "interrupted", "lost",
                   "user out 2 0", "user out 4 0", "error 1 2", "leave 16"}));
  EXPECT_EQ(router.sent_uris(), (std::vector<int>{15, 16, 16}));
  EXPECT_EQ(answered, (Lines{"user in 2 /f/", "user out 2 0", "user out 4 0"}))
      << "the handler has it before the recorder is answered";
  EXPECT_EQ(engine->stats_.totalPackets, 17U);
  EXPECT_EQ(engine->stats_.otherPackets, 17U);
  receive(made<hello_packet>(2U, "newer"));
  EXPECT_NE(read_file(dir.path() + "recording_engine.log").find("not ours"), std::string::npos);
}

TEST_F(DecoderTest, CountsEachKindOfFrame) {
  receive(pcm_frame());
  EXPECT_FALSE(receive_bytes(body_of(pcm_frame()) + "x"));
  receive(aac_frame());
  receive(yuv_frame());
  receive(h264_frame());
  receive(yuv_frame2());
  receive(h264_frame2());
  receive(jpg_frame());
  EXPECT_TRUE(receive_bytes(std::string("\xff\0nonsense", 10))) << "unknown uris are skipped";
  EXPECT_TRUE(engine->on_receive_packet(pcm_frame(), pcm_frame::kUri));
  const auto& s = engine->stats_;
  EXPECT_EQ(std::tie(s.totalPackets, s.pcmPackets, s.pcmTotalPackets, s.aacPackets, s.yuvPackets,
                     s.h264Packets, s.yuvF2Packets, s.h264F2Packets, s.jpgPackets, s.errPackets),
            std::make_tuple(10, 2, 3, 1, 1, 1, 1, 1, 1, 1));
  EXPECT_EQ(s.otherPackets, 1U);
  EXPECT_EQ(handler.calls().size(), 8U);
}

TEST_F(DecoderTest, RefusesWhatPacketsCannotMean) {
  EXPECT_FALSE(receive(made<audio_volume_indication_packet>(V{1, 2}, V{9})));
  for (int i = 0; i < 1000; ++i) receive_bytes(std::string("\x65\0", 2));
  EXPECT_EQ(engine->stats_.errPackets, 1001U);
  const Lines lines = lines_of(read_file(dir.path() + "recording_engine.log"));
  const auto bad = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find(" warn ipc skipped ") != std::string::npos;
  });
  EXPECT_GE(bad, 1);
  EXPECT_LE(bad, 3) << "once a second at most";
}

TEST_F(DecoderTest, PayloadChangesHandsWithoutACopyOrAllocation) {
  std::string body = body_of(h264_frame2());
  const size_t at = *frame_payload_position(h264_frame2::kUri);
  body.replace(at - 4, 4, length_prefix(100'000));
  std::string payload;
  const char* before = nullptr;
  for (const char content : {'p', 'q'}) {
    payload.assign(100'000, content);
    const char* const given = payload.data();
    base::unpacker u(body.data(), body.size(), payload, at);
    EXPECT_TRUE(engine->on_receive_packet(u, h264_frame2::kUri));
    EXPECT_EQ(static_cast<const void*>(handler.payload), given);
    if (before != nullptr) {
      EXPECT_EQ(payload.data(), before) << "the storage of the frame before comes back";
    }
    before = given;
  }
}

// ---- The mixing layout ---------------------------------------------------------------------

TEST(MixingLayout, DecodesWhatWasEncoded) {
  VideoMixingLayout::Region regions[2];
  regions[0].uid = 7;
  regions[0].x = 0.25;
  regions[0].height = -1e300;
  regions[1].alpha = 0.5;
  regions[1].renderMode = -1;
  VideoMixingLayout layout;
  layout.canvasWidth = 640;
  layout.canvasHeight = 360;
  layout.backgroundColor = "#112233";
  layout.regionCount = 2;
  layout.regions = regions;
  layout.appData = "a\0b";
  layout.appDataLength = 3;
  std::vector<unsigned char> bytes{9, 9};
  ASSERT_TRUE(recording::encodeMixingLayout(layout, bytes, ""));
  recording::mixing_layout back;
  ASSERT_TRUE(recording::decodeMixingLayout(bytes, back));
  EXPECT_EQ(std::tie(back.canvas_width, back.background_color, back.app_data),
            std::make_tuple(640, "#112233", std::string("a\0b", 3)));
  ASSERT_EQ(back.regions.size(), 2U);
  const auto& first = back.regions[0];
  EXPECT_EQ(std::tie(first.uid, first.x, first.height), std::make_tuple(7, 0.25, -1e300));
  const auto& second = back.regions[1];
  EXPECT_EQ(std::tie(second.alpha, second.renderMode), std::make_tuple(0.5, -1));
  back.canvas_height = 1;
  for (size_t length = 0; length < bytes.size(); ++length) {
    const std::vector<unsigned char> cut(bytes.begin(),
                                         bytes.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_FALSE(recording::decodeMixingLayout(cut, back)) << length;
  }
  bytes[0] = 2;
  EXPECT_FALSE(recording::decodeMixingLayout(bytes, back)) << "another version";
  EXPECT_EQ(back.canvas_height, 1) << "untouched on failure";
}

TEST(MixingLayout, RefusesOnlyWhatCannotBeEncoded) {
  const struct {
    const char* data;
    int length;
    unsigned regions;  // of none
    bool encoded;
  } rows[] = {
      {nullptr, 0, 0, true}, {"x", -1, 0, false}, {nullptr, 1, 0, false}, {nullptr, 0, 1, false}};
  for (const auto& row : rows) {
    VideoMixingLayout layout;
    std::tie(layout.appData, layout.appDataLength, layout.regionCount) =
        std::make_tuple(row.data, row.length, row.regions);
    std::vector<unsigned char> bytes;
    EXPECT_EQ(recording::encodeMixingLayout(layout, bytes, ""), row.encoded) << &row - rows;
  }
}

}  // namespace
}  // namespace zelta::test
