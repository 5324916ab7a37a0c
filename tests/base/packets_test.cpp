// SPDX-License-Identifier: Apache-2.0
// Every packet there and back, the decoder of the engine's side, the mixing layout.
#include <cstring>

#include <gtest/gtest.h>

#include "base/protocol/ProtocolHandler.h"
#include "protocol/mixing_layout.h"
#include "support/engine_probe.h"

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
  void fill(std::string& field) { field = std::string("\0a", 2) + std::to_string(next++); }
  template <class T>
  void fill(std::vector<T>& field) {
    field.resize(3);
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

template <class Packet>
std::string body_of(const Packet& packet) {
  base::packer p;
  packet.pack(p);
  return {p.body(), p.length() - base::kLengthPrefixBytes};
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
void add_bytes_of(packet_list<Packets...>, std::vector<std::string>& all) {
  (all.push_back(hex(body_of(filled<Packets>()))), ...);
}

// Every packet with a value of its own in every field: a new number or place of one is another
// protocol.
TEST(Packets, BytesOnTheWireAreThese) {
  std::vector<std::string> all;
  add_bytes_of(control_packets(), all);
  add_bytes_of(event_packets(), all);
  add_bytes_of(frame_packets(), all);
  EXPECT_EQ(
      all,
      (std::vector<std::string>{
          "010009080706",
          "0d001300000000613732363233383539373930333832383536",
          "0e0003000000090a0b",
          "0f0009080706",
          "100009080706",
          ("110003000000090807060a0908070b0a0908030000000c0b0a090d0c0b0a0e0d0c0b030000000f0e0d"
           "0c100f0e0d11100f0e030000001211100f131211101413121103000000151413121615141317161514"),
          "120003000000090807060a0908070b0a0908030000000c0b0a090d0c0b0a0e0d0c0b",
          ("130003000000090807060a0908070b0a0908030000000c0b0a090d0c0b0a0e0d0c"
           "0b030000000f0e0d0c100f0e0d11100f0e030000001211100f1312111014131211"),
          "140009080706",
          "150009080706",
          "170009080706140000000061313434393634303332363238343539353239",
          "180009080706",
          "1a00090807060a090807",
          "640009080706140000000061313434393634303332363238343539353239",
          "650009080706140000000061313434393634303332363238343539353239",
          "660009080706140000000061313434393634303332363238343539353239",
          "670009080706",
          "680009080706",
          "690003000000090807060a0908070b0a0908030000000c0b0a090d0c0b0a0e0d0c0b",
          "6a00090807060a090807",
          "6b0009080706",
          "6c00090807060a0908070b0a09080c0b0a09",
          "6d00090807060a090807",
          "6e00090807060a090807",
          "6f00",
          "7000",
          "710009080706140000000061313434393634303332363238343539353239",
          ("8300090807060a090807060504030b0c0d0c0b0a14000000"
           "00613433343332343732333938303736363232310f0d0c0b"),
          ("8400090807060a090807060504031400000000613231373330"
           "343230353436363533363230320c0a09080d0b0a090e0c0b0a"),
          ("8500090807060a090807060504030b0a0c0b0d0c0e0d0f0e"
           "140000000061353739303035303639363536393139353637"),
          "8600090807060a090807060504030b0a0908140000000061323839363434333738333034363132383735",
          ("870009080a0908070b0a0908070605040c0b0d0c0e0d0f0e100f14"
           "000000006136353133343532343234393439393632343012100f0e"),
          ("880009080a0908070b0a0908070605040c0b0a0914000000"
           "00613336313938343535313134323638393534380e0c0b0a"),
          "890009080a0908070b0a090807060504140000000061323839363434333738333034363132383735"}));
  EXPECT_EQ(hex(body_of(leave_packet())), "010000000000");
  base::packer p;
  leave_packet().pack(p);
  EXPECT_EQ(hex(std::string(p.buffer(), p.length())), "0a000000010000000000");
}

TEST(Packets, LayoutReadIntoBytesAppends) {
  video_mixing_layout_packet packet;
  packet.data = {1, 2};
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
  bool receive(const base::packet& packet) {
    const std::string body = body_of(packet);
    return receive_bytes(body);
  }
  bool receive_bytes(const std::string& body) {
    base::unpacker u(body.data(), body.size(), false);
    return engine->on_receive_packet(u, static_cast<uint16_t>(static_cast<uint8_t>(body[0])));
  }
  static std::string body_of(const base::packet& packet) { return test::body_of(packet); }
};

template <class Packet, class... Values>
Packet make(Values... values) {
  Packet packet;
  Packet::fields(packet) = std::make_tuple(values...);
  return packet;
}

TEST_F(DecoderTest, RoutesEveryEvent) {
  using V = std::vector<uint32_t>;
  using std::string;
  receive(make<hello_packet>(1U, string("test")));
  receive(make<join_channel_success_packet>(1U, string("room")));
  receive(make<user_joined_packet>(2U, string("/f/")));
  receive(make<active_speaker_packet>(2U));
  receive(make<audio_volume_indication_packet>(V{2}, V{9}));
  receive(make<first_video_decoded_packet>(2U, 3, 4, 5));
  receive(make<first_audio_frame_packet>(2U, 6));
  receive(make<receiving_stream_status_packet>(1, 0));
  receive(connection_interrupted_packet());
  receive(connection_lost_packet());
  receive(make<user_background_packet>(2U, string("x")));
  receive(make<user_dropped_packet>(2U));
  receive(make<recorder_error_packet>(1, 2U));
  receive(make<recorder_leave_packet>(16U));
  EXPECT_EQ(handler.calls(),
            (std::vector<string>{"joined room 1", "user in 2 /f/", "speaker 2", "volumes 2=9,",
                                 "first video 2 3 4 5", "first audio 2 6", "receiving 1 0",
                                 "interrupted", "lost", "user out 2 0", "error 1 2", "leave 16"}));
  EXPECT_EQ(engine->stats_.totalPackets, 14U);
  EXPECT_EQ(engine->stats_.otherPackets, 14U);
  receive(make<hello_packet>(2U, string("newer")));
  EXPECT_NE(read_file(dir.path() + "recording_engine.log").find("not ours"), string::npos);
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
  const std::vector<uint32_t> counts{s.totalPackets, s.pcmPackets,    s.pcmTotalPackets,
                                     s.aacPackets,   s.yuvPackets,    s.h264Packets,
                                     s.yuvF2Packets, s.h264F2Packets, s.jpgPackets,
                                     s.errPackets,   s.otherPackets};
  EXPECT_EQ(counts, (std::vector<uint32_t>{10, 2, 3, 1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(handler.calls().size(), 8U);
}

TEST_F(DecoderTest, RefusesWhatPacketsCannotMean) {
  using V = std::vector<uint32_t>;
  EXPECT_FALSE(receive(make<audio_volume_indication_packet>(V{1, 2}, V{9})));
  auto yuv = yuv_frame2();
  std::tie(yuv.uid, yuv.frame_ms, yuv.width, yuv.height, yuv.ystride, yuv.ustride, yuv.vstride) =
      std::make_tuple(1, 2, 3, 4, 5, 6, 7);
  std::string order;
  for (const char byte : body_of(yuv))
    order += byte > 0 && byte < 8 ? std::string(1, static_cast<char>('0' + byte)) : "";
  EXPECT_EQ(order, "1234567") << "as the other side expects them";
  yuv.width = yuv.ystride = 4;
  yuv.height = 4;
  yuv.ustride = yuv.vstride = 2;
  yuv.data.assign(24, 'x');
  EXPECT_TRUE(receive(yuv));
  yuv.data.assign(23, 'x');
  EXPECT_FALSE(receive(yuv)) << "the V plane would leave the payload";
  yuv.data.assign(24, 'x');
  yuv.width = 5;
  EXPECT_FALSE(receive(yuv)) << "rows longer than their stride";
  yuv.data.clear();
  EXPECT_TRUE(receive(yuv)) << "no payload, no planes";
  for (int i = 0; i < 1000; ++i) receive_bytes(std::string("\x65\0", 2));
  EXPECT_EQ(engine->stats_.errPackets, 1003U);
  const auto lines = lines_of(read_file(dir.path() + "recording_engine.log"));
  const auto bad = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find(" warn ipc skipped ") != std::string::npos;
  });
  EXPECT_GE(bad, 1);
  EXPECT_LE(bad, 3) << "once a second at most";
}

TEST_F(DecoderTest, PayloadChangesHandsWithoutACopyOrAllocation) {
  h264_frame2 frame;
  std::string body = body_of(frame);
  const size_t at = *frame_payload_position(h264_frame2::kUri);
  std::string payload(100000, 'p');
  const auto count = static_cast<uint32_t>(payload.size());
  std::memcpy(body.data() + at - 4, &count, 4);
  const char* const first = payload.data();
  base::unpacker u(body.data(), body.size(), payload, at);
  EXPECT_TRUE(engine->on_receive_packet(u, h264_frame2::kUri));
  EXPECT_EQ(static_cast<const void*>(handler.payload), first);
  payload.assign(100000, 'q');
  const char* const second = payload.data();
  base::unpacker u2(body.data(), body.size(), payload, at);
  EXPECT_TRUE(engine->on_receive_packet(u2, h264_frame2::kUri));
  EXPECT_EQ(static_cast<const void*>(handler.payload), second);
  EXPECT_EQ(payload.data(), first) << "the storage of the frame before comes back";
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
  EXPECT_EQ(back.canvas_width, 640);
  EXPECT_EQ(back.background_color, "#112233");
  ASSERT_EQ(back.regions.size(), 2U);
  EXPECT_EQ(back.regions[0].uid, 7U);
  EXPECT_EQ(back.regions[0].x, 0.25);
  EXPECT_EQ(back.regions[0].height, -1e300);
  EXPECT_EQ(back.regions[1].alpha, 0.5);
  EXPECT_EQ(back.regions[1].renderMode, -1);
  EXPECT_EQ(back.app_data, std::string("a\0b", 3));
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
  std::vector<unsigned char> bytes;
  EXPECT_TRUE(recording::encodeMixingLayout(VideoMixingLayout(), bytes, ""));
  VideoMixingLayout layout;
  layout.appData = "x";
  layout.appDataLength = -1;
  EXPECT_FALSE(recording::encodeMixingLayout(layout, bytes, ""));
  layout.appData = nullptr;
  layout.appDataLength = 1;
  EXPECT_FALSE(recording::encodeMixingLayout(layout, bytes, ""));
  layout.appDataLength = 0;
  layout.regionCount = 1;
  EXPECT_FALSE(recording::encodeMixingLayout(layout, bytes, ""));
}

}  // namespace
}  // namespace zelta::test
