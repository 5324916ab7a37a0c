// SPDX-License-Identifier: Apache-2.0
// RTCP from the network, as far as we take it apart ourselves.
#include "core_service/rtp/rtcp_cname.h"
#include "target.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  const std::string report("\x80\xc8\x00\x06\x01\x02\x03\x04ntpntp00rtp0packbyte", 28);
  const std::string names("\x81\xca\x00\x03\x01\x02\x03\x04\x01\x02me\x00\x00\x00\x00", 16);
  const std::string bye("\x81\xcb\x00\x01\x01\x02\x03\x04", 8);
  return {report + names, report + names + bye, report};
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta::core_service::rtp;
  const std::vector<uint8_t> named = with_cname(data, size, "zelta");
  // What was put in must be taken apart again, to the same bytes.
  if (!named.empty()) {
    zelta::fuzz::require(with_cname(named.data(), named.size(), "zelta") == named,
                         "a name that isn't replaced by itself");
  }
  with_cname(data, size, "");
  return 0;
}
