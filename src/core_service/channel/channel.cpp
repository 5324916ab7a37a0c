// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/channel.h"

#include "core_service/channel/backends.h"

namespace zelta::core_service {
namespace {

struct backend {
  const char* scheme;
  const char* form;
  decltype(&make_test_channel) make;
};
constexpr backend kBackends[] = {
    {"dir", "\"dir:PATH\"", make_dir_channel},
    {"janus", "\"janus:http://HOST:PORT/janus\"", make_janus_channel},
    {"test", "\"test:\"", make_test_channel},
    {"whip", "\"whip:ADDRESS:PORT\"", make_whip_channel},
};

std::string forms() {
  std::string all;
  for (const backend& one : kBackends) all += (all.empty() ? "" : " or ") + std::string(one.form);
  return all;
}

}  // namespace

std::unique_ptr<channel> make_channel(const channel_request& request, base::event_loop& loop,
                                      channel_listener& listener, std::string& error) {
  rtp::settings how;
  how.jitter_latency = request.patience;
  how.min_port = request.min_port;
  how.max_port = request.max_port;
  how.use_sender_reports = request.use_sender_clocks;
  how.smallest_layer = request.smallest_layer;
  if (!request.encrypt_mode.empty() || !request.encrypt_secret.empty()) {
    how.key = rtp::parse_key(request.encrypt_mode, request.encrypt_secret, error);
    if (!how.key) return nullptr;
  }
  const size_t colon = request.server.find(':');
  const std::string scheme = request.server.substr(0, colon);
  for (const backend& one : kBackends) {
    if (scheme != one.scheme) continue;
    const std::string rest = colon == std::string::npos ? "" : request.server.substr(colon + 1);
    return one.make({rest, request.channel_id, request.channel_key, how, request.whip,
                     request.janus, request.log},
                    loop, listener, error);
  }
  error =
      request.server.empty()
          ? "no channel server: set the environment variable ZELTA_CHANNEL_SERVER to "
            "\"dir:PATH\", to \"whip:ADDRESS:PORT\", to \"janus:http://HOST:PORT/janus\" or, for "
            "generated users, to \"test:\""
          : "unknown channel server \"" + request.server + "\": it should be " + forms();
  return nullptr;
}

}  // namespace zelta::core_service
