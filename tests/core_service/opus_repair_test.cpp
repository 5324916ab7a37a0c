// SPDX-License-Identifier: Apache-2.0
// Sound of packets that were lost, by what comes with the next ones.
#include <cmath>
#include <memory>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <opus/opus.h>

#include "core_service/media/opus_line.h"
#include "core_service/media/opus_repair.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using namespace core_service::media;

constexpr int kSeconds = 4;

// A voice of a kind: a tone with overtones, whose loudness and pitch change.
std::vector<opus_int16> voice(int channels) {
  std::vector<opus_int16> samples;
  double phase = 0;
  for (int i = 0; i < kSeconds * kOpusRate; ++i) {
    const double at = static_cast<double>(i) / kOpusRate;
    phase += 2 * M_PI * (140 + 30 * std::sin(2 * M_PI * at)) / kOpusRate;
    double value = 0;
    for (int k = 1; k <= 10; ++k) value += std::sin(k * phase) / k;
    value *= 3000 * (1.2 + std::sin(2 * M_PI * 3 * at));
    for (int c = 0; c < channels; ++c) samples.push_back(static_cast<opus_int16>(value));
  }
  return samples;
}

std::vector<shared_bytes> encoded(int channels, int frame, bool with_repair) {
  int error = 0;
  const std::unique_ptr<OpusEncoder, void (*)(OpusEncoder*)> by(
      opus_encoder_create(kOpusRate, channels, OPUS_APPLICATION_VOIP, &error),
      opus_encoder_destroy);
  opus_encoder_ctl(by.get(), OPUS_SET_BITRATE(24'000 * channels));
  opus_encoder_ctl(by.get(), OPUS_SET_INBAND_FEC(with_repair ? 1 : 0));
  opus_encoder_ctl(by.get(), OPUS_SET_PACKET_LOSS_PERC(20));
  const std::vector<opus_int16> from = voice(channels);
  std::vector<shared_bytes> packets;
  for (int at = 0; at + frame <= kSeconds * kOpusRate; at += frame) {
    const auto bytes = std::make_shared<std::vector<uint8_t>>(1500);
    const opus_int32 size =
        opus_encode(by.get(), &from[static_cast<size_t>(at) * static_cast<size_t>(channels)], frame,
                    bytes->data(), 1500);
    packets.emplace_back(bytes, bytes->data(), static_cast<size_t>(size));
  }
  return packets;
}

std::vector<opus_int16> decoded(const std::vector<shared_bytes>& packets, int channels) {
  int error = 0;
  const std::unique_ptr<OpusDecoder, void (*)(OpusDecoder*)> by(
      opus_decoder_create(kOpusRate, channels, &error), opus_decoder_destroy);
  std::vector<opus_int16> samples;
  std::vector<opus_int16> some(size_t{5760} * 2);
  for (const shared_bytes& one : packets) {
    const int count = opus_decode(by.get(), one.data(), static_cast<opus_int32>(one.size()),
                                  some.data(), 5760, 0);
    samples.insert(samples.end(), some.begin(), some.begin() + std::ptrdiff_t{count} * channels);
  }
  return samples;
}

struct collected : opus_sink {
  void on_sound(const encoded_unit& unit) override { packets.push_back(unit.bytes); }
  void on_sound_end() override {}
  std::vector<shared_bytes> packets;
};

// How like each other two sounds are, from 0 to 1, in the frames that `counts` names.
template <class Counts>
double likeness(const std::vector<opus_int16>& a, const std::vector<opus_int16>& b, size_t frame,
                Counts counts) {
  double both = 0;
  double aa = 1;
  double bb = 1;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    if (!counts(i / frame)) continue;
    both += static_cast<double>(a[i]) * b[i];
    aa += static_cast<double>(a[i]) * a[i];
    bb += static_cast<double>(b[i]) * b[i];
  }
  return both / std::sqrt(aa * bb);
}

TEST(OpusRepairTest, LostPacketsAreHeardWhereTheNextOnesTellOfThem) {
  constexpr size_t kEvery = 13;
  // Channels, the frame in samples, whether packets tell; how like the lost is to what it was, at
  // least and at most: without, a decoder fades out.
  const std::tuple<int, int, bool, double, double> rows[] = {
      {1, 480, true, 0.7, 1},  {1, 960, true, 0.9, 1},  {1, 1920, true, 0.7, 1},
      {1, 2880, true, 0.7, 1}, {2, 960, true, 0.65, 1}, {1, 960, false, 0, 0.5},
  };
  for (const auto& [channels, frame, tells, least, most] : rows) {
    const auto packets = encoded(channels, frame, tells);
    opus_line line(std::make_shared<stream_format>());
    const auto to = std::make_shared<collected>();
    line.start(0ns, to);
    const auto is_lost = [](size_t number) { return number % kEvery == kEvery - 1; };
    for (size_t i = 0; i < packets.size(); ++i) {
      if (is_lost(i)) continue;
      line.push(i * (frame / kOpusStepSamples) * kOpusStep, packets[i], i > 0 && is_lost(i - 1));
    }
    const auto whole = decoded(packets, channels);
    const auto got = decoded(to->packets, channels);
    const auto a_frame = static_cast<size_t>(frame) * static_cast<size_t>(channels);
    const double like = likeness(whole, got, a_frame, is_lost);
    EXPECT_GE(like, least) << channels << " channels, " << frame;
    EXPECT_LE(like, most) << channels << " channels, " << frame;
    EXPECT_EQ(got.size(), whole.size()) << "it is as long as it was";
  }
}

}  // namespace
}  // namespace zelta::test
