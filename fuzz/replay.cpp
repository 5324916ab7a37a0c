// SPDX-License-Identifier: Apache-2.0
// Runs a target without a fuzzer: its seeds, each of them cut off at every length and with every
// byte changed in four ways.
#include <cstdio>

#include "target.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

// Longer inputs are sampled, so that none takes more than this many runs of each kind.
constexpr size_t kRunsAKind = 600;

void run(const std::string& input) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  const std::vector<std::string> seeds = zelta::fuzz::seeds();
  for (const std::string& seed : seeds) {
    run(seed);
    const size_t step = seed.size() / kRunsAKind + 1;
    for (size_t at = 0; at < seed.size(); at += step) {
      run(seed.substr(0, at));
      for (const char flip : {'\x01', '\x80', '\xff', '\x20'}) {
        std::string changed = seed;
        changed[at] = static_cast<char>(changed[at] ^ flip);
        run(changed);
      }
    }
  }
  std::printf("%zu seeds\n", seeds.size());
  return seeds.empty() ? 1 : 0;
}
