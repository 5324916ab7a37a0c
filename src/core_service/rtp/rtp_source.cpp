// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/rtp_source.h"

#include <utility>

#include "core_service/rtp/packet_feed.h"
#include "core_service/rtp/session_description.h"
#include "core_service/rtp/socket_sender.h"

namespace zelta::core_service::rtp {
namespace {

bool open_lines(const std::vector<stream_description>& streams, const settings& how,
                int& likely_free, std::vector<media_line>& lines, std::vector<int>& chosen,
                std::string& error) {
  for (const stream_description& stream : streams) {
    if (stream.srtp && !how.key) {
      error = "it is encrypted: --encrypt_mode and --encrypt_secret should be given";
      return false;
    }
    media_line line;
    line.sockets = open_sockets({stream.address, stream.port, stream.rtcp_port, stream.rtcp_mux,
                                 how.min_port, how.max_port, likely_free},
                                error);
    if (!line.sockets.rtp.valid()) return false;
    if (stream.port == 0) {
      chosen.push_back(line.sockets.port);
      likely_free = line.sockets.port + 2;
    }
    for (const auto& [number, caps] : stream.caps) {
      payload& of = line.payloads[number] = payload_of(caps.get());
      of.level_extension = stream.level_extension;
    }
    lines.push_back(std::move(line));
  }
  return true;
}

}  // namespace

std::optional<rtp_source> make_rtp_source(uint32_t uid, const std::string& text,
                                          const settings& how,
                                          const std::shared_ptr<packet_plane>& plane,
                                          std::vector<missing_medium>& left_out,
                                          std::string& error) {
  const std::vector<stream_description> streams = parse_description(text, left_out, error);
  if (streams.empty()) return std::nullopt;
  std::vector<media_line> lines;
  std::vector<int> chosen;
  if (!open_lines(streams, how, plane->likely_free_port, lines, chosen, error)) {
    // The ports may be those of one who is just being stopped.
    plane->thread.call([] {});
    lines.clear();
    chosen.clear();
    error.clear();
    if (!open_lines(streams, how, plane->likely_free_port, lines, chosen, error)) {
      return std::nullopt;
    }
  }
  std::unique_ptr<srtp_session> ciphers;
  if (how.key) ciphers = srtp_session::make(*how.key, *how.key);
  if (how.key && !ciphers) {
    error = "libsrtp2 doesn't have the cipher of --encrypt_mode";
    return std::nullopt;
  }
  rtp_source made;
  packet_feed::prospect known;
  known.lateness = how.jitter_latency;
  for (size_t i = 0; i < streams.size(); ++i) known.add(streams[i].kind, lines[i].payloads);
  if (!chosen.empty()) made.answer = answer_with_ports(text, chosen);
  made.feed = std::make_shared<packet_feed>(
      std::move(known), plane, [&](sender::events told) -> std::shared_ptr<sender> {
        return std::make_shared<socket_sender>(uid, std::move(lines), how, std::move(ciphers),
                                               plane->thread, plane->pool, std::move(told));
      });
  return made;
}

}  // namespace zelta::core_service::rtp
