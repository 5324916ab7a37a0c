// SPDX-License-Identifier: Apache-2.0
// Each callback of the engine's as an event: no value is lost or takes another's place.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "c_interface/event_translator.h"

namespace zelta::test {
namespace {

using namespace recording;

struct Kept : c_interface::event_sink {
  void take(const zelta_event& given) override { event = given; }
  zelta_event event{};
};

TEST(EventTranslator, PassesEachValueOn) {
  Kept kept;
  c_interface::event_translator translator(kept);
  IRecordingEngineEventHandler& h = translator;
  const auto& as = kept.event.as;
  const uchar_t bytes[9] = {};
  UserJoinInfos infos;
  infos.storageDir = "/f/";
  AudioAacFrame aac(1);
  aac.aacBuf_ = bytes;
  aac.aacBufSize_ = 2;
  aac.channels_ = 3;
  aac.bitrate_ = 4;
  AudioFrame audio;
  audio.type = AUDIO_FRAME_AAC;
  audio.frame.aac = &aac;
  VideoH264Frame h264{1, 2, bytes, 3};
  VideoJpgFrame jpg{4, bytes, 5};
  VideoFrame coded;
  coded.type = VIDEO_FRAME_H264;
  coded.frame.h264 = &h264;
  coded.rotation_ = 90;
  VideoFrame image = coded;
  image.type = VIDEO_FRAME_JPG;
  image.frame.jpg = &jpg;
  const AudioVolumeInfo volumes[] = {{1, 2}, {3, 4}};

  using values = std::vector<uint64_t>;
  const auto u = [](auto value) { return static_cast<uint64_t>(value); };
  h.onError(1, STAT_POLL_HANG_UP);
  EXPECT_EQ((values{u(kept.event.kind), u(as.error.error), u(as.error.stat_code)}),
            (values{ZELTA_EVENT_ERROR, 1, 16}));
  EXPECT_TRUE(ZELTA_HAS(&kept.event, as.error.stat_code));
  EXPECT_FALSE(ZELTA_HAS(&kept.event, as.video.data)) << "of another kind";
  h.onLeaveChannel(LEAVE_CODE_NO_USERS);
  EXPECT_EQ((values{u(kept.event.kind), u(as.left.reason)}), (values{ZELTA_EVENT_LEFT, 4}));
  h.onUserJoined(5, infos);
  EXPECT_EQ((values{u(kept.event.kind), kept.event.uid}), (values{ZELTA_EVENT_USER_JOINED, 5}));
  EXPECT_STREQ(as.user_joined.storage_dir, "/f/");
  h.onUserOffline(6, USER_OFFLINE_BECOME_AUDIENCE);
  EXPECT_EQ((values{u(kept.event.kind), kept.event.uid, u(as.user_offline.reason)}),
            (values{ZELTA_EVENT_USER_OFFLINE, 6, 2}));
  h.audioFrameReceived(7, &audio);
  EXPECT_EQ((values{u(as.audio.format), as.audio.time_ms, as.audio.data_bytes, as.audio.channels,
                    as.audio.bitrate, as.audio.samples}),
            (values{ZELTA_AUDIO_AAC, 1, 2, 3, 4, 0}));
  EXPECT_EQ(as.audio.data, bytes);
  h.videoFrameReceived(8, &coded);
  EXPECT_EQ((values{u(as.video.format), as.video.time_ms, as.video.frame_number,
                    as.video.data_bytes, u(as.video.rotation), as.video.width}),
            (values{ZELTA_VIDEO_H264, 1, 2, 3, 90, 0}));
  h.videoFrameReceived(8, &image);
  EXPECT_EQ((values{u(as.video.format), as.video.time_ms, as.video.data_bytes}),
            (values{ZELTA_VIDEO_JPG, 4, 5}));
  h.onActiveSpeaker(9);
  EXPECT_EQ((values{u(kept.event.kind), kept.event.uid}), (values{ZELTA_EVENT_SPEAKER, 9}));
  h.onAudioVolumeIndication(volumes, 2);
  EXPECT_EQ((values{u(kept.event.kind), as.volumes.count, as.volumes.speakers[1].uid,
                    as.volumes.speakers[1].volume}),
            (values{ZELTA_EVENT_VOLUMES, 2, 3, 4}));
  h.onFirstRemoteVideoDecoded(5, 6, 7, 8);
  EXPECT_EQ((values{u(kept.event.kind), kept.event.uid, u(as.first_video.width),
                    u(as.first_video.height), u(as.first_video.elapsed_ms)}),
            (values{ZELTA_EVENT_FIRST_VIDEO, 5, 6, 7, 8}));
  h.onFirstRemoteAudioFrame(5, 6);
  EXPECT_EQ((values{u(kept.event.kind), kept.event.uid, u(as.first_audio.elapsed_ms)}),
            (values{ZELTA_EVENT_FIRST_AUDIO, 5, 6}));
  h.onReceivingStreamStatusChanged(true, false);
  EXPECT_EQ((values{u(kept.event.kind), u(as.receiving.audio), u(as.receiving.video)}),
            (values{ZELTA_EVENT_RECEIVING, 1, 0}));
  h.onConnectionLost();
  EXPECT_EQ((values{u(kept.event.kind), kept.event.uid}), (values{ZELTA_EVENT_LOST, 0}));
  h.onConnectionInterrupted();
  EXPECT_EQ(kept.event.kind, ZELTA_EVENT_INTERRUPTED);
}

}  // namespace
}  // namespace zelta::test
