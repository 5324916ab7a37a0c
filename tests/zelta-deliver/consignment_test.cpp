// SPDX-License-Identifier: Apache-2.0
// What of a folder may go when, and what an attempt's outcome means.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "consignment.h"
#include "retention.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using deliver::consignment;
using deliver::outcome;
using deliver::stage;

class ConsignmentTest : public testing::Test {
 protected:
  ConsignmentTest() {
    settings_.targets.resize(2);
    settings_.targets[0].name = "a";
    settings_.targets[1].name = "b";
    settings_.refusals = 2;
    settings_.webhook_url = "http://h";
    dir_.file("1.mp4", "one");
    dir_.file("2.mp4", "two");
    dir_.file("recording_engine.log", "log");
    manifest(R"({"name": "1.mp4", "closed": "user left"}, {"name": "2.mp4", "closed": ""})");
  }

  void confirm_at_the_first_target() {
    for (const auto& one : taken_) {
      if (one.target == 0) {
        of_->confirm(one, 1);
      } else {
        of_->put_back(one);
      }
    }
  }

  void manifest(const std::string& files) {
    dir_.file("recording.json", "{\"files\": [" + files + "]}");
  }
  void scan() {
    if (!of_) of_.emplace(dir_.path(), base::unique_fd(), deliver::ledger(), settings_);
    std::vector<std::string> errors;
    of_->scan(false, errors);
    EXPECT_EQ(errors, std::vector<std::string>());
  }
  // Names with their targets, as "1.mp4@0".
  std::vector<std::string> take(int64_t now_ms, const std::vector<size_t>& targets = {0, 1}) {
    std::vector<std::string> due;
    taken_.clear();
    for (const size_t target : targets) {
      for (const auto& one : of_->take_due(target, now_ms, 100)) {
        taken_.push_back(one);
        due.push_back(one.file + "@" + std::to_string(one.target));
      }
    }
    return due;
  }
  void confirm_taken() {
    for (const auto& one : taken_) of_->confirm(one, 1);
  }

  using names = std::vector<std::string>;
  names cleaned(deliver::retention& kept, int64_t now_ms) {
    names gone;
    for (const auto& one : kept.clean_up({&*of_}, now_ms)) gone.push_back(one.file + one.error);
    return gone;
  }
  const TempDir dir_;
  deliver::delivery_settings settings_;
  std::optional<consignment> of_;
  std::vector<consignment::errand> taken_;
};

TEST_F(ConsignmentTest, SendsWhatIsClosedThenWhatIsBesideItThenTheManifest) {
  dir_.file("journal.json", "{}");
  scan();
  EXPECT_EQ(take(0), (names{"1.mp4@0", "1.mp4@1"}));
  EXPECT_TRUE(of_->take_due(0, 0, 100).empty()) << "they are in flight";
  confirm_taken();
  std::remove((dir_.path() + "journal.json").c_str());
  scan();
  for (const names& next :
       {names{"2.mp4@0", "2.mp4@1"}, names{"recording_engine.log@0", "recording_engine.log@1"},
        names{"recording.json@0", "recording.json@1"}, names{}}) {
    EXPECT_EQ(take(0), next);
    confirm_taken();
  }
}

TEST_F(ConsignmentTest, HoldsNothingBackAtOneTargetForTheOther) {
  scan();
  take(0);
  confirm_at_the_first_target();
  EXPECT_EQ(take(0, {0}), names{"recording_engine.log@0"}) << "the second one has to wait";
  confirm_taken();
  EXPECT_EQ(take(0, {0}), names{"recording.json@0"});
  EXPECT_EQ(of_->wait_ms(1, 0), 0);
}

TEST_F(ConsignmentTest, WaitsAsLongAsItIsToldAndBuriesWhatStaysRefused) {
  scan();
  take(0);
  const consignment::errand one = taken_[0];
  const auto failed = [&](outcome::kind is, int64_t wait_ms) {
    of_->fail(one, {is, "why", wait_ms}, 0, 0);
    return std::pair(of_->at(one).at, of_->at(one).next_utc_ms);
  };
  EXPECT_EQ(failed(outcome::kStopped, 0), std::pair(stage::kPending, int64_t{0}));
  EXPECT_EQ(failed(outcome::kLater, 0), std::pair(stage::kPending, int64_t{500}));
  EXPECT_EQ(failed(outcome::kLater, 7000), std::pair(stage::kPending, int64_t{7000}));
  EXPECT_EQ(failed(outcome::kRefused, 0).first, stage::kPending);
  EXPECT_EQ(failed(outcome::kRefused, 0).first, stage::kDead);
  ASSERT_EQ(of_->state().notices.size(), 1U);
  EXPECT_NE(of_->state().notices[0].body.find("\"error\":\"why\""), std::string::npos);
  of_->retry_dead();
  EXPECT_EQ(of_->at(one).at, stage::kPending);
  EXPECT_EQ(of_->at(one).refusals, 0);
}

TEST_F(ConsignmentTest, TellsOfAFileAndOfTheSessionOnceUntilThereIsMore) {
  scan();
  for (int rank = 0; rank < 3; ++rank) {
    take(0);
    confirm_taken();
    of_->announce_session();
  }
  EXPECT_EQ(of_->state().notices.size(), 5U);
  EXPECT_EQ(of_->state().notices.back().kind, "session");
  scan();
  of_->announce_session();
  EXPECT_EQ(of_->state().notices.size(), 5U);
  dir_.file("recording_engine.log", "a longer log");
  scan();
  EXPECT_EQ(take(0), (names{"recording_engine.log@0", "recording_engine.log@1"}));
}

TEST_F(ConsignmentTest, SendsToATargetThatIsNewAndForgetsOneThatIsGone) {
  scan();
  for (int rank = 0; rank < 3; ++rank) {
    take(0);
    confirm_taken();
  }
  settings_.targets[1].name = "c";
  scan();
  EXPECT_EQ(take(0), (names{"1.mp4@1", "2.mp4@1"}));
  EXPECT_EQ(of_->file("1.mp4").targets.count("b"), 0U);
  EXPECT_FALSE(of_->file("1.mp4").confirmed());
}

TEST_F(ConsignmentTest, KeepsTheOrderOfNoticesWhenOneFails) {
  scan();
  take(0);
  confirm_taken();
  const auto first = of_->take_notice(false, 0);
  ASSERT_TRUE(first);
  EXPECT_FALSE(of_->take_notice(false, 0)) << "one at a time";
  of_->notice_failed(false, 0, std::chrono::milliseconds(50));
  EXPECT_FALSE(of_->take_notice(false, 49));
  EXPECT_EQ(of_->take_notice(false, 50)->id, first->id);
  of_->notice_done(false);
  EXPECT_NE(of_->take_notice(false, 0)->id, first->id);
}

TEST_F(ConsignmentTest, KeepsEveryChangeAndNothingElse) {
  scan();
  take(0);
  const consignment::errand one = taken_[0];
  const consignment::errand other = taken_[1];
  deliver::shipment upload;
  upload.upload_id = "u";
  const std::vector<std::pair<const char*, std::function<void()>>> rows = {
      {"digest", [&] { of_->set_digest(one, "ab"); }},
      {"sending", [&] { of_->set_sending(one); }},
      {"upload", [&] { of_->set_upload(one, upload); }},
      {"sent", [&] { of_->set_sent(one); }},
      {"disown", [&] { of_->disown(one); }},
      {"fail",
       [&] {
         of_->fail(one, {outcome::kLater, "why", 0}, 0, 0);
       }},
      {"bury", [&] { of_->bury(other, "why"); }},
      {"confirm", [&] { of_->confirm(one, 1); }},
      {"deleted", [&] { of_->set_deleted("2.mp4", 5); }},
      {"retry", [&] { of_->retry_dead(); }},
      {"a notice that failed", [&] { of_->notice_failed(false, 0, std::chrono::milliseconds(5)); }},
      {"a notice that is told", [&] { of_->notice_done(false); }},
  };
  for (const auto& [name, change] : rows) {
    EXPECT_TRUE(of_->save()) << of_->fault();
    const std::string before = read_file(dir_.path() + "delivery.json");
    ASSERT_TRUE(of_->saved());
    change();
    EXPECT_FALSE(of_->saved()) << name;
    EXPECT_TRUE(of_->save());
    EXPECT_NE(read_file(dir_.path() + "delivery.json"), before) << name;
  }
  scan();
  EXPECT_TRUE(of_->save());
  const auto stamp = std::filesystem::last_write_time(dir_.path() + "delivery.json");
  scan();
  EXPECT_TRUE(of_->save());
  EXPECT_EQ(std::filesystem::last_write_time(dir_.path() + "delivery.json"), stamp);
}

// A session's notice is announced, then told: by then its id has to be on disk.
TEST_F(ConsignmentTest, HasTheSessionsEndToSaveOnceItIsAnnounced) {
  scan();
  for (int order = 0; order < 3; ++order) {
    take(0);
    confirm_taken();
  }
  EXPECT_TRUE(of_->save());
  of_->announce_session();
  EXPECT_FALSE(of_->saved());
}

TEST_F(ConsignmentTest, WaitsASecondForWhatChangesUnderWay) {
  scan();
  for (int order = 0; order < 2; ++order) {
    take(0);
    if (order == 0) confirm_taken();
  }
  ASSERT_EQ(taken_.size(), 2U) << "the log, to both";
  dir_.file("recording_engine.log", "a longer log");
  of_->changed(taken_[0], 5000);
  EXPECT_EQ(of_->wait_ms(0, 5000), 1000) << "it still flies to the other one";
  of_->changed(taken_[1], 5000);
  EXPECT_EQ(of_->file("recording_engine.log").is.bytes, 12U);
  EXPECT_EQ(take(5999), names{});
  EXPECT_EQ(take(6000), (names{"recording_engine.log@0", "recording_engine.log@1"}));
}

TEST_F(ConsignmentTest, LeavesConfirmedWhatIsConfirmedWhenTheFileGoes) {
  scan();
  take(0);
  of_->confirm(taken_[0], 1);
  for (const auto& one : taken_) of_->put_back(one);
  const consignment::errand there = taken_[0];
  const consignment::errand missing{there.file, 1};
  std::remove((dir_.path() + there.file).c_str());
  scan();
  EXPECT_EQ(of_->at(there).at, stage::kConfirmed);
  EXPECT_EQ(of_->at(missing).at, stage::kDead);
  EXPECT_EQ(of_->take_buried().size(), 1U);
  EXPECT_EQ(of_->take_buried().size(), 0U);
}

TEST_F(ConsignmentTest, TakesWhatWasDeletedAndComesAgainForThere) {
  scan();
  take(0);
  confirm_taken();
  of_->set_deleted("1.mp4", 9);
  scan();
  EXPECT_EQ(of_->file("1.mp4").deleted_utc_ms, 0);
}

TEST_F(ConsignmentTest, AnnouncesWhatIsConfirmedAsATargetGoes) {
  scan();
  take(0);
  confirm_at_the_first_target();
  EXPECT_EQ(of_->state().notices.size(), 0U);
  settings_.targets.pop_back();
  scan();
  EXPECT_EQ(of_->state().notices.size(), 2U);
}

TEST_F(ConsignmentTest, TakesAMomentFarAheadForAClockThatWasWrong) {
  scan();
  take(0);
  const consignment::errand one = taken_[0];
  const int64_t day_ms = int64_t{24} * 3600 * 1000;
  of_->fail(one, {outcome::kLater, "why", day_ms}, 0, 0);
  EXPECT_EQ(of_->wait_ms(0, 0), day_ms);
  EXPECT_EQ(of_->wait_ms(0, -1), 0);
}

TEST_F(ConsignmentTest, ClaimsNoPlaceWhereItHasPutNothing) {
  scan();
  for (int order = 0; order < 2; ++order) {
    take(0);
    confirm_taken();  // it stood there, the same
  }
  dir_.file("recording_engine.log", "a longer log");
  scan();
  take(0);
  EXPECT_FALSE(of_->at(taken_[0]).ours);
  of_->set_sending(taken_[0]);
  of_->confirm(taken_[0], 1);
  EXPECT_TRUE(of_->at(taken_[0]).ours);
}

TEST_F(ConsignmentTest, LosesOnlyMediaThatEveryTargetHasForLongEnough) {
  dir_.file("7_a.jpg", "jpeg");
  settings_.keep = std::chrono::seconds(10);
  deliver::retention kept(settings_);
  scan();
  take(0);
  confirm_at_the_first_target();
  EXPECT_TRUE(of_->save());
  EXPECT_EQ(cleaned(kept, 20'000), names{}) << "the second target has none";
  take(0, {1});
  confirm_taken();
  EXPECT_EQ(cleaned(kept, 20'000), names{}) << "a kill now would forget that it has";
  EXPECT_TRUE(of_->save());
  EXPECT_EQ(cleaned(kept, 10'000), names{});
  EXPECT_EQ(kept.wait_ms(), 1);
  dir_.file("2.mp4", "not what was confirmed");
  EXPECT_EQ(cleaned(kept, 10'001), names{"1.mp4"});
  EXPECT_FALSE(std::filesystem::exists(dir_.path() + "1.mp4"));
  EXPECT_TRUE(std::filesystem::exists(dir_.path() + "2.mp4"));
  for (int order = 0; order < 2; ++order) {
    take(0);
    confirm_taken();
  }
  EXPECT_TRUE(of_->save());
  EXPECT_EQ(cleaned(kept, 20'000), names{"7_a.jpg"}) << "the log and the manifest stay";
}

TEST_F(ConsignmentTest, LosesNothingThatAHookIsStillToSee) {
  settings_.keep = std::chrono::seconds(0);
  settings_.file_hook = {"/bin/true"};
  deliver::retention kept(settings_);
  scan();
  take(0);
  confirm_taken();
  EXPECT_TRUE(of_->save());
  EXPECT_EQ(cleaned(kept, 9), names{});
  while (of_->take_notice(true, 0)) of_->notice_done(true);
  EXPECT_EQ(cleaned(kept, 9), (names{"1.mp4", "2.mp4"})) << "the webhook needs no file";
}

TEST_F(ConsignmentTest, LosesTheOldestConfirmedUntilTheRestFits) {
  deliver::retention kept(settings_);
  scan();
  take(0);
  for (const auto& one : taken_) of_->confirm(one, one.file == "1.mp4" ? 5 : 4);
  EXPECT_TRUE(of_->save());
  EXPECT_EQ(cleaned(kept, 9), names{}) << "all is kept";
  settings_.quota_bytes = 6;
  EXPECT_EQ(cleaned(kept, 9), names{}) << "it fits";
  settings_.quota_bytes = 5;
  EXPECT_EQ(cleaned(kept, 9), names{"2.mp4"});
  EXPECT_EQ(cleaned(kept, 9), names{});
}

TEST_F(ConsignmentTest, RefusesNamesThatNoStateCanHave) {
  const std::string name = "7_\xff.jpg";
  dir_.file(name, "jpeg");
  of_.emplace(dir_.path(), base::unique_fd(), deliver::ledger(), settings_);
  std::vector<std::string> errors;
  of_->scan(false, errors);
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_NE(errors[0].find("isn't UTF-8"), std::string::npos) << errors[0];
}

}  // namespace
}  // namespace zelta::test
