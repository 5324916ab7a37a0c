// SPDX-License-Identifier: Apache-2.0
// Gives all streams of one sender one name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zelta::core_service::rtp {

// A compound RTCP packet with its source descriptions replaced by one canonical name, or left out
// where `cname` is empty. Streams are laid on each other by their sender reports where they have
// the same name: senders leave it out or give every stream another, and the streams of one session
// description belong together all the same. Empty: `bytes` are no compound RTCP packet.
std::vector<uint8_t> with_cname(const uint8_t* bytes, size_t size, const std::string& cname);

}  // namespace zelta::core_service::rtp
