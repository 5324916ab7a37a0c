// SPDX-License-Identifier: Apache-2.0
// The parts of a delivery that stand alone: waiting, digests, the state on disk.
#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "digest.h"
#include "http_client.h"
#include "ledger.h"
#include "pace.h"
#include "recordings/recording_folder.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using std::chrono::milliseconds;

TEST(Backoff, DoublesUpToItsBoundAndNeverFallsBelowHalf) {
  const std::tuple<int, int64_t> rows[] = {{1, 100},  {2, 200},   {4, 800},
                                           {5, 1000}, {63, 1000}, {1'000'000, 1000}};
  for (const auto& [attempts, whole_ms] : rows) {
    const auto wait = [attempts = attempts](uint32_t random) {
      return deliver::backoff(attempts, milliseconds(100), milliseconds(1000), random).count();
    };
    EXPECT_EQ(wait(0), whole_ms / 2);
    EXPECT_GT(wait(1023), whole_ms * 99 / 100 - 1);
    EXPECT_LE(wait(UINT32_MAX), whole_ms);
  }
}

TEST(Pace, EndsAWaitThatWouldLastForHours) {
  deliver::pace slow(1);
  EXPECT_TRUE(slow.take(1'000'000));  // what it has to wait for comes after it
  std::thread waiting([&slow] { EXPECT_FALSE(slow.take(1)); });
  slow.stop();
  waiting.join();
}

// RFC 4231, case 2; FIPS 180-4's of no bytes.
TEST(Digest, IsThatOfTheStandards) {
  EXPECT_EQ(deliver::hmac_sha256("Jefe", "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(deliver::sha256_of(""),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(PercentEncoded, LeavesUnreservedCharactersAlone) {
  EXPECT_EQ(deliver::percent_encoded("a call+1/é~.-_", true), "a%20call%2B1/%C3%A9~.-_");
  EXPECT_EQ(deliver::percent_encoded("a/b", false), "a%2Fb");
}

TEST(Ledger, ComesBackAsItWasKept) {
  const TempDir dir;
  std::string error;
  auto kept = deliver::load_ledger(dir.path(), error);
  ASSERT_TRUE(kept) << error;
  kept->remote = "2026/call";
  deliver::entry& file = kept->files["7_a.mp4"];
  file.is = {uint64_t{1} << 40, 1'764'000'000'123'456'789};
  file.sha256 = "ab";
  file.order = deliver::rank::kBeside;
  file.announced = true;
  file.deleted_utc_ms = 5;
  file.targets["s3"] = {deliver::stage::kSending, 3, 2, 77, 88, "why", true, "id", 9, {"\"t\""}};
  kept->notices.push_back({"id-1", "{}", true, "file", 4, 99});
  kept->next_notice = 2;
  ASSERT_TRUE(deliver::save_ledger(dir.path(), *kept, error)) << error;
  const std::string first = read_file(dir.path() + "delivery.json");
  const auto read = deliver::load_ledger(dir.path(), error);
  ASSERT_TRUE(read) << error;
  ASSERT_TRUE(deliver::save_ledger(dir.path(), *read, error)) << error;
  EXPECT_EQ(read_file(dir.path() + "delivery.json"), first);
  const deliver::shipment& at = read->files.at("7_a.mp4").targets.at("s3");
  EXPECT_EQ(std::tie(at.at, at.attempts, at.refusals, at.next_utc_ms, at.confirmed_utc_ms, at.ours),
            std::make_tuple(deliver::stage::kSending, 3, 2, int64_t{77}, int64_t{88}, true));
  EXPECT_EQ(at.parts, std::vector<std::string>{"\"t\""});
  EXPECT_EQ(read->files.at("7_a.mp4").is, file.is);
}

TEST(Ledger, ThatCannotBeUnderstoodIsNeverTakenForNone) {
  for (const char* const text : {"", "{", "[]", R"({"version": 2, "files": {}})",
                                 R"({"version": 1, "files": {"a": {"rank": "media", "targets":
                                    {"t": {"state": "perhaps"}}}}})"}) {
    const TempDir dir;
    dir.file("delivery.json", text);
    std::string error;
    EXPECT_FALSE(deliver::load_ledger(dir.path(), error)) << text;
    EXPECT_NE(error.find("delivery.json is no state"), std::string::npos) << error;
  }
}

TEST(Ledger, IsOnesAloneWhileItsLockIsHeld) {
  const TempDir dir;
  std::string error;
  {
    const auto first = deliver::lock_deliveries(dir.path(), error);
    EXPECT_TRUE(first.valid()) << error;
    EXPECT_FALSE(deliver::lock_deliveries(dir.path(), error).valid());
    EXPECT_EQ(error, "");
  }
  EXPECT_TRUE(deliver::lock_deliveries(dir.path(), error).valid()) << error;
}

TEST(RecordingFolder, TellsWhatStandsBesideTheMedia) {
  const TempDir dir;
  for (const char* const name :
       {"7_20260101T000000000.jpg", "messages.jsonl", "messages_2.jsonl", "recording_engine.log",
        "messages_x.jsonl", "notes.txt", "x_1.jpg", "delivery.json", "7_a.mp4", "recording.json"}) {
    dir.file(name, "x");
  }
  EXPECT_EQ(recordings::companion_names(dir.path()),
            (std::vector<std::string>{"7_20260101T000000000.jpg", "messages.jsonl",
                                      "messages_2.jsonl", "recording_engine.log"}));
  EXPECT_TRUE(recordings::is_over(dir.path()));
  dir.file("journal_2.json", "{}");
  EXPECT_FALSE(recordings::is_over(dir.path()));
  EXPECT_TRUE(recordings::is_over(dir.path(), true));
  EXPECT_FALSE(recordings::is_over(dir.path() + "nowhere"));
}

}  // namespace
}  // namespace zelta::test
