// SPDX-License-Identifier: Apache-2.0
// Bytes of a recorder: through the real framing into the real engine, which hands frames to a
// handler that reads every byte it may. What decodes must encode to the same again.
#include <algorithm>
#include <cstring>

#include "link/packet_reader.h"
#include "rec_engine/RecordingEngineImpl.h"
#include "support/pipe.h"
#include "support/quiet_handler.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace recording;
using namespace protocol;

class no_router final : public base::router {
  int launch_recorder(std::vector<const char*>&, base::event_loop*) override { return -1; }
  int relaunch_recorder(std::vector<const char*>&, base::event_loop*) override { return -1; }
  void shutdown() override {}
  void send_packet(base::packet* p) override { const std::unique_ptr<base::packet> owned(p); }
};

// Reads what it is given, where an application would.
class touching_handler final : public test::QuietHandler {
 public:
  void onJoinChannelSuccess(const char* channel, recording::uid_t) override { touch(channel); }
  void onUserJoined(recording::uid_t, UserJoinInfos& infos) override { touch(infos.storageDir); }
  void audioFrameReceived(unsigned int, const AudioFrame* frame) override {
    if (frame->type == AUDIO_FRAME_RAW_PCM) {
      touch(frame->frame.pcm->pcmBuf_, frame->frame.pcm->pcmBufSize_);
    } else {
      touch(frame->frame.aac->aacBuf_, frame->frame.aac->aacBufSize_);
    }
  }
  void videoFrameReceived(unsigned int, const VideoFrame* frame) override {
    switch (frame->type) {
      case VIDEO_FRAME_RAW_YUV: {
        const VideoYuvFrame& yuv = *frame->frame.yuv;
        if (yuv.bufSize_ == 0) return;
        const size_t half = yuv.height_ / 2;
        touch(yuv.ybuf_, size_t{yuv.ystride_} * yuv.height_);
        touch(yuv.ubuf_, size_t{yuv.ustride_} * half);
        touch(yuv.vbuf_, size_t{yuv.vstride_} * half);
        return;
      }
      case VIDEO_FRAME_H264:
        return touch(frame->frame.h264->buf_, frame->frame.h264->bufSize_);
      default:
        return touch(frame->frame.jpg->buf_, frame->frame.jpg->bufSize_);
    }
  }
  void onAudioVolumeIndication(const AudioVolumeInfo* speakers, unsigned int count) override {
    for (unsigned int i = 0; i < count; ++i) sum_ += speakers[i].volume;
  }

 private:
  void touch(const char* text) { touch(reinterpret_cast<const uint8_t*>(text), std::strlen(text)); }
  void touch(const uint8_t* from, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) sum_ = sum_ + from[i];
  }
  volatile unsigned sum_ = 0;
};

// The engine with its packets' way in.
class fed_engine final : public RecordingEngineImpl, public link::packet_reader::receiver {
 public:
  using RecordingEngineImpl::RecordingEngineImpl;
  void on_packet(base::unpacker& u, uint16_t uri) override { on_receive_packet(u, uri); }
  void forget_users() {
    while (!peers_.empty()) on_user_dropped(peers_.begin()->first);
  }
};

template <class Packet>
void round_trip(const std::string& body) {
  Packet first;
  base::unpacker u(body.data(), body.size(), false);
  if (!decode(u, first)) return;
  const std::string again = bytes_of(first);
  require(again.substr(base::kLengthPrefixBytes) == body, "a packet that encodes to other bytes");
}

template <class... Packets>
void round_trip_by_uri(const std::string& body, packet_list<Packets...>) {
  uint16_t uri = 0;
  if (body.size() < sizeof uri) return;
  std::memcpy(&uri, body.data(), sizeof uri);
  ((uri == Packets::kUri ? round_trip<Packets>(body) : void()), ...);
}

// The first byte says in what pieces the others arrive.
void feed(const uint8_t* data, size_t size) {
  static touching_handler handler;
  static fed_engine engine("fuzz", &handler, std::make_unique<no_router>().release());
  static auto pipe = std::make_unique<test::Pipe>();
  // As large as the longest input is enough, and much faster to have anew each time.
  link::packet_reader reader(pipe->read.get(), engine, link::packet_reader::kCommandBytes);
  const size_t piece = data[0] == 0 ? size : size_t{data[0]} * 16;
  for (size_t at = 1; at < size; at += piece) {
    const size_t bytes = std::min(piece, size - at);
    require(pipe->put(text_of(data + at, bytes)), "write");
    using result = link::packet_reader::result;
    for (auto got = result::kMore; got != result::kEmpty;) {
      got = reader.read_some(1 << 16);
      if (got == result::kBroken) {
        // What it left unread is not the next input's.
        pipe = std::make_unique<test::Pipe>();
        return engine.forget_users();
      }
    }
  }
  engine.forget_users();
}

}  // namespace

std::vector<std::string> seeds() {
  using list = std::vector<uint32_t>;
  const std::string payload(100, 'p');
  const uint64_t ms = 1'700'000'000'000;
  const std::vector<std::string> packets{
      bytes_with<hello_packet>(1U, "recorder"),
      bytes_with<join_channel_success_packet>(7U, "room"),
      bytes_with<user_joined_packet>(7U, "/folder/"),
      bytes_with<user_dropped_packet>(7U),
      bytes_with<active_speaker_packet>(7U),
      bytes_with<audio_volume_indication_packet>(list{7, 8}, list{100, 200}),
      bytes_with<recorder_error_packet>(1, 2U),
      bytes_with<recorder_leave_packet>(16U),
      bytes_with<first_video_decoded_packet>(7U, 640, 360, 20),
      bytes_with<first_audio_frame_packet>(7U, 20),
      bytes_with<receiving_stream_status_packet>(1, 0),
      bytes_of(connection_interrupted_packet()),
      bytes_of(connection_lost_packet()),
      bytes_with<user_background_packet>(7U, "image.png"),
      bytes_with<pcm_frame>(7U, ms, 1, 16, 48000U, payload, 2),
      bytes_with<aac_frame>(7U, ms, payload, 2, 1U, 64000U),
      bytes_with<yuv_frame>(7U, ms, 8, 8, 8, 4, 4, std::string(96, 'y')),
      bytes_with<h264_frame>(7U, ms, 1U, payload),
      bytes_with<yuv_frame2>(90, 7U, ms, 8, 8, 8, 4, 4, std::string(96, 'y'), 2),
      bytes_with<h264_frame2>(0, 7U, ms, 1U, payload, 2),
      bytes_with<jpg_frame>(0, 7U, ms, payload),
  };
  std::vector<std::string> all;
  std::string together(1, '\x03');
  for (const std::string& packet : packets) {
    all.push_back('\0' + packet);
    together += packet;
  }
  all.push_back(together);
  // Of the size that is read into place.
  all.push_back('\x7f' + bytes_with<h264_frame2>(0, 7U, ms, 1U, std::string(40'000, 'p'), 2) +
                packets.front());
  return all;
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  if (size == 0 || size > (1 << 16) || fuzz::claims_much(data + 1, size - 1)) return 0;
  fuzz::feed(data, size);
  if (size > 1 + base::kLengthPrefixBytes) {
    const std::string body =
        fuzz::text_of(data + 1 + base::kLengthPrefixBytes, size - 1 - base::kLengthPrefixBytes);
    fuzz::round_trip_by_uri(body, protocol::event_packets{});
    fuzz::round_trip_by_uri(body, protocol::frame_packets{});
  }
  return 0;
}
