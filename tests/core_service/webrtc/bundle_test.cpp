// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/bundle.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace zelta::test {
namespace {

using namespace core_service;

constexpr int kMid = 4;
constexpr uint8_t kVideo = 96;
constexpr uint8_t kRepeated = 97;
constexpr uint8_t kSound = 111;

std::vector<webrtc::offered_line> lines() {
  webrtc::offered_line sound;
  sound.mid = "0";
  sound.mid_extension = kMid;
  sound.payloads[kSound] = {};
  webrtc::offered_line video;
  video.mid = "1";
  video.mid_extension = kMid;
  video.payloads[kVideo] = {};
  video.retransmissions[kRepeated] = kVideo;
  return {sound, video};
}

// "line ssrc type", with "again" for one that repeats; "none". It is remembered.
std::string place_of(webrtc::bundle& in, uint32_t ssrc, uint8_t type, const std::string& mid = "") {
  std::vector<uint8_t> extension;
  if (!mid.empty()) extension.push_back(static_cast<uint8_t>(kMid << 4U | (mid.size() - 1)));
  extension.insert(extension.end(), mid.begin(), mid.end());
  rtp::packet one;
  one.ssrc = ssrc;
  one.payload_type = type;
  one.extension_profile = 0xbede;
  one.extension = extension.data();
  one.extension_bytes = extension.size();
  const auto found = in.find(one);
  if (!found) return "none";
  in.remember(one, *found);
  return std::to_string(found->line) + " " + std::to_string(found->ssrc) + " " +
         std::to_string(found->payload_type) + (found->repeats ? " again" : "");
}

TEST(BundleTest, PacketsFindTheirLines) {
  struct row {
    uint32_t ssrc;
    uint8_t type;
    const char* mid;
    const char* place;
  };
  const row rows[] = {
      {5, kRepeated, "", "none"},  // of nothing that has come
      {1, kVideo, "1", "1 1 96"},
      {1, kVideo, "", "1 1 96"},
      {2, kSound, "", "0 2 111"},  // no other line has the type
      {5, kRepeated, "", "1 1 96 again"},
      {3, kVideo, "9", "none"},  // of a line that was turned down
      {6, 100, "1", "none"},
      // The camera begins anew: what repeats it repeats the new one.
      {7, kVideo, "1", "1 7 96"},
      {5, kRepeated, "", "1 7 96 again"},
      {8, kRepeated, "", "1 7 96 again"},
  };
  webrtc::bundle in(lines());
  for (const row& one : rows) {
    EXPECT_EQ(place_of(in, one.ssrc, one.type, one.mid), one.place) << &one - rows;
  }
}

TEST(BundleTest, InventedSourcesHaveABound) {
  webrtc::bundle in(lines());
  uint32_t ssrc = 1;
  while (ssrc < 1000 && place_of(in, ssrc, kVideo) != "none") ++ssrc;
  EXPECT_LT(ssrc, 200U);
  EXPECT_EQ(place_of(in, 1, kVideo), "1 1 96") << "the others go on";
}

}  // namespace
}  // namespace zelta::test
