// SPDX-License-Identifier: Apache-2.0
// Sealed copies beside a recording: whole or not there, and what isn't waited for goes.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "child_process.h"
#include "disk.h"
#include "sealed_copies.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using deliver::outcome;
using deliver::sealed_copy;
namespace fs = std::filesystem;

class SealedCopiesTest : public testing::Test {
 protected:
  SealedCopiesTest() {
    target_.name = "nas";
    target_.encrypt_for = {"age1x"};
    age_is("echo sealed for the tests; cat");
  }

  // In place of the program, which tests of the tool have.
  void age_is(const std::string& body) {
    settings_.age = tools_.file("age", "#!/bin/sh\n" + body + "\n");
    fs::permissions(settings_.age, fs::perms::owner_all);
  }
  outcome make(const std::string& name, sealed_copy& made) const {
    const base::unique_fd plain = deliver::open_plain(dir_.path() + name);
    return copies_.make(target_, name, plain.get(), settings_, limits_, made);
  }
  outcome::kind open(const std::string& name, const sealed_copy& as) const {
    sealed_copy found;
    return copies_.open("nas", name, as.bytes, as.sha256, limits_, found).is;
  }
  // All files under .delivery, by their names there.
  std::vector<std::string> there() const {
    std::vector<std::string> found;
    const fs::path at = dir_.path() + ".delivery";
    if (!fs::exists(at)) return found;
    for (const auto& one : fs::recursive_directory_iterator(at)) {
      if (one.is_regular_file()) found.push_back(fs::relative(one.path(), at).string());
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  using names = std::vector<std::string>;
  const TempDir dir_;
  const TempDir tools_;
  deliver::target_settings target_;
  deliver::delivery_settings settings_;
  deliver::pace limits_{0};
  const deliver::sealed_copies copies_{dir_.path()};
};

TEST_F(SealedCopiesTest, AreOpenedOnlyAsTheyWereMade) {
  dir_.file("1.mp4", "one");
  sealed_copy made;
  ASSERT_EQ(make("1.mp4", made).is, outcome::kDone);
  const std::string path = dir_.path() + ".delivery/nas/1.mp4.age";
  EXPECT_EQ(read_file(path), "sealed for the tests\none");
  EXPECT_EQ(made.bytes, 24U);
  EXPECT_EQ(open("1.mp4", made), outcome::kDone);
  const std::string right = read_file(path);
  const std::string spoilt[] = {"S" + right.substr(1), right.substr(1), right + "s", ""};
  for (const std::string& text : spoilt) {
    std::ofstream(path) << text;
    EXPECT_EQ(open("1.mp4", made), outcome::kRefused) << text;
  }
  copies_.remove("nas", "1.mp4");
  EXPECT_EQ(open("1.mp4", made), outcome::kRefused);
  fs::create_symlink(dir_.file("elsewhere", right), path);
  EXPECT_EQ(open("1.mp4", made), outcome::kRefused) << "a link";
}

TEST_F(SealedCopiesTest, ThatFailLeaveNothingAndSayWhy) {
  dir_.file("1.mp4", "one");
  sealed_copy made;
  age_is("echo half; echo no room >&2; echo advice >&2; exit 1");
  const outcome failed = make("1.mp4", made);
  EXPECT_EQ(failed.is, outcome::kLater);
  EXPECT_NE(failed.text.find("ended with 1: no room"), std::string::npos) << failed.text;
  EXPECT_EQ(there(), names{});
  age_is("echo short");
  EXPECT_NE(make("1.mp4", made).text.find("wrote too little"), std::string::npos);
  EXPECT_EQ(there(), names{});
  age_is("exec sleep 60");
  limits_.stop();
  EXPECT_EQ(make("1.mp4", made).is, outcome::kStopped);
  EXPECT_EQ(there(), names{});
}

TEST_F(SealedCopiesTest, ThatFindNoRoomAreNotBegun) {
  // Without a byte of it on the disk.
  const uint64_t bytes = fs::space(dir_.path()).available;
  fs::resize_file(dir_.file("1.mp4", ""), bytes);
  sealed_copy made;
  const outcome failed = make("1.mp4", made);
  EXPECT_EQ(failed.is, outcome::kLater);
  EXPECT_EQ(failed.text, "no room for a sealed copy of " + std::to_string(bytes) + " bytes");
  EXPECT_EQ(there(), names{});
}

TEST_F(SealedCopiesTest, ThatNobodyWaitsForGo) {
  sealed_copy made;
  for (const char* const name : {"1.mp4", "2.mp4"}) {
    dir_.file(name, name);
    ASSERT_EQ(make(name, made).is, outcome::kDone);
  }
  dir_.file(".delivery/nas/3.mp4.age.part", "cut");
  fs::create_directory(dir_.path() + ".delivery/gone");
  dir_.file(".delivery/gone/1.mp4.age", "of a target that was");
  copies_.keep_only({{"nas", "2.mp4"}});
  EXPECT_EQ(there(), names{"nas/2.mp4.age"});
  EXPECT_FALSE(fs::exists(dir_.path() + ".delivery/gone"));
  copies_.keep_only({});
  EXPECT_FALSE(fs::exists(dir_.path() + ".delivery"));
}

TEST_F(SealedCopiesTest, AreForTheSameKeysInAnyOrder) {
  deliver::target_settings other = target_;
  target_.encrypt_for = {"a", "b"};
  other.encrypt_for = {"b", "a"};
  EXPECT_EQ(deliver::digest_of_keys(target_), deliver::digest_of_keys(other));
  other.encrypt_for = {"ab"};
  EXPECT_NE(deliver::digest_of_keys(target_), deliver::digest_of_keys(other));
  other.encrypt_for.clear();
  EXPECT_EQ(deliver::digest_of_keys(other), "");
}

// Long before its time would be over.
TEST(ChildProcess, IsHeardAndEndsWhenItEnds) {
  const base::unique_fd in = deliver::open_plain("/dev/null");
  std::vector<std::string> said;
  const auto say = [&said](const std::string& line) { said.push_back(line); };
  const auto run = [&](const std::string& script, const std::function<bool()>& may_go_on) {
    said.clear();
    return deliver::run_child({{"/bin/sh", "-c", script}, {"A=b"}, in.get()}, may_go_on, say);
  };
  const auto always = [] { return true; };
  EXPECT_TRUE(run("echo $A; printf c >&2", always).ok());
  EXPECT_EQ(said, (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(run("exec >&- 2>&-; exit 3", always).how(), "ended with 3");
  EXPECT_EQ(run("kill -9 $$", always).how(), "was ended by signal 9");
  EXPECT_TRUE(run("while :; do read x; done", [] { return false; }).cut);
  EXPECT_EQ(deliver::run_child({{"/nowhere/at/all"}, {}, in.get()}, always, say).failed, ENOENT);
}

}  // namespace
}  // namespace zelta::test
