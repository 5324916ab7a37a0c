// SPDX-License-Identifier: Apache-2.0
#include "target.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <unistd.h>

#include "base/log.h"
#include "base/unique_fd.h"
#include "protocol/mixing_layout.h"
#include "support/temp_dir.h"

namespace zelta::fuzz {
void found(const char* what) {
  std::fprintf(stderr, "found: %s\n", what);
  std::abort();
}

bool claims_much(const uint8_t* stream, size_t size) {
  for (size_t at = 0; size - at >= base::kLengthPrefixBytes;) {
    uint32_t length = 0;
    std::memcpy(&length, stream + at, sizeof length);
    if (length < protocol::kMinPacketBytes || length > protocol::kMaxPacketBytes) return false;
    if (length > (1U << 20)) return true;
    if (length > size - at) return false;
    at += length;
  }
  return false;
}

std::vector<uint8_t> layout_of(int regions) {
  std::vector<linuxsdk::VideoMixingLayout::Region> all(static_cast<size_t>(regions));
  for (size_t i = 0; i < all.size(); ++i) {
    all[i].uid = static_cast<unsigned>(i + 1);
    all[i].x = 0.1 * static_cast<double>(i);
    all[i].width = all[i].height = 0.5;
    all[i].alpha = 1;
  }
  linuxsdk::VideoMixingLayout layout;
  layout.canvasWidth = 1280;
  layout.canvasHeight = 720;
  layout.backgroundColor = "#336699";
  layout.regionCount = static_cast<uint32_t>(regions);
  layout.regions = all.data();
  layout.appData = "application";
  layout.appDataLength = static_cast<int>(std::strlen(layout.appData));
  std::vector<uint8_t> bytes;
  require(recording::encodeMixingLayout(layout, bytes, ""), "the seed's layout");
  return bytes;
}

const std::string& scratch_folder() {
  static const test::TempDir kFolder(std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp");
  return kFolder.path();
}

void write_scratch(const std::string& path, const uint8_t* data, size_t size) {
  const base::unique_fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  require(::write(file.get(), data, size) == static_cast<ssize_t>(size), "the scratch file");
}

}  // namespace zelta::fuzz

// Before the first input. With ZELTA_FUZZ_SEEDS set, the seeds are written there.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  using namespace zelta;
  // A line in the log for each bad input would be all that is measured.
  base::log_config::set_log_level(base::FATAL_LOG);
  const char* const where = std::getenv("ZELTA_FUZZ_SEEDS");
  if (where == nullptr) return 0;
  int number = 0;
  for (const std::string& seed : fuzz::seeds()) {
    std::ofstream(std::string(where) + "/seed-" + std::to_string(number++)) << seed;
  }
  return 0;
}
