// SPDX-License-Identifier: Apache-2.0
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/session/speaker_policy.h"

namespace zelta::test {
namespace {

TEST(SpeakerPolicyTest, WhoIsClearlyLoudestSpeaks) {
  const struct {
    const char* what;
    std::vector<uint32_t> uids;
    std::vector<uint32_t> volumes;
    std::optional<uint32_t> speaks;
  } rows[] = {
      {"nobody is loud enough", {3, 5}, {9, 0}, std::nullopt},
      {"just loud enough, the first of two as loud", {3, 5}, {10, 10}, 3},
      {"goes on, which is no news", {3, 5}, {200, 0}, std::nullopt},
      {"not louder by enough", {3, 5}, {100, 107}, std::nullopt},
      {"louder by enough", {3, 5}, {100, 108}, 5},
      {"both too quiet", {3, 5}, {9, 2}, std::nullopt},
      {"the active one has left", {3, 9}, {20, 21}, 9},
      {"silence keeps the last", {3, 9}, {0, 0}, std::nullopt},
      {"a whisper against silence is too little", {3, 9}, {9, 0}, std::nullopt},
      {"the other one against silence", {3, 9}, {10, 0}, 3},
  };
  core_service::speaker_policy policy;
  for (const auto& row : rows)
    EXPECT_EQ(policy.listen(row.uids, row.volumes), row.speaks) << row.what;
}

}  // namespace
}  // namespace zelta::test
