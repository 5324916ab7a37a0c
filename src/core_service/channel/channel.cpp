// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/channel.h"

namespace zelta::core_service {

std::unique_ptr<channel> make_channel(const channel_place& place, base::event_loop& loop,
                                      channel_listener& listener, std::string& error) {
  const size_t colon = place.server.find(':');
  const std::string kind = place.server.substr(0, colon);
  const std::string rest = colon == std::string::npos ? "" : place.server.substr(colon + 1);
  if (kind == "test") return make_test_channel(rest, loop, listener, error);
  if (kind == "dir") return make_dir_channel(rest, place, loop, listener, error);
  if (place.server.empty()) {
    error =
        "no channel server: set the environment variable ZELTA_CHANNEL_SERVER to \"dir:PATH\" or, "
        "for generated users, to \"test:\"";
  } else {
    error =
        "unknown channel server \"" + place.server + "\": it should be \"dir:PATH\" or \"test:\"";
  }
  return nullptr;
}

}  // namespace zelta::core_service
