// SPDX-License-Identifier: Apache-2.0
// Units on their way to the loop's thread, and which of a user's tracks count there.
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "core_service/media/track_choice.h"
#include "core_service/rtp/unit_mailbox.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using core_service::media::encoded_unit;
using core_service::media::stream_format;
using core_service::media::user_text;
using core_service::rtp::unit_mailbox;

encoded_unit unit_at(std::chrono::nanoseconds time) {
  encoded_unit one;
  one.format = std::make_shared<stream_format>();
  one.time = time;
  return one;
}

class MailboxTest : public testing::Test {
 protected:
  uint64_t enter(const std::string& name) {
    const uint64_t who = mail.new_reader();
    mail.enter(who, {[this, name](int track, const encoded_unit& unit) {
                       said += name + std::to_string(track) + "@" +
                               std::to_string(unit.time.count()) + " ";
                       if (on_unit) std::exchange(on_unit, nullptr)();
                     },
                     [this, name](int track) { said += name + std::to_string(track) + "! "; },
                     [this, name](const unit_mailbox::note& what) {
                       const auto* const text = std::get_if<user_text>(&what);
                       said += name + " " + (text != nullptr ? text->text : "misses") + " ";
                     },
                     [this, name, who](uint64_t lost, bool unread) {
                       said += name + " lost " + std::to_string(lost) + (unread ? "+ " : " ");
                       mail.leave(who);
                     }});
    return who;
  }

  base::event_loop loop;
  unit_mailbox mail{loop};
  std::string said;
  std::function<void()> on_unit;
};

TEST_F(MailboxTest, EverybodyGetsTheirsInOrder) {
  const uint64_t a = enter("a");
  const uint64_t b = enter("b");
  std::thread([&] {
    mail.put(a, 1, unit_at(5ns));
    mail.put(b, 1, unit_at(6ns));
    mail.put_end(a, 1);
    mail.put_note(b, user_text{9ns, "chat", "writes"});
    mail.put_note(a, core_service::missing_medium{});
    mail.put(77, 1, unit_at(7ns));
    mail.put(a, 2, unit_at(8ns));
  }).join();
  EXPECT_EQ(said, "");
  loop.run(true);
  EXPECT_EQ(said, "a1@5 b1@6 a1! b writes a misses a2@8 ");
  mail.put(b, 3, unit_at(9ns));
  loop.run(true);
  EXPECT_EQ(said, "a1@5 b1@6 a1! b writes a misses a2@8 b3@9 ") << "woken once more";
}

TEST_F(MailboxTest, WhoStopsGetsAllThatHasComeAndNothingLater) {
  const uint64_t a = enter("a");
  const uint64_t b = enter("b");
  mail.put(a, 1, unit_at(1ns));
  mail.put_stopped(a, 7, true);
  mail.put(a, 2, unit_at(2ns));
  mail.put(b, 5, unit_at(5ns));
  mail.put_stopped(b, 0, false);
  // One that leaves from inside a call, with a unit behind it that has been taken out already.
  const uint64_t c = enter("c");
  mail.put(c, 1, unit_at(6ns));
  mail.put(c, 1, unit_at(7ns));
  on_unit = [&] { on_unit = [&] { on_unit = [&] { mail.leave(c); }; }; };
  loop.run(true);
  EXPECT_EQ(said, "a1@1 a lost 7+ b5@5 b lost 0 c1@6 ");
}

TEST_F(MailboxTest, BatchOfManyLeavesTheLoopItsOtherWork) {
  unit_mailbox hurried(loop, 0ns);
  int given = 0;
  int given_before_other = 0;
  const uint64_t a = hurried.new_reader();
  hurried.enter(a, {[&](int, const encoded_unit&) { ++given; }, nullptr, nullptr, nullptr});
  for (int i = 0; i < 100; ++i) hurried.put(a, 1, unit_at(1ns));
  loop.post([&] { given_before_other = given; });
  while (given < 100) loop.run(true);
  EXPECT_GT(given_before_other, 0);
  EXPECT_LT(given_before_other, 100);
  EXPECT_GE(hurried.take_behind(), 0ns);
  EXPECT_EQ(hurried.take_behind(), 0ns) << "since the last call";
}

TEST_F(MailboxTest, IsFullUntilItsUnitsAreGiven) {
  const uint64_t a = enter("a");
  core_service::media::byte_pool pool;
  core_service::media::byte_builder bytes(pool);
  for (int i = 0; i < 64; ++i) {
    EXPECT_FALSE(mail.is_full()) << i;
    bytes.extend(size_t{1} << 20);
    encoded_unit one = unit_at(1ns);
    one.bytes = bytes.take();
    mail.put(a, 1, std::move(one));
  }
  EXPECT_TRUE(mail.is_full());
  loop.run(true);
  EXPECT_FALSE(mail.is_full());
}

TEST_F(MailboxTest, WhatIsPutMeanwhileWaitsForTheNextRound) {
  const uint64_t a = enter("a");
  on_unit = [&] { mail.put(a, 2, unit_at(2ns)); };
  mail.put(a, 1, unit_at(1ns));
  loop.run(true);
  EXPECT_EQ(said, "a1@1 ");
  loop.run(true);
  EXPECT_EQ(said, "a1@1 a2@2 ");
}

TEST(TrackChoice, TheFirstCountsUntilItHasStopped) {
  core_service::media::track_choice choice;
  EXPECT_TRUE(choice.counts(1, 0ms));
  EXPECT_TRUE(choice.counts(1, 100ms));
  EXPECT_TRUE(choice.counts(1, 60ms)) << "decoded after it, shown before";
  EXPECT_FALSE(choice.counts(2, 299ms));
  EXPECT_TRUE(choice.counts(2, 300ms));
  EXPECT_FALSE(choice.counts(1, 400ms)) << "its turn is over";
  choice.ended(1);
  EXPECT_FALSE(choice.counts(3, 400ms));
  choice.ended(2);
  EXPECT_FALSE(choice.counts(3, 400ms, false)) << "a picture that needs the one before";
  EXPECT_TRUE(choice.is_free(400ms));
  EXPECT_TRUE(choice.counts(3, 400ms));
  EXPECT_TRUE(choice.counts(3, 440ms, false));
  EXPECT_FALSE(choice.is_free(639ms));
}

}  // namespace
}  // namespace zelta::test
