// SPDX-License-Identifier: Apache-2.0
// The folder of a channel, from a sender's side: descriptions with open ports, and their answers.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "crowd/media.h"

namespace zelta::crowd {

std::string description(uint32_t uid, const std::vector<track>& tracks, bool srtp);

// The ports of an answer's media lines, in their order; empty when it isn't one for `tracks`
// tracks: one of them is no port, or still open.
std::vector<uint16_t> answered_ports(const std::string& answer, size_t tracks);

// Lets users 1 to `users` join the channel in `folder` and waits, `limit` at most, for the answers.
// A user's ports, by user; empty for one who has got none.
std::vector<std::vector<uint16_t>> join(const std::string& folder, uint32_t users,
                                        const std::vector<track>& tracks, bool srtp,
                                        std::chrono::seconds limit);
void leave(const std::string& folder, uint32_t users);

}  // namespace zelta::crowd
