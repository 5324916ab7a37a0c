// SPDX-License-Identifier: Apache-2.0
#include "recordings/volume_log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace zelta::recordings {
namespace {

namespace fs = std::filesystem;

class VolumeLog : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "zelta-volumes-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { fs::remove_all(folder_); }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ + "/" + name, std::ios::app) << text << "\n";
  }

  std::string folder_;
};

TEST_F(VolumeLog, IsReadOfAllSessionsAndOneChannel) {
  write("volumes_2.jsonl",
        R"({"utc_ms":9000,"step_ms":200,"channel_id":"c","volumes":{"7":[1,2,3]}})");
  write("volumes.jsonl",
        R"({"utc_ms":1000,"step_ms":200,"channel_id":"c","volumes":{"7":[0,9,0,0,255],"8":[4]}})");
  write("volumes.jsonl", R"({"utc_ms":2000,"step_ms":200,"channel_id":"d","volumes":{"7":[5]}})");
  write("volumes.json", "no log");
  std::vector<std::string> errors;
  const volume_lines got = read_volumes(folder_, "c", errors);
  EXPECT_TRUE(errors.empty());
  ASSERT_EQ(got.size(), 2U);
  ASSERT_EQ(got.at(7).size(), 2U);
  EXPECT_EQ(got.at(7)[0].utc_ms, 1000);
  EXPECT_EQ(got.at(7)[0].step_ms, 200);
  EXPECT_EQ(got.at(7)[0].volumes, (std::vector<uint8_t>{0, 9, 0, 0, 255}));
  EXPECT_EQ(got.at(7)[1].utc_ms, 9000) << "in the order of time";
  EXPECT_EQ(got.at(8)[0].volumes, std::vector<uint8_t>{4});
  EXPECT_TRUE(read_volumes(folder_ + "/none", "c", errors).empty());
}

TEST_F(VolumeLog, LeavesOutWhatIsNoLineOfIt) {
  const char* const rows[] = {
      "",
      "{",
      "[]",
      "7",
      R"({"utc_ms":"soon","step_ms":200,"channel_id":"c","volumes":{"7":[1]}})",
      R"({"utc_ms":9223372036854775807,"step_ms":200,"channel_id":"c","volumes":{"7":[1]}})",
      R"({"utc_ms":1,"step_ms":0,"channel_id":"c","volumes":{"7":[1]}})",
      R"({"utc_ms":1,"step_ms":200,"channel_id":"c","volumes":[1]})",
      R"({"utc_ms":1,"step_ms":200,"channel_id":"c","volumes":{"-7":[1]}})",
      R"({"utc_ms":1,"step_ms":200,"channel_id":"c","volumes":{"7":[-1]}})",
      R"({"utc_ms":1,"step_ms":200,"channel_id":"c","volumes":{"7":[{}]}})",
  };
  for (const char* const row : rows) write("volumes.jsonl", row);
  for (const size_t steps : {1000U, 1001U}) {
    std::string all = "1";
    for (size_t step = 1; step < steps; ++step) all += ",1";
    write("volumes.jsonl",
          R"({"utc_ms":2,"step_ms":200,"channel_id":"c","volumes":{"8":[)" + all + "]}}");
  }
  write("volumes.jsonl", R"({"utc_ms":1,"step_ms":200,"channel_id":"c","volumes":{"7":[999]}})");
  std::vector<std::string> errors;
  const volume_lines got = read_volumes(folder_, "c", errors);
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_NE(errors[0].find("12 lines"), std::string::npos) << errors[0];
  ASSERT_EQ(got.size(), 2U);
  EXPECT_EQ(got.at(8).size(), 1U) << "no recorder writes more than a thousand at once";
  ASSERT_EQ(got.at(7).size(), 1U);
  EXPECT_EQ(got.at(7)[0].volumes, std::vector<uint8_t>{255});
}

}  // namespace
}  // namespace zelta::recordings
