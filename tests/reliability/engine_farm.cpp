// SPDX-License-Identifier: Apache-2.0
// An application with many engines that record one session after the other until its input ends.
//
//     engine_farm ENGINES ROOT SECONDS [frames|half]
//
// With "frames" it takes pictures and sound as frames instead of having them recorded, with "half"
// in every second session; then half of the sessions record into one folder, which the settings
// fix. Each session has a channel of its own, in a folder of channels a link to "torture". Prints a
// line of JSON an event. Who runs it kills its recorders, and it, and looks at what is left;
// scripts/torture.sh does.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <unistd.h>

#include "base/clocks.h"
#include "base/log.h"
#include "rec_engine/RecordingEngineImpl.h"
#include "support/quiet_handler.h"

namespace {

using namespace zelta;
using namespace zelta::recording;

std::mutex output;
// Sessions wait for their own failure, or for the end of everything.
std::mutex waiting;
std::condition_variable changed;
bool over = false;

bool is_over() {
  const std::lock_guard<std::mutex> guard(waiting);
  return over;
}

// What the engine has counted of a user. On its own thread.
struct counters_of : RecordingEngineImpl {
  static const mediaFrameCnt* in(const RecordingEngineImpl& engine, uint32_t uid) {
    const auto& peers = engine.*(&counters_of::peers_);
    const auto found = peers.find(uid);
    return found != peers.end() ? found->second.get() : nullptr;
  }
};

// A block of sound, and what rounding to milliseconds makes of the time between two.
constexpr int64_t kBlockMs = 20;
constexpr int64_t kRoundingMs = 1;

class session final : public test::QuietHandler {
 public:
  session(int slot, int number)
      : slot_(slot),
        number_(number),
        channel_("torture_" + std::to_string(slot) + "_" + std::to_string(number)) {}

  // `settings`: a configuration file, or null.
  void run(const char* root, int seconds, bool frames, const char* settings) {
    const char* const given = std::getenv("ZELTA_CHANNEL_SERVER");
    const std::string server = given != nullptr ? given : "";
    std::error_code ignored;
    if (server.rfind("dir:", 0) == 0) {
      std::filesystem::create_directory_symlink("torture", server.substr(4) + "/" + channel_,
                                                ignored);
    }
    RecordingConfig config;
    config.recordFileRootDir = const_cast<char*>(root);
    config.cfgFilePath = const_cast<char*>(settings);
    if (frames) {
      config.decodeAudio = AUDIO_FORMAT_PCM_FRAME_TYPE;
      config.decodeVideo = VIDEO_FORMAT_YUV_FRAME_TYPE;
    }
    IRecordingEngine* const engine = IRecordingEngine::createZeltaRecordingEngine("torture", this);
    engine_ = static_cast<const RecordingEngineImpl*>(engine);
    const int joined =
        engine == nullptr ? -1 : engine->joinChannel("", channel_.c_str(), 0, config);
    if (joined == 0) {
      {
        // Events are said on the engine's thread meanwhile.
        const std::lock_guard<std::mutex> guard(output);
        folder_ = engine->getProperties()->storageDir;
      }
      say("started", 0);
      std::unique_lock<std::mutex> lock(waiting);
      changed.wait_for(lock, std::chrono::seconds(seconds), [this] { return failed_ || over; });
    }
    say("leaving", 0);
    const int64_t leaving = base::tick_ms();
    if (engine != nullptr) engine->release();
    if (frames) {
      say("frames", static_cast<int>(frames_));
      say("miscounted", static_cast<int>(miscounted_));
      say("jumps", static_cast<int>(jumps_));
    }
    say("ended", joined == 0 ? static_cast<int>(base::tick_ms() - leaving) : joined);
  }

 private:
  void onError(int error, STAT_CODE_TYPE) override {
    say("error", error);
    const std::lock_guard<std::mutex> guard(waiting);
    failed_ = true;
    changed.notify_all();
  }
  void audioFrameReceived(unsigned int uid, const AudioFrame* frame) override {
    user& from = users_[uid];
    ++from.sound;
    compare(uid, from);
    const auto at = static_cast<int64_t>(frame->frame.pcm->frame_ms_);
    const int64_t off = at - from.next_ms;
    if (from.sound > 1 && (off < -kRoundingMs || off > kRoundingMs)) ++jumps_;
    from.next_ms = at + kBlockMs;
  }
  void videoFrameReceived(unsigned int uid, const VideoFrame*) override {
    user& from = users_[uid];
    ++from.pictures;
    compare(uid, from);
  }
  void onWarning(int code) override { say("warning", code); }
  void onJoinChannelSuccess(const char*, recording::uid_t) override { say("joined", 0); }
  void onLeaveChannel(LEAVE_PATH_CODE code) override { say("leave", code); }
  void onUserJoined(recording::uid_t uid, UserJoinInfos&) override {
    say("user", static_cast<int>(uid));
  }
  void onUserOffline(recording::uid_t uid, USER_OFFLINE_REASON_TYPE) override { users_.erase(uid); }

  // What has come of a user, whichever recorder sent it.
  struct user {
    uint32_t sound = 0;
    uint32_t pictures = 0;
    int64_t next_ms = 0;
  };

  void compare(uint32_t uid, const user& from) {
    ++frames_;
    const auto* const counted = counters_of::in(*engine_, uid);
    const bool same =
        counted != nullptr && counted->pcmCnt == from.sound && counted->yuvCnt == from.pictures;
    if (!same) ++miscounted_;
  }

  void say(const char* event, int value) {
    const std::lock_guard<std::mutex> guard(output);
    std::printf(
        "{\"slot\": %d, \"session\": %d, \"event\": \"%s\", \"value\": %d, \"utc_ms\": %lld, "
        "\"folder\": \"%s\", \"channel\": \"%s\"}\n",
        slot_, number_, event, value, static_cast<long long>(base::utc_ms()), folder_.c_str(),
        channel_.c_str());
    std::fflush(stdout);
  }

  const int slot_;
  const int number_;
  const std::string channel_;
  std::string folder_;
  bool failed_ = false;
  const RecordingEngineImpl* engine_ = nullptr;
  // On the engine's thread, until it has ended.
  std::map<uint32_t, user> users_;
  unsigned frames_ = 0;
  unsigned miscounted_ = 0;
  unsigned jumps_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::fprintf(stderr, "usage: engine_farm ENGINES ROOT SECONDS [frames|half]\n");
    return 2;
  }
  base::log_config::set_log_level(base::ERROR_LOG);
  const int seconds = std::atoi(argv[3]);
  const std::string root = argv[2];
  const std::string settings = root + "/settings.json";
  std::ofstream(settings) << "{\"Recording_Dir\": \"" << root << "/shared\"}\n";
  std::vector<std::thread> slots;
  for (int slot = 0; slot < std::atoi(argv[1]); ++slot) {
    slots.emplace_back(
        [slot, seconds, &root, &settings, mode = std::string(argc == 5 ? argv[4] : "")] {
          for (int number = 0; !is_over(); ++number) {
            const bool half = mode == "half";
            const bool frames = mode == "frames" || (half && number % 2 == 1);
            const bool shared = half && number % 4 < 2;
            std::make_unique<session>(slot, number)
                ->run(root.c_str(), seconds, frames, shared ? settings.c_str() : nullptr);
          }
        });
  }
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
  {
    const std::lock_guard<std::mutex> guard(waiting);
    over = true;
  }
  changed.notify_all();
  for (std::thread& slot : slots) slot.join();
  return 0;
}
