// SPDX-License-Identifier: Apache-2.0
// A request to zelta-view: method, path, host, authorization, cookie, site and range, a line each.
// Nobody is let in without the token, no name leads out of the folder, and no range out of the
// file.
#include <algorithm>
#include <array>

#include "byte_range.h"
#include "target.h"
#include "view_rules.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  return {
      "GET\n/files/1%20a.mp4\n127.0.0.1:8080\n\n\n\nbytes=10-19",
      "HEAD\n/levels/1.mp4\n[::1]:8080\nBearer sesame\n\nsame-origin\nbytes=-7",
      "GET\n/session.json\nlocalhost\n\na=b; zelta_view_8080=c00c1e; c\n\nbytes=90-",
      "POST\n/\nname.example\n\n\ncross-site\ntoken=open+sesame",
  };
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  using view::verdict;
  constexpr uint64_t kSize = 100;
  constexpr uint64_t kMost = 30;
  std::array<std::string, 7> parts;
  const uint8_t* const end = data + size;
  for (std::string& part : parts) {
    const uint8_t* const stop = std::find(data, end, uint8_t{'\n'});
    part.assign(data, stop);
    if (stop == end) break;
    data = stop + 1;
  }
  const view::request_head head{parts[0], parts[1], parts[2], parts[3], parts[4], parts[5]};
  static const view::view_rules kOpen("", "c00c1e", 8080);
  static const view::view_rules kLocked("sesame", "c00c1e", 8080);
  for (const view::view_rules* const rules : {&kOpen, &kLocked}) {
    const verdict found = rules->judge(head);
    const bool has_name = found.what == verdict::kFile || found.what == verdict::kLevels;
    fuzz::require(has_name != found.name.empty(), "a name too many, or none");
    fuzz::require(found.name.find('/') == std::string::npos && found.name != "..", "a way out");
    fuzz::require((found.what == verdict::kRefuse) == (found.status >= 400), "another status");
    const bool may_enter = head.authorization.find("sesame") != std::string::npos ||
                           head.cookie.find("c00c1e") != std::string::npos;
    if (rules == &kLocked && !may_enter) {
      fuzz::require(!has_name && found.what != verdict::kSession && found.what != verdict::kPage,
                    "let in without the token");
    }
  }
  kLocked.knows_token(parts[6]);
  for (const uint64_t bytes : {uint64_t{0}, uint64_t{1}, kSize}) {
    const view::byte_range range = view::parse_range(parts[6], bytes, kMost);
    if (range.what != view::byte_range::kPart) continue;
    fuzz::require(range.first <= range.last && range.last < bytes, "bytes that aren't there");
  }
  return 0;
}
