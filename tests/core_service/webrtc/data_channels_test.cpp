// SPDX-License-Identifier: Apache-2.0
// What users write, from SCTP's packets to text.
#include <algorithm>
#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/wall_clock.h"
#include "support/webrtc/channel_writer.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using core_service::webrtc::sctp_association;

class DataChannels : public testing::Test {
 protected:
  void SetUp() override {
    by.on_text = [this](const std::string& label, const std::string& text) {
      said += label + ":" + (text.size() > 40 ? std::to_string(text.size()) : text) + " ";
    };
    by.on_missing = [this](const std::string& medium, const std::string& why) {
      said += medium + "? " + why + " ";
    };
    ASSERT_TRUE(by.ours && by.user);
  }
  void open(uint16_t stream, const std::string& label) {
    ASSERT_TRUE(by.send(stream, channel_writer::kControl, channel_writer::opening(label)));
    by.carry();
  }

  void pass(core_service::media::media_time span) {
    for (; span > 0s; span -= sctp_association::kTick) {
      wall_time += std::chrono::duration_cast<std::chrono::microseconds>(sctp_association::kTick);
      by.tick();
    }
  }

  channel_writer by;
  std::string said;
};

TEST_F(DataChannels, MessagesAreTextOrToldAsMissing) {
  constexpr uint32_t kBinary = 53;
  constexpr uint32_t kEmpty = 56;
  const std::string longest(sctp_association::kMostMessageBytes, 'x');
  const std::tuple<const char*, uint32_t, std::string, std::string> rows[] = {
      {"text", 51, "h\xc3\xa9", "chat:h\xc3\xa9 "},
      {"nothing, by a byte", kEmpty, std::string(1, '\0'), "chat: "},
      {"no UTF-8", 51, "a\xff", "chat:a\xef\xbf\xbd "},
      {"the longest", 51, longest, "chat:65536 "},
      {"one that is longer", 51, longest + "x",
       "messages? messages of more than 64 KiB aren't kept "},
      {"bytes", kBinary, "b", "messages? binary messages aren't kept, only text is "},
      {"bytes once more", kBinary, "b", ""},
      {"no control message", 50, "\x02", ""},
      {"an opening that is cut off", 50, channel_writer::opening("other").substr(0, 14), ""},
  };
  open(2, "chat");
  EXPECT_EQ(by.acknowledged, std::vector<uint16_t>{2});
  for (const auto& [what, protocol, bytes, expected] : rows) {
    said.clear();
    ASSERT_TRUE(by.send(2, protocol, bytes)) << what;
    by.carry();
    pass(1s);
    EXPECT_EQ(said, expected) << what;
  }
  EXPECT_EQ(by.acknowledged.size(), 1U);
}

TEST_F(DataChannels, StreamsAreToldApartAndForgottenAtTheirEnd) {
  open(0, "a");
  open(3, std::string(126, 'n') + "\xc3\xa9\xc3\xa9");
  by.send(0, 51, "1");
  by.send(3, 51, "2");
  by.send(5, 51, "nobody opened it");
  by.carry();
  EXPECT_EQ(said, "a:1 " + std::string(126, 'n') + "\xc3\xa9:2 :nobody opened it ");
  by.user->end_stream(0);
  by.carry();
  pass(1s);
  EXPECT_EQ(by.ended, std::vector<uint16_t>{0}) << "it is closed in both directions";
  said.clear();
  by.send(0, 51, "3");
  by.carry();
  EXPECT_EQ(said, ":3 ");
}

TEST_F(DataChannels, WhatIsLostComesAgain) {
  open(0, "a");
  for (const char* const text : {"1", "2", "3"}) by.send(0, 51, text);
  by.to_us.clear();
  pass(500ms);
  EXPECT_EQ(said, "");
  pass(5s);
  EXPECT_EQ(said, "a:1 a:2 a:3 ");
}

TEST_F(DataChannels, PacketsFitIntoDatagramsOfDtls) {
  open(0, "a");
  by.send(0, 51, std::string(20'000, 'x'));
  size_t longest = 0;
  for (const auto& one : by.to_us) longest = std::max(longest, one.size());
  EXPECT_GT(longest, 1000U);
  EXPECT_LE(longest, 1200U - 37U);
}

TEST_F(DataChannels, ForeignPacketsAndAnEndAreSurvived) {
  open(0, "a");
  const std::vector<uint8_t> nothing(1, 0);
  by.ours->take(nothing.data(), 0);
  by.ours->take(nothing.data(), 1);
  by.send(0, 51, "1");
  auto broken = by.to_us.front();
  broken[broken.size() - 4] ^= 1U;  // of the text, before the padding
  by.ours->take(broken.data(), broken.size());
  EXPECT_EQ(said, "") << "its checksum is another";
  by.carry();
  EXPECT_EQ(said, "a:1 ");
  by.user.reset();
  by.carry();
  pass(1s);
  EXPECT_EQ(said, "a:1 ") << "whoever leaves has said so, and nothing is missing";
}

TEST_F(DataChannels, OneIsOpenedWhereThatIsNeeded) {
  EXPECT_EQ(by.opened, "");
  EXPECT_EQ(channel_writer(true).opened, channel_writer::opening("recorder"));
}

TEST_F(DataChannels, WhoWritesTooMuchIsToldOnceAndKeptAgainLater) {
  using core_service::webrtc::data_channels;
  open(0, "a");
  by.on_text = [this](const std::string&, const std::string&) { said += "."; };
  for (int i = 0; i < 2 * data_channels::kMessagesAtOnce; ++i) {
    by.send(0, 51, "x");
    by.carry();
  }
  const size_t kept = static_cast<size_t>(std::count(said.begin(), said.end(), '.'));
  EXPECT_GE(kept, size_t{data_channels::kMessagesAtOnce} - 1);
  EXPECT_LT(kept, size_t{data_channels::kMessagesAtOnce} * 3 / 2);
  EXPECT_EQ(said.find("messages? there were too many"), said.rfind("messages?"));
}

TEST_F(DataChannels, NobodyWhoAnswersIsTold) {
  by.user.reset();
  by.ours = core_service::webrtc::data_channels::make(
      sctp_association::kOwnPort, false,
      {[](const uint8_t*, size_t) {}, nullptr,
       [this](core_service::missing_medium&& what) { said += what.reason; }});
  pass(10min);
  EXPECT_EQ(said, "the data channels broke off");
}

TEST_F(DataChannels, UserHearsOfOurEnd) {
  open(0, "a");
  by.ours.reset();
  by.carry();
  EXPECT_FALSE(by.send(0, 51, "1"));
}

}  // namespace
}  // namespace zelta::test
