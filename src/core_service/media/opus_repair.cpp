// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/opus_repair.h"

#include <algorithm>
#include <memory>
#include <vector>

#include <opus/opus.h>

namespace zelta::core_service::media {
namespace {

struct decoder_free {
  void operator()(OpusDecoder* one) const { opus_decoder_destroy(one); }
};
struct encoder_free {
  void operator()(OpusEncoder* one) const { opus_encoder_destroy(one); }
};

constexpr int kMostFrames = 48;
constexpr int kStepsOfSilk = 8;  // 20 ms
constexpr opus_int32 kBitsPerSecond = 40'000;
constexpr size_t kMostBytes = 1275;  // of a frame (RFC 6716, section 3.2.1)

// RFC 6716, section 4.2.3: a flag for each SILK frame, then the one that is looked for.
bool tells_of_before(const shared_bytes& packet, const opus_packet& about) {
  if (about.mode == opus_mode::kCelt) return false;
  const unsigned char* frames[kMostFrames];
  opus_int16 sizes[kMostFrames];
  const int count = opus_packet_parse(packet.data(), static_cast<opus_int32>(packet.size()),
                                      nullptr, frames, sizes, nullptr);
  if (count <= 0 || sizes[0] < 1) return false;
  const int silk_frames = std::max(1, about.steps_a_frame / kStepsOfSilk);
  return (frames[0][0] & (0x80U >> static_cast<unsigned>(silk_frames))) != 0;
}

class sound {
 public:
  explicit sound(int channels) : channels_(channels) {}
  opus_int16* extend(int samples) {
    samples_.resize(samples_.size() +
                    static_cast<size_t>(samples) * static_cast<size_t>(channels_));
    return samples_.data() + samples_.size() -
           static_cast<size_t>(samples) * static_cast<size_t>(channels_);
  }
  const opus_int16* at(int sample) const {
    return samples_.data() + static_cast<size_t>(sample) * static_cast<size_t>(channels_);
  }

 private:
  const int channels_;
  std::vector<opus_int16> samples_;
};

}  // namespace

std::optional<repaired_opus> repair_opus(const shared_bytes& before, const shared_bytes& behind) {
  const auto first = read_opus_packet(before.data(), before.size());
  const auto next = read_opus_packet(behind.data(), behind.size());
  if (!first || !next || !tells_of_before(behind, *next)) return std::nullopt;
  const int channels = next->stereo ? 2 : 1;
  const int frame = next->steps_a_frame * kOpusStepSamples;
  int error = OPUS_OK;
  const std::unique_ptr<OpusDecoder, decoder_free> decoder(
      opus_decoder_create(kOpusRate, channels, &error));
  const std::unique_ptr<OpusEncoder, encoder_free> encoder(
      opus_encoder_create(kOpusRate, channels, OPUS_APPLICATION_VOIP, &error));
  if (!decoder || !encoder) return std::nullopt;

  // Both come to it from what was heard before. What the encoder makes is later than what it is
  // given by so much.
  opus_int32 ahead = 0;
  opus_encoder_ctl(encoder.get(), OPUS_GET_LOOKAHEAD(&ahead));
  sound heard(channels);
  const auto decode = [&](const shared_bytes& packet, int samples, int lost) {
    return opus_decode(decoder.get(), packet.data(), static_cast<opus_int32>(packet.size()),
                       heard.extend(samples), samples, lost) == samples;
  };
  // At least a frame of it is there, so that one can be encoded first.
  heard.extend(frame);
  if (!decode(before, first->samples(), 0) || !decode(behind, frame, 1) ||
      !decode(behind, next->samples(), 0)) {
    return std::nullopt;
  }
  const int lost_at = frame + first->samples();
  opus_encoder_ctl(encoder.get(), OPUS_SET_COMPLEXITY(0));
  opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(kBitsPerSecond * channels));
  opus_encoder_ctl(encoder.get(), OPUS_SET_BANDWIDTH(OPUS_BANDWIDTH_NARROWBAND +
                                                     static_cast<int>(next->bandwidth)));
  auto bytes = std::make_shared<std::vector<uint8_t>>(kMostBytes);
  opus_int32 size = 0;
  for (const int at : {lost_at - frame + ahead, lost_at + ahead}) {
    size = opus_encode(encoder.get(), heard.at(at), frame, bytes->data(),
                       static_cast<opus_int32>(bytes->size()));
    if (size <= 0) return std::nullopt;
  }
  const shared_bytes made(bytes, bytes->data(), static_cast<size_t>(size));
  const auto about = read_opus_packet(made.data(), made.size());
  if (!about || about->duration() != frame / kOpusStepSamples * kOpusStep) return std::nullopt;
  return repaired_opus{made, *about};
}

}  // namespace zelta::core_service::media
