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
      {"nobody is loud enough", {1, 5}, {9, 0}, std::nullopt},
      {"just loud enough, the first of two as loud", {1, 5}, {10, 10}, 1},
      {"goes on, which is no news", {1, 5}, {200, 0}, std::nullopt},
      {"not louder by enough", {1, 5}, {100, 107}, std::nullopt},
      {"louder by enough", {1, 5}, {100, 108}, 5},
      {"both too quiet", {1, 5}, {9, 2}, std::nullopt},
      {"the active one has left", {1, 9}, {20, 21}, 9},
      {"silence keeps the last", {1, 9}, {0, 0}, std::nullopt},
      {"a whisper against silence is too little", {1, 9}, {9, 0}, std::nullopt},
      {"the other one against silence", {1, 9}, {10, 0}, 1},
  };
  core_service::speaker_policy policy;
  for (const auto& row : rows)
    EXPECT_EQ(policy.listen(row.uids, row.volumes), row.speaks) << row.what;
}

}  // namespace
}  // namespace zelta::test
