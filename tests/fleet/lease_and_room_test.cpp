// SPDX-License-Identifier: Apache-2.0
// How long a job is a worker's, and whether it has room for one more.
#include <chrono>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "fleet/lease.h"
#include "fleet/room.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using fleet::lease;
using std::chrono::milliseconds;

constexpr uint64_t kMiB = uint64_t{1} << 20;

TEST(Lease, IsOverBeforeAJobIsRecordedTwiceForAsLongAsOne) {
  const auto taken = lease::clock::now();
  const lease held(milliseconds(5000), taken);
  // A look comes early enough for what is due after a second, and for a second try soon.
  EXPECT_EQ(held.pause(), milliseconds(500));
  EXPECT_FALSE(held.is_due(taken + milliseconds(500)));
  EXPECT_TRUE(held.is_due(taken + milliseconds(990)));
  EXPECT_FALSE(held.is_lost(taken));
  EXPECT_FALSE(held.is_lost(taken + milliseconds(8999)));
  EXPECT_TRUE(held.is_lost(taken + milliseconds(9000)));
  // What is left is never told longer than it is, and never negative.
  EXPECT_EQ(held.left(taken), milliseconds(9000));
  EXPECT_EQ(held.left(taken + std::chrono::microseconds(1)), milliseconds(8999));
  EXPECT_EQ(held.left(taken + milliseconds(9000)), milliseconds(0));
  EXPECT_EQ(held.left(taken + std::chrono::hours(1)), milliseconds(0));
}

TEST(Lease, CountsFromTheLastRenewalThatWasSentAndInNoOrderOfAnswers) {
  const auto taken = lease::clock::now();
  lease held(milliseconds(5000), taken);
  held.renewed(taken + milliseconds(2000));
  // The answer to an older one comes late: it proves nothing that wasn't known.
  held.renewed(taken + milliseconds(1000));
  held.renewed(taken - milliseconds(1000));
  EXPECT_EQ(held.stop_at(), taken + milliseconds(11000));
  // An answer after the lease may be one to whoever has the job no more.
  EXPECT_TRUE(held.is_sure(taken + milliseconds(6999)));
  EXPECT_FALSE(held.is_sure(taken + milliseconds(7000)));
  EXPECT_FALSE(held.is_lost(taken + milliseconds(10999)));
  EXPECT_TRUE(held.is_lost(taken + milliseconds(11000)));
}

// Room for everything.
fleet::machine_load idle() {
  fleet::machine_load made;
  made.processors = 4;
  made.memory_bytes = 1000 * kMiB;
  made.free_memory_bytes = 900 * kMiB;
  made.free_disk_bytes = 10'000 * kMiB;
  made.free_descriptors = 1000;
  made.links_mbit = 1000;
  return made;
}

fleet::room_limits limits() {
  fleet::room_limits made;
  made.busy_share = 0.5;
  made.memory_share = 0.1;
  made.disk_bytes = 1000 * kMiB;
  made.network_share = 0.5;
  made.lag_ms = 500;
  made.most_jobs = 10;
  return made;
}

constexpr fleet::job_cost kMore{1, 100, 100 * kMiB, 200 * kMiB};

TEST(Room, IsThereUntilOneOfItsMeasuresLacks) {
  const fleet::room_limits within = limits();
  const fleet::job_cost none{0, 0, 0, 0};
  const auto lacks = [&](const fleet::machine_load& now, const fleet::job_cost& begun, int jobs) {
    return what_lacks(now, within, begun, kMore, jobs).value_or("");
  };
  EXPECT_EQ(lacks(idle(), none, 9), "");
  EXPECT_EQ(lacks(idle(), none, 10), "10 jobs run, which are the most");
  // What changes of an idle machine, up to what is still enough and by one too far.
  const struct {
    const char* lack;
    void (*set)(fleet::machine_load&, bool too_far);
  } rows[] = {
      {"recorders are 501 ms behind",
       [](fleet::machine_load& of, bool too_far) { of.lag_ms = 500 + (too_far ? 1 : 0); }},
      {"processors",
       [](fleet::machine_load& of, bool too_far) { of.busy_processors = too_far ? 1.01 : 1; }},
      {"memory", [](fleet::machine_load& of,
                    bool too_far) { of.free_memory_bytes = 200 * kMiB - (too_far ? 1 : 0); }},
      {"disk", [](fleet::machine_load& of,
                  bool too_far) { of.free_disk_bytes = 1200 * kMiB - (too_far ? 1 : 0); }},
      {"network",
       [](fleet::machine_load& of, bool too_far) { of.received_mbit = too_far ? 400.1 : 400; }},
      {"descriptors",
       [](fleet::machine_load& of, bool too_far) { of.free_descriptors = too_far ? 199 : 200; }},
  };
  for (const auto& row : rows) {
    fleet::machine_load now = idle();
    row.set(now, false);
    EXPECT_EQ(lacks(now, none, 0), "") << row.lack;
    row.set(now, true);
    EXPECT_EQ(lacks(now, none, 0), row.lack);
  }
}

TEST(Room, CountsWhatWasBegunAndDoesNotShowYet) {
  const fleet::room_limits within = limits();
  const std::pair<fleet::job_cost, const char*> rows[] = {
      {{1, 400, 700 * kMiB, 8800 * kMiB}, ""}, {{1.01, 0, 0, 0}, "processors"},
      {{0, 400.1, 0, 0}, "network"},           {{0, 0, 700 * kMiB + 1, 0}, "memory"},
      {{0, 0, 0, 8800 * kMiB + 1}, "disk"},
  };
  for (const auto& [begun, lack] : rows) {
    EXPECT_EQ(what_lacks(idle(), within, begun, kMore, 0).value_or(""), lack);
  }
}

TEST(Room, GoesByTheLinksAsLongAsNobodyKnowsBetter) {
  fleet::machine_load now = idle();
  now.received_mbit = 450;
  fleet::room_limits within = limits();
  const fleet::job_cost none{0, 0, 0, 0};
  EXPECT_EQ(what_lacks(now, within, none, kMore, 0).value_or(""), "network");
  within.network_mbit = 1100;
  EXPECT_EQ(what_lacks(now, within, none, kMore, 0).value_or(""), "");
  within.network_mbit = 0;
  now.links_mbit = 0;
  EXPECT_EQ(what_lacks(now, within, none, kMore, 0).value_or(""), "");
}

TEST(Room, TakesMoreForMoreUsersAndSomethingForUnknownOnes) {
  const fleet::job_cost unknown = fleet::cost_of(0);
  const fleet::job_cost one = fleet::cost_of(1);
  const fleet::job_cost many = fleet::cost_of(100);
  EXPECT_GT(unknown.processors, 0);
  EXPECT_GT(many.processors, one.processors);
  EXPECT_GT(many.mbit, one.mbit);
  EXPECT_GT(many.memory_bytes, one.memory_bytes);
  EXPECT_EQ(many.disk_bytes, 100 * one.disk_bytes);
}

TEST(Room, IsMeasuredOfThisMachine) {
  const TempDir dir;
  fleet::load_meter meter(dir.path());
  // Nobody knows what was busy before the first moment.
  EXPECT_EQ(meter.measure().busy_processors, 0);
  const fleet::machine_load now = meter.measure();
  EXPECT_GT(now.processors, 0);
  EXPECT_GE(now.busy_processors, 0);
  EXPECT_GT(now.memory_bytes, 0U);
  EXPECT_LE(now.free_memory_bytes, now.memory_bytes);
  EXPECT_GT(now.free_disk_bytes, 0U);
  EXPECT_GT(now.free_descriptors, 0U);
  fleet::load_meter nowhere(dir.path() + "gone");
  EXPECT_EQ(nowhere.measure().free_disk_bytes, 0U);
}

}  // namespace
}  // namespace zelta::test
