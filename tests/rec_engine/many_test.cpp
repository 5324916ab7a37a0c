// SPDX-License-Identifier: Apache-2.0
// Engines by the hundred and by the thousand, each with a recorder process.
#include <array>
#include <atomic>
#include <fstream>
#include <thread>
#include <vector>

#include <malloc.h>
#include <unistd.h>

#include "support/link_fixture.h"

namespace zelta::test {
namespace {

class ManyEngines : public LinkTest {
 protected:
  // With one arena for all threads the allocator's own figures are whole.
  static void SetUpTestSuite() { mallopt(M_ARENA_MAX, 1); }
};

TEST_F(ManyEngines, HundredEnginesInOneProcess) {
  setenv("FAKE_RECORDER", "hello join user:1 pcm:50 user:2 await:1", 1);
  const int before = open_descriptors();
  std::array<RecordingHandler, 100> handlers;
  std::vector<std::unique_ptr<IRecordingEngine, Releaser>> engines;
  for (RecordingHandler& one : handlers) {
    engines.emplace_back(IRecordingEngine::createZeltaRecordingEngine("app", &one));
    ASSERT_EQ(engines.back()->joinChannel("key", "room", 1, config), 0) << engines.size();
  }
  for (RecordingHandler& one : handlers) {
    EXPECT_TRUE(one.wait_for("user in 2"));
    EXPECT_EQ(one.count("pcm"), 50);
    EXPECT_EQ(one.calls().size(), 53U) << "and the join and the users";
  }
  for (const auto& one : engines) one->leaveChannel();
  engines.clear();
  EXPECT_LE(open_descriptors(), before);
}

TEST_F(ManyEngines, ThousandJoinsAndLeavesLeaveNothing) {
  setenv("FAKE_RECORDER", "hello join user:1 pcm:5 await:1", 1);
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
          RecordingHandler told;
          auto* const one = IRecordingEngine::createZeltaRecordingEngine("app", &told);
          failed += one == nullptr || one->joinChannel("key", "room", 1, config) != 0 ? 1 : 0;
          if (one != nullptr) one->release();
          failed += told.count("error");
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
