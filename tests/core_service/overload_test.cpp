// SPDX-License-Identifier: Apache-2.0
// What a recorder does when it can't keep up, second by second, and what it knows of the machine.
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core_service/load/overload_rules.h"
#include "core_service/load/room_left.h"
#include "core_service/load/waiting_list.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using core_service::load::overload_rules;
using core_service::load::reading;
using core_service::load::shed;

constexpr size_t kBatch = 500;  // two processors
const std::vector<shed> kAll{shed::kStills, shed::kMixPictures, shed::kApplicationPictures};

reading late(std::chrono::milliseconds behind) {
  reading one;
  one.behind = behind;
  return one;
}

// "s", "sm", "sma": what is left out.
std::string left_out(const overload_rules& rules) {
  std::string letters;
  if (rules.leaves_out(shed::kStills)) letters += "s";
  if (rules.leaves_out(shed::kMixPictures)) letters += "m";
  if (rules.leaves_out(shed::kApplicationPictures)) letters += "a";
  return letters;
}

TEST(Overload, WhatIsReadDecidesWhoComesAndWhatGoes) {
  reading lost;
  lost.lost = true;
  reading lost_and_late = late(501ms);
  lost_and_late.lost = true;
  reading slow_disk;
  slow_disk.disk_behind = 2001ms;
  reading little;
  little.free_bytes = 127 << 20;
  reading hardly_any;
  hardly_any.free_bytes = 47 << 20;
  const struct {
    const char* name;
    reading one;
    size_t room;
    const char* gone;
  } rows[] = {
      {"idle", late(0ms), kBatch, ""},
      {"waited for others", late(500ms), kBatch, ""},
      {"late", late(501ms), 0, ""},
      {"a second late", late(1000ms), 0, ""},
      {"later", late(1001ms), 0, "s"},
      {"a flooded port alone", lost, kBatch, ""},
      {"lost while late", lost_and_late, 0, "s"},
      {"slow disk", slow_disk, 0, ""},
      {"little memory", little, 0, ""},
      {"hardly any", hardly_any, 0, "s"},
  };
  for (const auto& row : rows) {
    overload_rules rules(kAll, 2);
    EXPECT_EQ(rules.room(), kBatch);
    rules.read(row.one);
    EXPECT_EQ(rules.room(), row.room) << row.name;
    EXPECT_EQ(left_out(rules), row.gone) << row.name;
    EXPECT_EQ(rules.too_many(100), 0U) << row.name;
  }
}

TEST(Overload, LeastLossGoesFirstAndComesBackLast) {
  overload_rules rules(kAll, 2);
  std::string history;
  const auto read = [&](reading one, int times) {
    for (int i = 0; i < times; ++i) {
      rules.read(one);
      history += left_out(rules) + (rules.too_many(100) > 0 ? "!" : "") + " ";
    }
  };
  read(late(2s), 7);
  EXPECT_EQ(history, "s sm sma sma sma sma! sma! ");
  history.clear();
  read(late(1800ms), 1);
  EXPECT_EQ(history, "sma ") << "it catches up: that takes time alone";
  history.clear();
  read(late(0ms), 15);
  EXPECT_EQ(history, "sma sma sma sma sm sm sm sm sm s s s s s  ");
  EXPECT_EQ(rules.room(), 0U) << "nobody for a while, after somebody had to go";
  read(late(0ms), 15);
  EXPECT_EQ(rules.room(), kBatch);
  // What came back and is too much again waits longer.
  history.clear();
  read(late(2s), 1);
  read(late(0ms), 10);
  EXPECT_EQ(history, "s s s s s s s s s s  ");
}

TEST(Overload, WhoIsLetGoIsWhatTheMachineCannotDo) {
  const struct {
    std::chrono::milliseconds growth;
    size_t users;
    size_t let_go;
  } rows[] = {{0ms, 320, 10}, {200ms, 1000, 100}, {400ms, 1000, 200}, {900ms, 1000, 250},
              {400ms, 2, 1},  {400ms, 1, 0},      {-99ms, 320, 10},   {-100ms, 320, 0}};
  for (const auto& row : rows) {
    overload_rules rules({}, 2);
    std::chrono::milliseconds behind = 9s;
    for (int i = 0; i < 4; ++i) rules.read(late(behind += row.growth));
    EXPECT_EQ(rules.too_many(row.users), row.let_go) << row.growth.count() << " " << row.users;
  }
}

TEST(Overload, ManyComeInBatchesThatProveThemselves) {
  overload_rules rules({}, 1);
  for (int i = 0; i < 250; ++i) {
    EXPECT_GT(rules.room(), 0U);
    rules.let_in();
  }
  EXPECT_EQ(rules.room(), 0U);
  rules.read(late(0ms));
  EXPECT_EQ(rules.room(), 0U);
  rules.read(late(0ms));
  EXPECT_EQ(rules.room(), 250U);
  // Each time that somebody has to go doors are closed for twice as long, up to a bound.
  std::vector<int> closed;
  for (int i = 0; i < 7; ++i) {
    for (int s = 0; s < 3; ++s) rules.read(late(2s));
    int seconds = 0;
    do {
      rules.read(late(0ms));
      ++seconds;
    } while (rules.room() == 0);
    closed.push_back(seconds);
  }
  EXPECT_EQ(closed, (std::vector<int>{15, 30, 60, 120, 240, 480, 480}));
}

TEST(Overload, WhoWaitsKeepsTheirPlace) {
  core_service::load::waiting_list list;
  list.add({7, "busy", 100, false});
  list.add({3, "full", 0, true});
  list.add({7, "busy again", 100, false});
  EXPECT_EQ(list.all()[0].why, "busy") << "they haven't heard of it yet";
  list.add({7, "full", 0, true});
  EXPECT_EQ(list.all()[0].why, "full");
  EXPECT_TRUE(list.all()[0].told);
  list.put_last(7);
  EXPECT_EQ(list.first(), 3U);
  EXPECT_TRUE(list.remove(3));
  EXPECT_FALSE(list.remove(3));
  EXPECT_TRUE(list.remove(7));
  EXPECT_TRUE(list.empty());
}

TEST(RoomLeft, MemoryIsWhatTheKernelAndTheGroupSay) {
  using core_service::load::parse_available_bytes;
  EXPECT_EQ(parse_available_bytes("MemFree: 5 kB\nMemAvailable:   17 kB\nBuffers: 1 kB\n"), 17408U);
  EXPECT_EQ(parse_available_bytes("MemFree: 5 kB\n"), UINT64_MAX);
  const struct {
    const char* text;
    const char* folder;
  } rows[] = {{"0::/\n", ""},
              {"0::/a.slice/b\n", "a.slice/b/"},
              {"3:cpu,memory:/x\n0::/y\n", "memory/x/"},
              {"5:memory:/\n", "memory/"},
              {"4:pids:/z\nnonsense\n", ""}};
  for (const auto& row : rows) {
    EXPECT_EQ(core_service::load::parse_memory_group(row.text), row.folder) << row.text;
  }
  EXPECT_GT(core_service::load::free_bytes(), 0U);
}

// Of a user of their own, because root has no limit.
TEST(RoomLeft, ThreadsAreTried) {
  EXPECT_EQ(core_service::load::shortage_of_threads(4), "");
  const pid_t child = fork();
  if (child == 0) {
    const rlimit few{1, 1};
    if (getuid() == 0 && setuid(65533) != 0) _exit(2);
    setrlimit(RLIMIT_NPROC, &few);
    const std::string shortage = core_service::load::shortage_of_threads(4);
    _exit(shortage.find("no more threads can be had (Resource temporarily") == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zelta::test
