// SPDX-License-Identifier: Apache-2.0
// What is given to an output is in its file, in this order; what fails is told once.
#include <cerrno>

#include <gtest/gtest.h>
#include <zlib.h>

#include "core_service/files/file_writer.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using namespace core_service::files;
using core_service::media::buffer_ptr;

std::vector<buffer_ptr> buffers(const std::string& letters, size_t bytes) {
  std::vector<buffer_ptr> made;
  for (const char letter : letters) {
    const std::string text(bytes, letter);
    made.emplace_back(gst_buffer_new_memdup(text.data(), text.size()));
  }
  return made;
}

class FileWriterTest : public ::testing::Test {
 protected:
  FileWriterTest() { gst_init(nullptr, nullptr); }
  // Runs until something is told; `stopper` is for what never is.
  void run() {
    base::timer_event* const limit = loop.add_timer(
        20'000, [](int, void* of) { static_cast<base::event_loop*>(of)->stop(); }, &loop);
    loop.run(false);
    loop.remove_timer(limit);
  }
  void tell(int error) {
    told.push_back(error);
    loop.stop();
  }
  // An output to a file of this name, or path.
  auto open(const std::string& path) {
    return writer.open(path[0] == '/' ? path : dir.path() + path,
                       [this](int error) { tell(error); });
  }
  std::function<void()> done() {
    return [this] { tell(0); };
  }

  TempDir dir;
  base::event_loop loop;
  file_writer writer{loop};
  std::vector<int> told;  // errno, 0: done
};

TEST_F(FileWriterTest, EverythingIsInPlaceWhenItSaysSo) {
  const auto one = open("one");
  const auto other = open("other");
  std::string letters;
  std::string expected;
  // More parts than a system call takes, among them one that the kernel takes in several.
  for (int i = 0; i < 700; ++i) {
    letters += static_cast<char>('a' + i % 26);
    expected += std::string(1000, letters.back());
  }
  one->append(buffers("X", 5'000'000));
  other->append(buffers("o", 10));
  one->append(buffers(letters, 1000));
  one->overwrite(3, {'p', 'l', 'a', 'i', 'n'});
  one->append(buffers("z", 1));
  one->close(done());
  run();
  EXPECT_EQ(told, std::vector<int>{0});
  EXPECT_EQ(one->waiting_bytes(), 0U);
  std::string head(5'000'000, 'X');
  head.replace(3, 5, "plain");
  EXPECT_TRUE(read_file(dir.path() + "one") == head + expected + "z");
  other->close(done());
  run();
  EXPECT_EQ(read_file(dir.path() + "other"), "oooooooooo");
  for (const auto& [of, name] : {std::pair(one.get(), "one"), std::pair(other.get(), "other")}) {
    const std::string text = read_file(dir.path() + name);
    EXPECT_EQ(of->written_bytes(), text.size());
    EXPECT_EQ(of->crc32(), crc32_z(0, reinterpret_cast<const Bytef*>(text.data()), text.size()))
        << "also of what stands in place of something";
  }
}

TEST_F(FileWriterTest, WhatFailsIsToldOnceAndNothingFollowsIt) {
  for (const auto& [path, error] :
       {std::pair(dir.path() + "no/folder", ENOENT), {dir.path(), EISDIR}, {"/dev/full", ENOSPC}}) {
    told.clear();
    const auto to = open(path);
    to->append(buffers("a", 10));
    to->overwrite(0, {'b'});
    to->close(done());
    run();
    to->append(buffers("c", 10));
    // Behind whatever that could cause.
    const auto after = open("after");
    after->close(done());
    run();
    EXPECT_EQ(told, (std::vector<int>{error, 0})) << path;
  }
}

TEST_F(FileWriterTest, OneThatIsGoneSaysNothingAndHoldsUpNobody) {
  auto gone = open("gone");
  gone->append(buffers("a", 10));
  gone->close(done());
  gone.reset();
  const auto kept = open("kept");
  kept->close(done());
  run();
  EXPECT_EQ(told, std::vector<int>{0});
}

}  // namespace
}  // namespace zelta::test
