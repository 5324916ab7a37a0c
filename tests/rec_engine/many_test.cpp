// SPDX-License-Identifier: Apache-2.0
// Engines by the hundred and by the thousand, each with a recorder process.
#include <atomic>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include <malloc.h>
#include <unistd.h>

#include "support/link_fixture.h"
#include "support/quiet_handler.h"

namespace zelta::test {
namespace {

class ManyEngines : public LinkTest {
 protected:
  // With one arena for all threads the allocator's own figures are whole.
  static void SetUpTestSuite() { mallopt(M_ARENA_MAX, 1); }
};

// A handler for engines by the hundred: it counts and keeps no lines.
class CountingHandler : public QuietHandler {
 public:
  bool wait_users(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return users_ >= count; });
  }
  std::atomic<int> frames{0};
  std::atomic<int> errors{0};

 private:
  void onUserJoined(recording::uid_t, UserJoinInfos&) override {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++users_;
    changed_.notify_all();
  }
  void audioFrameReceived(unsigned int, const AudioFrame*) override { ++frames; }
  void onError(int, STAT_CODE_TYPE) override { ++errors; }

  std::mutex mutex_;
  std::condition_variable changed_;
  int users_ = 0;
};

TEST_F(ManyEngines, HundredEnginesInOneProcess) {
  setenv("FAKE_RECORDER", "hello join user:1 pcm:50 user:2 await:1", 1);
  const int before = open_descriptors();
  CountingHandler counts;
  std::vector<std::unique_ptr<IRecordingEngine, Releaser>> engines;
  for (int i = 0; i < 100; ++i) {
    engines.emplace_back(IRecordingEngine::createZeltaRecordingEngine("app", &counts));
    ASSERT_EQ(engines.back()->joinChannel("key", "room", 1, config), 0) << i;
  }
  EXPECT_TRUE(counts.wait_users(200));
  EXPECT_EQ(counts.frames, 5000);
  EXPECT_EQ(counts.errors, 0);
  for (const auto& one : engines) one->leaveChannel();
  engines.clear();
  EXPECT_LE(open_descriptors(), before);
  EXPECT_FALSE(has_children());
}

TEST_F(ManyEngines, ThousandJoinsAndLeavesLeaveNothing) {
  setenv("FAKE_RECORDER", "hello join user:1 pcm:5 await:1", 1);
  CountingHandler counts;
  const int before = open_descriptors();
  const auto resident_kb = [] {
    long all = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
  };
  constexpr int kThreads = 50;
  constexpr int kRounds = 20;
  std::atomic<int> failed{0};
  long warm_kb = 0;
  size_t warm_bytes = 0;
  for (int half = 0; half < 2; ++half) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (int round = 0; round < kRounds / 2; ++round) {
          auto* const one = IRecordingEngine::createZeltaRecordingEngine("app", &counts);
          failed += one == nullptr || one->joinChannel("key", "room", 1, config) != 0 ? 1 : 0;
          if (one != nullptr) one->release();
        }
      });
    }
    for (auto& thread : threads) thread.join();
    if (half == 0) {
      warm_kb = resident_kb();
      warm_bytes = mallinfo2().uordblks;
    }
  }
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(counts.errors, 0);
  EXPECT_FALSE(has_children());
  EXPECT_LE(open_descriptors(), before);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr long kGrowthKb = 1 << 20;  // the sanitizers keep what was freed
#else
  constexpr long kGrowthKb = 2048;
#endif
  EXPECT_LT(resident_kb() - warm_kb, kGrowthKb);
  EXPECT_LT(mallinfo2().uordblks, warm_bytes + (64 << 10)) << "500 more sessions keep nothing";
}

}  // namespace
}  // namespace zelta::test
