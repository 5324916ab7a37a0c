// SPDX-License-Identifier: Apache-2.0
// What docs/scale.md concludes rests on the simulated day: that no job is lost in it, that what
// breaks breaks as the fleet's rules say, and that load is counted as it is sent.
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bench/fleet/figures.h"
#include "bench/fleet/report.h"
#include "bench/fleet/walls.h"

namespace zelta::fleet_model {
namespace {

// 300 workers whose brokers are fast, on a day on which nothing happens.
figures quiet() {
  std::vector<std::string> errors;
  figures made = load_figures(FIGURES_FILE, errors);
  EXPECT_TRUE(errors.empty()) << errors.front();
  made.workers = 300;
  made.recordings = 1500;
  made.worker_dies_every_days = 1e9;
  made.zone_dies_at_h = made.election_at_h = made.upgrade_at_h = -1;
  made.upgrade_at_once = 10;
  made.election_s = 1;
  made.look_s = 1;
  made.stream_writes = made.consumer_deliveries = 1e6;
  return made;
}

result day_of(const figures& of, uint64_t seed = 1) {
  return simulate("", of, reading::kAtThePeak, seed, 1);
}

const spread& handovers(const result& of, cause why) {
  return of.day.handover[static_cast<size_t>(why)];
}

// As many are recorded at any time of the afternoon.
figures steady() {
  figures made = quiet();
  made.arrivals_by_hour.assign(24, 1);
  return made;
}

TEST(FleetSimulation, TheSameSeedMakesTheSameDay) {
  figures of = quiet();
  of.worker_dies_every_days = 1;
  of.upgrade_at_h = 12;
  const std::string first = json_of(day_of(of, 7)).toStyledString();
  EXPECT_EQ(first, json_of(day_of(of, 7)).toStyledString());
  EXPECT_NE(first, json_of(day_of(of, 8)).toStyledString());
}

struct bad_day {
  const char* what;
  std::vector<const char*> changes;
};

TEST(FleetSimulation, EachJobEndsOnceWhateverHappens) {
  const bad_day days[] = {
      {"nothing", {}},
      {"workers die every hour", {"worker_dies_every_days=0.04"}},
      {"a zone dies while a third is drained",
       {"zone_dies_at_h=12", "upgrade_at_h=11.999", "upgrade_at_once=100"}},
      {"leases end by an election while workers die and are drained",
       {"election_at_h=12", "election_s=9", "upgrade_at_h=11.99", "upgrade_at_once=30",
        "worker_dies_every_days=0.04"}},
      {"one election more while the zone's is on",
       {"zone_dies_at_h=12", "election_at_h=12.001", "election_s=8"}},
      {"labels in two streams of two clusters, a tenth of the room",
       {"labels=4", "streams=2", "clusters=2", "workers=30", "zone_dies_at_h=12",
        "election_at_h=15", "election_s=9", "upgrade_at_h=13"}},
      {"slow brokers", {"stream_writes=20", "consumer_deliveries=5", "zone_dies_at_h=12"}},
  };
  for (const bad_day& one : days) {
    figures of = quiet();
    for (const char* change : one.changes) ASSERT_EQ(set_figure(of, change), "");
    ASSERT_EQ(contradiction(of), "") << one.what;
    const outcome day = day_of(of).day;
    EXPECT_GT(day.sent, 10'000U) << one.what;
    EXPECT_EQ(day.ended, day.sent) << one.what;
    EXPECT_EQ(day.lost, 0U) << one.what;
    EXPECT_EQ(day.ended_twice, 0U) << one.what;
    EXPECT_EQ(day.waiting_at_the_end, 0U) << one.what;
    EXPECT_EQ(day.start.count(), day.sent) << one.what;
  }
}

TEST(FleetSimulation, AZonesJobsAreRecordedAgainWithinTheLeaseAndTheStart) {
  figures of = steady();
  of.zone_dies_at_h = 18;
  const result run = day_of(of);
  const spread& took = handovers(run, cause::kZoneDied);
  // A third of what is recorded.
  EXPECT_GT(took.count(), 400U);
  EXPECT_LT(took.count(), 600U);
  // The last renewal came within a fifth of it before, so much of the lease is over at least.
  EXPECT_LE(to_seconds(took.most()), of.lease_s + of.start_most_s + 0.1);
  EXPECT_GE(to_seconds(took.percentile(1)), of.lease_s - of.lease_s / 5 + of.start_least_s);
  EXPECT_EQ(handovers(run, cause::kElection).count(), 0U);
}

TEST(FleetSimulation, AProcessThatDiesLeavesItsRecordersUntilOthersHaveJoined) {
  figures of = steady();
  of.worker_dies_every_days = 5;
  of.deaths_of_process = 1;
  const result run = day_of(of);
  const spread& gap = handovers(run, cause::kProcessDied);
  const spread& twice = run.day.twice[static_cast<size_t>(cause::kProcessDied)];
  EXPECT_GT(gap.count(), 100U);
  EXPECT_EQ(gap.most(), sim_time(0));
  EXPECT_EQ(twice.count(), gap.count());
  // From a lease after the last renewal, and a start, to nine fifths of a lease after it.
  EXPECT_LE(to_seconds(twice.most()), of.lease_s * 4 / 5 - of.start_least_s);
  EXPECT_GE(to_seconds(twice.percentile(1)), of.lease_s * 4 / 5 - of.start_most_s - 0.1);

  of.deaths_of_process = 0;
  const result machines = day_of(of);
  const spread& none = handovers(machines, cause::kMachineDied);
  EXPECT_GT(none.count(), 100U);
  EXPECT_LE(to_seconds(none.most()), of.lease_s + of.start_most_s + 0.1);
  EXPECT_GE(to_seconds(none.percentile(1)), of.lease_s * 4 / 5 + of.start_least_s);
}

TEST(FleetSimulation, AnElectionCostsRecordingsOnlyIfNoTryIsLeft) {
  struct row {
    double election_s;
    double lease_s;
    double look_s;
    double least;  // part of the recordings that are handed over
    double most;
    double longest_s;  // that one wasn't recorded
  };
  const row rows[] = {
      // One is proven two tenths of a lease before the election at most, and tried again each
      // tenth, last at the seventeenth.
      {7.5, 5, 1.1, 0, 0, 0},
      {8.1, 5, 1.1, 0.5, 0.7, 2.5},
      {8.6, 5, 1.1, 0.9, 1, 3},
      {10.4, 7, 1.5, 0, 0, 0},
      // Each has said that it is still there before somebody looks.
      {6, 5, 0.5, 0, 0, 0},
      // Without that time they are given out again, and go on until the next one has joined.
      {6, 5, 0, 0.9, 1, 0},
      // Of a lease that is longer a try comes before its end, or as it ends, which is too late.
      {6, 7, 0, 0.72, 0.86, 0},
      {6, 9, 0, 0, 0, 0},
  };
  for (const row& one : rows) {
    figures of = steady();
    of.election_at_h = 18;
    of.election_s = one.election_s;
    of.lease_s = one.lease_s;
    of.look_s = one.look_s;
    const result run = day_of(of);
    const spread& took = handovers(run, cause::kElection);
    const double part =
        static_cast<double>(took.count()) / static_cast<double>(run.day.most_at_once);
    const std::string what =
        testing::PrintToString(std::vector<double>{one.election_s, one.lease_s, one.look_s});
    EXPECT_GE(part, one.least) << what;
    EXPECT_LE(part, one.most) << what;
    EXPECT_LE(to_seconds(took.most()), one.longest_s) << what;
    EXPECT_EQ(run.day.twice[static_cast<size_t>(cause::kElection)].count(), 0U) << what;
  }
}

TEST(FleetSimulation, ABrokerThatDiesTakesWhatItLeads) {
  figures of = steady();
  of.labels = of.streams = 6;
  of.election_at_h = 18;
  of.election_s = 9;
  const result run = day_of(of);
  // Two of six sets of streams are led by the first of three.
  const double part = static_cast<double>(handovers(run, cause::kElection).count()) /
                      static_cast<double>(run.day.most_at_once);
  EXPECT_NEAR(part, 1.0 / 3, 0.07);
}

TEST(FleetSimulation, AWorkerThatIsGivenItsOwnJobAgainGoesOn) {
  figures of = steady();
  of.workers = 3;  // one a zone
  of.processors = 1000;
  of.memory_mb = of.disk_mb = 1e8;
  of.election_at_h = 18;
  of.election_s = 6;
  of.look_s = 0;
  const result run = day_of(of);
  // Of three that take everything up each is given a third of its own.
  const double part = static_cast<double>(handovers(run, cause::kElection).count()) /
                      static_cast<double>(run.day.most_at_once);
  EXPECT_GT(part, 0.55);
  EXPECT_LT(part, 0.75);
  EXPECT_EQ(run.day.ended, run.day.sent);
}

TEST(FleetSimulation, AnUpgradeDrainsEveryWorkerAndHandsOverAtOnce) {
  figures of = quiet();
  of.upgrade_at_h = 10;
  const result run = day_of(of);
  const spread& took = handovers(run, cause::kUpgrade);
  // Some twice, as they go to workers that are drained later.
  EXPECT_GE(took.count(), 1200U);
  EXPECT_LE(to_seconds(took.percentile(99)), of.leave_s + of.start_most_s + 0.1);
  const double rounds = of.workers / of.upgrade_at_once;
  EXPECT_GE(run.day.upgrade_s, rounds * of.upgrade_restart_s);
  EXPECT_LE(run.day.upgrade_s, rounds * (of.upgrade_restart_s + of.leave_s + 2));
}

TEST(FleetSimulation, WorkersThatAreFullTakeNoMoreAndJobsWait) {
  figures of = quiet();
  of.workers = 15;
  const outcome day = day_of(of).day;
  EXPECT_GT(day.full_peak, 0.9);
  EXPECT_GT(to_seconds(day.queue.most()), 60);
  EXPECT_GE(day.least_free_processors, 0);
  EXPECT_GE(day.least_free_memory_mb, 0);
  EXPECT_GE(day.least_free_disk_mb, 0);
  EXPECT_LT(day.processors_peak, 1.05);
  EXPECT_EQ(day.ended, day.sent);
}

TEST(FleetSimulation, ThePeakIsWhatWasAskedFor) {
  figures of = quiet();
  EXPECT_NEAR(static_cast<double>(day_of(of).day.most_at_once), 1500, 1500 * 0.08);
  const auto sent = simulate("", of, reading::kADay, 1, 2).day.sent;
  EXPECT_NEAR(static_cast<double>(sent), 3000, 3000 * 0.08);
}

TEST(FleetLoad, TheBusiestBrokerBearsWhatItsLeadersAndClientsSend) {
  struct row {
    const char* what;
    std::vector<const char*> changes;
    kind of;
    double messages;  // of the busiest broker, of 1200 a second
  };
  const row rows[] = {
      // 1200 questions and answers: a third of both enters here, two thirds come from the others;
      // each is written to two more, eight in a message, which is answered.
      {"renewals", {}, kind::kRenewal, 2400 + 1200.0 * 2 * 2 / 8},
      {"two labels have two leaders", {"labels=2"}, kind::kRenewal, 800 + 600 * (4.0 / 3 + 0.5)},
      {"never more leaders than brokers",
       {"labels=9"},
       kind::kRenewal,
       800 + 400 * (4.0 / 3 + 0.5)},
      {"streams share states, labels don't", {"labels=9"}, kind::kStateWrite, 3000},
      {"reports have no answer", {}, kind::kReport, 1200 + 1200.0 * 2 * 2 / 8},
      {"pings stay where they are", {}, kind::kPing, 800},
      {"and end at leaf nodes", {"leaf_nodes=10"}, kind::kPing, 0},
      {"one broker, no replicas", {"brokers=1", "replicas=1"}, kind::kRenewal, 2400},
  };
  for (const row& one : rows) {
    figures of = quiet();
    for (const char* change : one.changes) ASSERT_EQ(set_figure(of, change), "");
    EXPECT_NEAR(broker_load(of).busiest(one.of, 1200), one.messages, 0.01) << one.what;
  }
}

TEST(FleetLoad, WhatIsToldOfLaterCountsThen) {
  broker_load load(quiet());
  load.add_later(kind::kEvent, 5, 2);
  load.add(kind::kEvent, 1);
  for (int second = 0; second < 4; ++second) load.close_second(true);
  EXPECT_EQ(load.peak(kind::kEvent), 5);
  EXPECT_EQ(load.mean(kind::kEvent), 1.5);
}

TEST(FleetFigures, WhatIsWrongIsNamed) {
  figures of = quiet();
  EXPECT_NE(set_figure(of, "leases_s=5").find("leases_s"), std::string::npos);
  EXPECT_NE(set_figure(of, "lease_s").find("lease_s=NUMBER"), std::string::npos);
  EXPECT_NE(set_figure(of, "lease_s=5s").find("lease_s=NUMBER"), std::string::npos);
  EXPECT_NE(set_figure(of, "lease_s=0").find("from 1 to 600"), std::string::npos);
  of.streams = 3;
  EXPECT_NE(contradiction(of).find("labels"), std::string::npos);

  const std::string path = testing::TempDir() + "figures.json";
  std::ofstream(path)
      << R"({"workers": {"value": 0, "unit": "", "kind": "guessed", "source": ""}})";
  std::vector<std::string> errors;
  load_figures(path, errors);
  std::remove(path.c_str());
  std::string all;
  for (const std::string& one : errors) all += one + "\n";
  EXPECT_NE(all.find("workers: kind \"guessed\""), std::string::npos) << all;
  EXPECT_NE(all.find("workers: 0 should be"), std::string::npos) << all;
  EXPECT_NE(all.find("zones: a number"), std::string::npos) << all;
  EXPECT_NE(all.find("arrivals_by_hour: 24 numbers"), std::string::npos) << all;
}

}  // namespace
}  // namespace zelta::fleet_model
