// SPDX-License-Identifier: Apache-2.0
// Sessions that record into one folder.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core_service/folder/file_name.h"
#include "core_service/folder/folder_share.h"
#include "recordings/recording_folder.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using core_service::claim_file;
using core_service::folder_share;

class FolderShareTest : public ::testing::Test {
 protected:
  void journal(int number, const std::string& session) const {
    dir.file(number == 1 ? "journal.json" : "journal_" + std::to_string(number) + ".json",
             "{\"version\": 1, \"session\": \"" + session + "\"}");
  }
  folder_share fresh() const { return {dir.path(), me, false}; }
  std::string after_a_relaunch() const { return folder_share(dir.path(), me, true).journal_name(); }

  const TempDir dir;
  const std::string me = folder_share::session_name(7, "room");
  // Of the same process, which lives.
  const std::string other = folder_share::session_name(7, "hall");
};

// A process is named by when it was started, too: its number may be another's by then.
TEST_F(FolderShareTest, SessionIsNamedAfterItsEngineAndThatsStart) {
  std::ifstream file("/proc/" + std::to_string(getppid()) + "/stat");
  std::string text;
  std::getline(file, text);
  std::istringstream behind_name(text.substr(text.rfind(')') + 2));
  const std::vector<std::string> fields{std::istream_iterator<std::string>(behind_name), {}};
  ASSERT_GT(fields.size(), 19U);
  EXPECT_EQ(me, std::to_string(getppid()) + "@" + fields[19] + " 7 room");
}

TEST_F(FolderShareTest, EverySessionHasItsOwnUntilItEnds) {
  std::optional<folder_share> first(fresh());
  const folder_share second = fresh();
  const folder_share third = fresh();
  EXPECT_EQ(first->manifest_name(), "recording.json");
  EXPECT_EQ(first->journal_name(), "journal.json");
  EXPECT_EQ(second.manifest_name(), "recording_2.json");
  EXPECT_EQ(third.journal_name(), "journal_3.json");
  first.reset();
  EXPECT_EQ(fresh().manifest_name(), "recording.json");
  for (const folder_share* of : {&second, &third}) {
    EXPECT_TRUE(recordings::is_manifest_name(of->manifest_name()));
    EXPECT_FALSE(recordings::is_manifest_name(of->journal_name()));
  }
  EXPECT_FALSE(recordings::is_manifest_name("recordings.json")) << "the application's own";
  const folder_share nowhere("/nonexistent/", me, false);
  EXPECT_EQ(nowhere.manifest_name(), "recording.json") << "writing it says what is wrong";
}

// Of machines that record one call after each other, each has its number, whatever this folder has.
TEST_F(FolderShareTest, BeginsAtTheNumberThatTheEnvironmentSays) {
  const std::pair<const char*, int> rows[] = {{nullptr, 1}, {"", 1},   {"3", 3},
                                              {"0", 1},     {"-5", 1}, {"99999", 10'000}};
  for (const auto& [text, number] : rows) {
    text == nullptr ? unsetenv("ZELTA_FIRST_MANIFEST") : setenv("ZELTA_FIRST_MANIFEST", text, 1);
    EXPECT_EQ(folder_share::first_of_environment(), number) << (text == nullptr ? "none" : text);
  }
  unsetenv("ZELTA_FIRST_MANIFEST");
  const folder_share third(dir.path(), me, false, 3);
  EXPECT_EQ(third.manifest_name(), "recording_3.json");
  EXPECT_EQ(folder_share(dir.path(), me, false, 3).manifest_name(), "recording_4.json");
  journal(4, me);
  EXPECT_EQ(folder_share(dir.path(), me, true, 3).manifest_name(), "recording_4.json");
}

TEST_F(FolderShareTest, RelaunchFindsItsOwnAgainWhateverElseIsFree) {
  journal(1, other);
  {
    std::vector<folder_share> shares;
    for (int i = 0; i < 3; ++i) shares.push_back(fresh());
    EXPECT_EQ(shares[2].journal_name(), "journal_4.json");
  }
  journal(4, me);
  EXPECT_EQ(after_a_relaunch(), "journal_4.json") << "two and three have ended";
  journal(3, other);
  EXPECT_EQ(after_a_relaunch(), "journal_4.json");
  std::filesystem::remove(dir.path() + "journal_4.json");
  EXPECT_EQ(after_a_relaunch(), "journal_2.json") << "without a journal it is as any other";
  journal(1, me);
  journal(2, me);
  EXPECT_EQ(after_a_relaunch(), "journal.json") << "an earlier one's of the same name comes second";
}

TEST_F(FolderShareTest, ShareOfASessionThatWaitsForItsRelaunchIsLeftToIt) {
  const std::tuple<const char*, std::string, const char*> rows[] = {
      {"its engine lives", other, "recording_2.json"},
      {"the same session", me, "recording.json"},
      {"no such process", "4194305@1 0 hall", "recording.json"},
      {"another process has the number", other.substr(0, other.find('@')) + "@1 0 hall",
       "recording.json"},
      {"an older journal", "", "recording.json"},
      {"no session", "-1 x", "recording.json"},
  };
  for (const auto& [what, session, taken] : rows) {
    journal(1, session);
    EXPECT_EQ(fresh().manifest_name(), taken) << what;
  }
}

TEST(FileName, NobodyGetsTheNameOfAnother) {
  const TempDir dir;
  constexpr int kThreads = 8;
  constexpr int kEach = 25;
  std::vector<std::string> names(size_t{kThreads} * kEach);
  std::vector<std::thread> threads;
  for (size_t of = 0; of < kThreads; ++of) {
    threads.emplace_back([&, of] {
      for (size_t i = of * kEach; i < (of + 1) * kEach; ++i) {
        names[i] = claim_file(dir.path(), "1", 1769903999990, ".jpg", ".new");
        std::filesystem::rename(dir.path() + names[i] + ".new", dir.path() + names[i]);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "1_20260131T235959990.jpg"));
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "1_20260201T000000189.jpg")) << "none left out";
  const mode_t mask = umask(022);
  struct stat made {};
  EXPECT_EQ(stat((dir.path() + claim_file(dir.path(), "2", 0, ".mp4")).c_str(), &made), 0);
  umask(mask);
  EXPECT_EQ(made.st_mode & 0777U, 0644U) << "for others as the application's umask has it";
  EXPECT_EQ(claim_file("/nonexistent/", "1", 0, ".mp4"), "1_19700101T000000000.mp4");
}

}  // namespace
}  // namespace zelta::test
