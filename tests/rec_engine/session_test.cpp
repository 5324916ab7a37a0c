// SPDX-License-Identifier: Apache-2.0
// A session over a fake router: life, commands, events, frames, reports, recovery.
#include <chrono>
#include <csignal>
#include <cstring>

#include <gtest/gtest.h>

#include "base/clocks.h"
#include "support/engine_probe.h"
#include "support/packets.h"

namespace zelta::test {
namespace {

using namespace protocol;
using std::string;

// ---- Life ----------------------------------------------------------------------------------

TEST(Factory, RefusesWithoutAppIdOrHandler) {
  RecordingHandler handler;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(IRecordingEngine::createZeltaRecordingEngine(nullptr, &handler), nullptr);
  EXPECT_EQ(IRecordingEngine::createZeltaRecordingEngine("", &handler), nullptr);
  EXPECT_EQ(IRecordingEngine::createZeltaRecordingEngine("app", nullptr), nullptr);
  const auto lines = lines_of(::testing::internal::GetCapturedStderr());
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_NE(lines[1].find(": app id is empty"), string::npos);
  EXPECT_NE(lines[2].find(": event handler is empty"), string::npos);
  EXPECT_NE(lines[2].find("(" + std::to_string(getpid()) + ") "), string::npos);
  EXPECT_NE(lines[2].find("src/rec_engine/RecordingEngineImpl"), string::npos);
}

TEST(Factory, EngineThatNeverJoinedCanBeReleased) {
  RecordingHandler handler;
  IRecordingEngine* const engine = IRecordingEngine::createZeltaRecordingEngine("app", &handler);
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(engine->getProperties()->storageDir, nullptr);
  EXPECT_EQ(std::signal(SIGPIPE, SIG_IGN), SIG_IGN);
  EXPECT_EQ(engine->release(), 0);
  EXPECT_TRUE(handler.calls().empty());
}

TEST_F(EngineTest, ReleaseLeavesThenShutsTheRouterThenDropsTheTimer) {
  EXPECT_EQ(join(), 0);
  EXPECT_TRUE(engine->joined_);
  EXPECT_TRUE(engine->thread_started_);
  const string log_folder = engine->logdir_;
  EXPECT_EQ(engine.release()->release(), 0);
  const auto lines = logged(log_folder);
  EXPECT_EQ(router.sent_uris(), std::vector<int>{leave_packet::kUri});
  EXPECT_EQ(router.last<leave_packet>().reason, 0U);
  EXPECT_EQ(router.shutdowns, 1);
  EXPECT_TRUE(router.deleted);
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[lines.size() - 3], "API call to leave channel not in event loop thread");
  EXPECT_NE(lines[lines.size() - 2].find("is ready to be release"), string::npos);
  EXPECT_EQ(lines.back(), "Recording wrapper delete timer");
}

TEST_F(EngineTest, SecondLeaveDoesNothing) {
  EXPECT_EQ(join(), 0);
  const auto joined = std::chrono::steady_clock::now();
  EXPECT_EQ(engine->leaveChannel(), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - joined, std::chrono::milliseconds(400))
      << "the first tick, half a second after the thread's start, ends it";
  EXPECT_FALSE(engine->joined_);
  EXPECT_FALSE(engine->thread_started_);
  new_lines();
  EXPECT_EQ(engine->leaveChannel(), 0);
  EXPECT_EQ(new_lines(), Lines{"API call to stopped on error not in event loop thread"});
}

TEST_F(EngineTest, FailedLaunchLeavesTheEngineUnjoined) {
  router.launch_result = -7;
  EXPECT_EQ(join(), -7);
  EXPECT_FALSE(engine->joined_);
  EXPECT_FALSE(engine->thread_started_);
  EXPECT_EQ(logged(engine->logdir_).back(), "joinChannel failed to pushParamsToZRS");
  EXPECT_NE(engine->getProperties()->storageDir, nullptr) << "the folder stays";
}

TEST_F(EngineTest, SecondJoinEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(join(); join(), ::testing::KilledBySignal(SIGABRT), "terminate called");
}

TEST_F(EngineTest, LeaveBeforeTheJoinOrBetweenTwoSparesTheProcess) {
  for (const bool joins_first : {false, true}) {
    IRecordingEngine* const one =
        std::make_unique<EngineProbe>("app", &handler,
                                      std::make_unique<FakeRouter>(router).release())
            .release();
    const int first = joins_first ? one->joinChannel("k", "room", 1, config) : 0;
    EXPECT_EQ(first, 0);
    EXPECT_EQ(one->leaveChannel(), 0);
    EXPECT_EQ(one->joinChannel("k", "room", 1, config), 0);
    EXPECT_EQ(one->release(), 0);
  }
}

TEST(GetNs, IsTheNanosecondFieldAlone) {
  for (int i = 0; i < 1000; ++i) EXPECT_LT(get_ns(), 1'000'000'000U);
}

// ---- Commands ------------------------------------------------------------------------------

TEST_F(EngineTest, CommandsSendTheirPacketsAndLog) {
  new_lines();
  EXPECT_EQ(engine->setUserBackground(5, "a.png"), 0);
  expect_sent<set_user_background_packet>(5U, "a.png");
  EXPECT_EQ(engine->setUserBackground(6, nullptr), 0);
  expect_sent<set_user_background_packet>(6U, "");
  EXPECT_EQ(engine->setParameters(R"({"a":1})"), 0);
  expect_sent<parameters_packet>(R"({"a":1})");
  EXPECT_EQ(engine->setParameters(nullptr), 0);
  expect_sent<parameters_packet>("");
  EXPECT_EQ(engine->enableModuleLog(8, false), 0);
  expect_sent<log_enable_module_packet>(8U, 0);
  EXPECT_EQ(base::log_config::get_enabled_modules(), 0xFFFFFFF7U);
  EXPECT_EQ(engine->enableModuleLog(8, true), 0);
  expect_sent<log_enable_module_packet>(8U, 1);
  EXPECT_EQ(base::log_config::get_enabled_modules(), 0xFFFFFFFFU);
  EXPECT_EQ(engine->setLogLevel(ZELTA_LOG_LEVEL_DEBUG), 0);
  expect_sent<set_log_level_packet>(6U);
  EXPECT_EQ(base::log_config::get_log_level(), base::DEBUG_LOG);
  EXPECT_EQ(engine->setVideoMixingLayout(VideoMixingLayout()), 0);
  const size_t size = router.last<video_mixing_layout_packet>().data.size();
  EXPECT_EQ(
      new_lines(),
      (Lines{"setUserBackground : uid :5 ,path :a.png",
             "setUserBackground : uid :6 ,path :", "enableModuleLog , enable 0 log for module :8",
             "enableModuleLog , enable 1 log for module :8", "setLogLevel , set log level to : 6",
             "write_packet: encodedlayout size: " + std::to_string(size)}));
  for (const auto& p : router.sent) EXPECT_EQ(p->server_type, 0);
}

TEST_F(EngineTest, LayoutThatCannotBeEncodedIsRefused) {
  VideoMixingLayout layout;
  layout.regionCount = 1;
  EXPECT_EQ(engine->setVideoMixingLayout(layout), -2);
  EXPECT_TRUE(router.sent.empty());
}

TEST_F(EngineTest, CommandsWorkWithoutARouter) {
  EngineProbe bare("app", nullptr, nullptr);
  EXPECT_EQ(bare.setParameters("x"), 0);
  EXPECT_EQ(bare.setUserBackground(1, "x"), 0);
  EXPECT_EQ(bare.setVideoMixingLayout(VideoMixingLayout()), 0);
  bare.on_user_joined(1, "");
  bare.on_active_speaker(1);
  bare.on_audio_volume_indication({1}, {2});
  EXPECT_EQ(bare.peers_.size(), 1U);
  bare.on_user_dropped(1);
  EXPECT_TRUE(bare.on_error(16));
  EXPECT_TRUE(bare.peers_.empty());
}

TEST_F(EngineTest, ServiceIsToggledInManualModeOnly) {
  const auto start = [this] { return engine->startService(); };
  const auto stop = [this] { return engine->stopService(); };
  const struct {
    bool joined;
    uint32_t mode;
    bool active;
    std::function<int()> call;
    int result;
    const char* line;
  } rows[] = {
      {false, 1, false, start, -1, "failed to start service, joined channel: 0 trigger mode: 1"},
      {true, 0, false, start, -1, "failed to start service, joined channel: 1 trigger mode: 0"},
      {true, 1, false, start, 0, "User trigger start service"},
      {true, 1, true, start, -1, "engine has already started service"},
      {true, 0, true, stop, -1, "failed to stop service, joined channel: 1 trigger mode: 0"},
      {true, 1, false, stop, -1, "engine hasn't started service yet "},
      {true, 1, true, stop, 0, "User trigger stop service"},
  };
  for (const auto& row : rows) {
    engine->joined_ = row.joined;
    engine->config_.triggerMode = row.mode;
    engine->isSessionActive_ = row.active;
    router.sent.clear();
    new_lines();
    EXPECT_EQ(row.call(), row.result) << row.line;
    EXPECT_EQ(new_lines(), Lines{row.line});
    EXPECT_EQ(engine->isSessionActive_.load(), row.result == 0 ? !row.active : row.active);
    EXPECT_EQ(router.sent.size(), row.result == 0 ? 1U : 0U);
    if (row.result == 0) {
      EXPECT_EQ(router.sent_uris()[0], row.active ? 21 : 20);
    }
  }
}

// ---- Events --------------------------------------------------------------------------------

TEST_F(EngineTest, JoinedStateFollowsTheRecorder) {
  engine->on_join_channel_success(1, "room");
  engine->isSessionActive_ = true;
  EXPECT_TRUE(engine->joined_);
  EXPECT_EQ(engine->recovery_.flag, 1);
  engine->on_recorder_error(1, 1);
  EXPECT_FALSE(engine->joined_);
  EXPECT_FALSE(engine->isSessionActive_);
}

// ---- Frames and counting -------------------------------------------------------------------

TEST_F(EngineTest, FramesAreWrappedWithoutACopyAndCountedByKind) {
  using Counts = std::array<uint32_t, 4>;  // yuv, h264, jpg, pcm
  const auto counts = [this]() -> Counts {
    const auto& c = *engine->peers_.at(3);
    return {c.yuvCnt, c.h264Cnt, c.jpgCnt, c.pcmCnt};
  };
  const auto check = [&](const auto& packet, const string& call, const Counts& once) {
    SCOPED_TRACE(call);
    const auto deliver = [&] { engine->on_receive_packet(packet, packet.uri); };
    const Counts twice{2 * once[0], 2 * once[1], 2 * once[2], 2 * once[3]};
    handler.clear();
    deliver();
    EXPECT_EQ(handler.calls(), Lines{call});
    EXPECT_EQ(handler.payload, reinterpret_cast<const uint8_t*>(packet.data.data()));
    EXPECT_TRUE(engine->peers_.empty()) << "an unknown user gets no entry";
    engine->on_user_joined(3, "");
    deliver();
    EXPECT_EQ(counts(), once);
    engine->m_handler = nullptr;
    deliver();
    EXPECT_EQ(counts(), twice);
    engine->m_handler = &handler;
    engine->on_user_joined(3, "");
    EXPECT_EQ(counts(), twice) << "a second join keeps the counts";
    engine->on_user_dropped(3);
  };
  const string data(40, 'x');
  check(made<pcm_frame>(3, 40, 2, 16, 48000, string(3840, 'x'), 0),
        "pcm 3 40 2 16 48000 1920 3840 0", {0, 0, 0, 1});
  check(made<aac_frame>(3, 40, data, 0, 2, 64000), "aac 3 40 2 64000 40", {0, 0, 0, 0});
  check(made<yuv_frame>(3, 40, 5, 3, 8, 5, 6, data), "yuv 3 40 5 3 8 5 6 40 0 24 31 0",
        {0, 0, 0, 0});
  check(made<yuv_frame2>(270, 3, 40, 5, 3, 8, 5, 6, data, 0), "yuv 3 40 5 3 8 5 6 40 0 24 31 270",
        {1, 0, 0, 0});
  check(made<yuv_frame2>(0, 3, 40, 5, 3, 8, 5, 6, "", 0), "yuv 3 40 5 3 8 5 6 0 0 24 31 0",
        {1, 0, 0, 0});
  check(made<h264_frame>(3, 40, 8, data), "h264 3 40 8 40 0", {0, 0, 0, 0});
  check(made<h264_frame2>(90, 3, 40, 8, data, 0), "h264 3 40 8 40 90", {0, 1, 0, 0});
  check(made<jpg_frame>(180, 3, 40, data), "jpg 3 40 40 180", {0, 0, 1, 0});
}

TEST_F(EngineTest, ReportsGoOutEveryFourthTickByConfiguration) {
  for (uint32_t uid : {30U, 10U, 20U}) engine->on_user_joined(uid, "");
  engine->peers_.at(10)->pcmCnt = 1;
  engine->peers_.at(20)->yuvCnt = 2;
  engine->peers_.at(30)->h264Cnt = 3;
  engine->peers_.at(30)->jpgCnt = 4;
  using V = std::vector<uint32_t>;
  const V uids{10, 20, 30};
  const V pcm{1, 0, 0};
  const V yuv{0, 2, 0};
  const V h264{0, 0, 3};
  const V jpg{0, 0, 4};
  const auto after_four_ticks = [this](VIDEO_FORMAT_TYPE video, AUDIO_FORMAT_TYPE audio) {
    engine->config_.decodeVideo = video;
    engine->config_.decodeAudio = audio;
    router.sent.clear();
    for (int tick = 1; tick <= 4; ++tick) {
      EXPECT_TRUE(router.sent.empty());
      engine->on_timer();
    }
    return router.sent.size();
  };
  ASSERT_EQ(after_four_ticks(VIDEO_FORMAT_YUV_FRAME_TYPE, AUDIO_FORMAT_PCM_FRAME_TYPE), 1U);
  expect_sent<media_frame_confirm_packet>(uids, pcm, yuv, h264, jpg);
  ASSERT_EQ(after_four_ticks(VIDEO_FORMAT_YUV_FRAME_TYPE, AUDIO_FORMAT_DEFAULT_TYPE), 1U);
  expect_sent<video_frame_confirm_packet>(uids, yuv, h264, jpg);
  ASSERT_EQ(after_four_ticks(VIDEO_FORMAT_DEFAULT_TYPE, AUDIO_FORMAT_PCM_FRAME_TYPE), 1U);
  expect_sent<audio_frame_confirm_packet>(uids, pcm);
  EXPECT_EQ(after_four_ticks(VIDEO_FORMAT_DEFAULT_TYPE, AUDIO_FORMAT_DEFAULT_TYPE), 0U);
  for (uint32_t uid : uids) engine->on_user_dropped(uid);
  EXPECT_EQ(after_four_ticks(VIDEO_FORMAT_YUV_FRAME_TYPE, AUDIO_FORMAT_DEFAULT_TYPE), 0U)
      << "nobody to report about";
}

TEST_F(EngineTest, StatisticsAreLoggedEveryTwentiethTickAndCleared) {
  engine->channelId_ = "room";
  engine->stats_.totalPackets = 1;
  engine->stats_.pcmPackets = 2;
  engine->stats_.pcmTotalPackets = 3;
  engine->stats_.aacPackets = 4;
  engine->stats_.yuvPackets = 90;
  engine->stats_.yuvF2Packets = 5;
  engine->stats_.h264F2Packets = 6;
  engine->stats_.errPackets = 7;
  engine->stats_.otherPackets = 8;
  new_lines();
  for (int tick = 0; tick < 19; ++tick) engine->on_timer();
  EXPECT_TRUE(new_lines().empty());
  engine->config_.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE;
  engine->on_user_joined(5, "");
  router.on_send = [this] { EXPECT_EQ(engine->stats_.totalPackets, 0U) << "the report is second"; };
  engine->on_timer();
  router.on_send = nullptr;
  EXPECT_EQ(router.sent_uris(), (std::vector<int>{15, 18}));
  router.sent.clear();
  EXPECT_EQ(new_lines(),
            Lines{"[Wrapper] channel id: room packet stats, total: 1, "
                  "callback_->AudioFrameReceived: pcmPackets: 2, pcmTotalPackets: 3, aacPackets: "
                  "4, yuvF2Packets: 5, h264F2Packets: 6, errPackets: 7, otherPackets: 8"});
  EXPECT_EQ(engine->stats_.yuvPackets, 0U);
  engine->stopped_ = true;
  engine->on_timer();
  engine->on_timer();
  EXPECT_EQ(router.sent_uris(), (std::vector<int>{1, 1})) << "every tick until the loop ends";
}

// ---- Recovery ------------------------------------------------------------------------------

TEST_F(EngineTest, RecoveryDependsOnEventAndSession) {
  const struct {
    const char* name;
    int flag;
    int event;
    bool with_handler;
    bool recovers;
  } rows[] = {
      {"error", 1, 8, true, true},
      {"hang-up", 1, 16, true, true},
      {"peer hang-up", 1, 0x2000, true, true},
      {"invalid descriptor", 1, 32, true, false},
      {"several bits", 1, 16 | 32, true, true},
      {"never joined", 0, 16, true, false},
      {"left", 1 | 2, 16, true, false},
      {"final leave", 1 | 2 | 4, 16, true, false},
      {"no handler", 1, 16, false, false},
  };
  for (const auto& row : rows) {
    engine->recovery_.flag = row.flag;
    engine->m_handler = row.with_handler ? &handler : nullptr;
    new_lines();
    EXPECT_EQ(engine->needRecovery(row.event), row.recovers) << row.name;
    EXPECT_EQ(new_lines(),
              Lines{"RECOVERY: needRecovery, event :" + std::to_string(row.event) + ", flag"});
    if (row.recovers) continue;
    engine->joined_ = true;
    engine->isSessionActive_ = true;
    handler.clear();
    EXPECT_TRUE(engine->on_error(row.event));
    EXPECT_EQ(handler.calls(),
              row.with_handler ? Lines{"error 3 " + std::to_string(row.event)} : Lines{})
        << row.name;
    EXPECT_FALSE(engine->joined_);
    EXPECT_FALSE(engine->isSessionActive_);
  }
  EXPECT_TRUE(router.relaunches.empty());
  engine->m_handler = &handler;
}

TEST_F(EngineTest, ThreeRecoveriesThenAnError) {
  engine->on_join_channel_success(1, "room");
  engine->config_.triggerMode = 1;
  std::vector<const char*> args{"prog", "--a", "1", nullptr};
  engine->backup_args(args);
  EXPECT_EQ(static_cast<int>(engine->recovery_.recovery_stat), 0);
  for (int attempt = 1; attempt <= 3; ++attempt) {
    new_lines();
    engine->isSessionActive_ = false;
    EXPECT_TRUE(engine->on_error(16));
    EXPECT_EQ(static_cast<int>(engine->recovery_.recovery_stat), 2) << "relaunched";
    Lines line = router.relaunches.back();
    ASSERT_EQ(line.size(), 8U);
    EXPECT_NEAR(std::stod(std::exchange(line[6], "NOW")), static_cast<double>(base::tick_ms()),
                60'000);
    EXPECT_EQ(line, words_of("prog --a 1 --recoveryid " + std::to_string(attempt) +
                             " --recoverytime NOW (null)"));
    // Manual mode starts the new recorder's service.
    expect_sent<start_service_packet>(0U);
    EXPECT_TRUE(engine->isSessionActive_);
    EXPECT_TRUE(engine->joined_);
    const auto lines = new_lines();
    EXPECT_EQ(lines[1], "Error occur, try to recover.");
    EXPECT_EQ(lines[3],
              "======recovery video_recorder " + std::to_string(attempt) + " times ======");
    EXPECT_EQ(lines[lines.size() - 2], "(null)") << "the terminator is shown";
    EXPECT_EQ(lines.back(), "recovery auto trigger start service");
  }
  EXPECT_TRUE(engine->on_error(8));
  EXPECT_EQ(handler.calls(),
            (Lines{"joined room 1", "warning 108", "warning 108", "warning 108", "error 3 8"}));
  EXPECT_TRUE(said("times is 0."));
  EXPECT_EQ(engine->recovery_.times, 0);
}

TEST_F(EngineTest, FailedRelaunchCountsAndIsAnError) {
  engine->on_join_channel_success(1, "room");
  router.launch_result = -1;
  EXPECT_TRUE(engine->on_error(16));
  EXPECT_EQ(engine->recovery_.times, 2);
  EXPECT_EQ(static_cast<int>(engine->recovery_.recovery_stat), 1) << "tried";
  EXPECT_EQ(handler.calls().back(), "error 3 16");
}

TEST_F(EngineTest, LeaveOfTheRecorderRulesOutRecovery) {
  const struct {
    uint32_t reason;
    int flag;
  } rows[] = {{16, 1 | 2}, {0, 1 | 2}, {2, 7}, {4, 7}, {8, 7}, {16 | 4, 7}};
  for (const auto& row : rows) {
    engine->recovery_.flag = 0;
    engine->on_join_channel_success(1, "room");
    engine->isSessionActive_ = true;
    handler.clear();
    int flag_in_handler = 0;
    handler.also = [&](const string&) { flag_in_handler = engine->recovery_.flag; };
    engine->on_leave(row.reason);
    handler.also = nullptr;
    EXPECT_EQ(handler.calls(), Lines{"leave " + std::to_string(row.reason)});
    EXPECT_EQ(engine->recovery_.flag, row.flag);
    EXPECT_EQ(flag_in_handler, 3) << "the final leave is noted after the handler";
    EXPECT_FALSE(engine->joined_);
    EXPECT_FALSE(engine->isSessionActive_);
    EXPECT_FALSE(engine->checkRecoveryFlag());
  }
}

TEST_F(EngineTest, BackupKeepsTheCommandLineWithoutTheLink) {
  const struct {
    std::vector<const char*> args;
    Lines kept;
  } rows[] = {
      {{"p", "--a", "1", nullptr}, {"p", "--a", "1"}},
      {{"p", "--write", "4", "--a", "1", "--read", "3", nullptr}, {"p", "--a", "1"}},
      {{"p", "--read", "3", "--read", "5", nullptr}, {"p", "--read", "5"}},
      {{"p", nullptr, "--a", nullptr}, {"p"}},
      {{"p", "--a"}, {"p", "--a"}},
      {{"p", "--write", nullptr}, {"p"}},
      {{"p", "--c", "--write", "--d", "--read", "--write", "4", nullptr},
       {"p", "--c", "--write", "--d", "--read"}},
  };
  for (const auto& row : rows) {
    engine->args_.clear();
    engine->args_str_.clear();
    auto args = row.args;
    EXPECT_EQ(engine->backup_args(args), 0);
    EXPECT_EQ(engine->args_str_, row.kept);
    ASSERT_EQ(engine->args_.size(), row.kept.size() + 1);
    EXPECT_EQ(engine->args_[0], engine->args_str_[0].c_str());
    EXPECT_EQ(engine->args_.back(), nullptr);
  }
}

TEST_F(EngineTest, SecondBackupStandsBehindTheFirst) {
  std::vector<const char*> args{"p", "--a", nullptr};
  engine->backup_args(args);
  engine->backup_args(args);
  EXPECT_EQ(engine->args_str_, (Lines{"p", "--a", "p", "--a"}));
  ASSERT_EQ(engine->args_.size(), 8U);
  EXPECT_EQ(engine->args_[2], nullptr);
  EXPECT_EQ(engine->prepare_recovery_args(), 0);
  EXPECT_EQ(engine->prepare_recovery_args(), 0);
  EXPECT_EQ(engine->args_.size(), 9U) << "one recovery pair, however often";
}

TEST_F(EngineTest, RelaunchStartsWithTheJoinsCommandLineWhateverItHolds) {
  std::vector<const char*> args{"p",   "--channel_id", "--recoveryid", "--a", "--recoverytime",
                                "--b", "--write",      nullptr};
  engine->backup_args(args);
  const Lines join = engine->args_str_;
  for (int relaunch = 0; relaunch < 2; ++relaunch) {
    engine->prepare_recovery_args();
    const Lines& line = engine->args_str_;
    ASSERT_EQ(line.size(), join.size() + 4);
    EXPECT_TRUE(std::equal(join.begin(), join.end(), line.begin()));
  }
}

TEST_F(EngineTest, StoppedOnErrorOffTheEngineThreadOnlyLogs) {
  new_lines();
  EXPECT_EQ(engine->stoppedOnError(), 0);
  EXPECT_EQ(new_lines(), Lines{"API call to stopped on error not in event loop thread"});
  EXPECT_TRUE(router.sent.empty());
}

// ---- What applications were compiled against -----------------------------------------------

// The place of a virtual function in its table, as the C++ ABI of Linux keeps it in a pointer.
template <class Member>
ptrdiff_t slot_of(Member member) {
  ptrdiff_t place = 0;
  std::memcpy(&place, &member, sizeof place);
  return (place - 1) / static_cast<ptrdiff_t>(sizeof(void*));
}

// The first two are the destructor's.
template <class... Members>
bool in_order(Members... members) {
  ptrdiff_t next = 2;
  return ((slot_of(members) == next++) && ...);
}

TEST(PublicInterface, VirtualFunctionsKeepTheirPlaces) {
  using H = IRecordingEngineEventHandler;
  EXPECT_TRUE(in_order(
      &H::onError, &H::onWarning, &H::onJoinChannelSuccess, &H::onLeaveChannel, &H::onUserJoined,
      &H::onUserOffline, &H::audioFrameReceived, &H::videoFrameReceived, &H::onActiveSpeaker,
      &H::onAudioVolumeIndication, &H::onFirstRemoteVideoDecoded, &H::onFirstRemoteAudioFrame,
      &H::onReceivingStreamStatusChanged, &H::onConnectionLost, &H::onConnectionInterrupted));
  using E = IRecordingEngine;
  EXPECT_TRUE(in_order(&E::joinChannel, &E::setVideoMixingLayout, &E::stoppedOnError,
                       &E::leaveChannel, &E::release, &E::getProperties, &E::startService,
                       &E::stopService, &E::setUserBackground, &E::setLogLevel));
  EXPECT_EQ(VideoH264Frame().frame_ms_ + VideoJpgFrame().frame_ms_, 0U);
}

}  // namespace
}  // namespace zelta::test
