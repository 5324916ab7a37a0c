// SPDX-License-Identifier: Apache-2.0
// Does what the sanitizer of this build must notice: a use after free, or a data race.
#include <cstdio>
#include <memory>
#include <thread>

int main() {
#if defined(__SANITIZE_THREAD__)
  int shared = 0;
  std::thread other([&shared] { shared = 1; });
  shared = 2;
  other.join();
  std::printf("%d\n", shared);
#else
  auto owner = std::make_unique<int>(1);
  const volatile int* const dangling = owner.get();
  owner.reset();
  std::printf("%d\n", *dangling);
#endif
  return 0;
}
