// SPDX-License-Identifier: Apache-2.0
// The addresses that this machine can be reached under.
#pragma once

#include <string>
#include <vector>

namespace zelta::core_service::webrtc {

// Of `wanted`, an IP address: itself; of "0.0.0.0", those of IPv4, of "::" and of "", all that are
// up, without those that nobody else can reach unless there are no others.
std::vector<std::string> addresses_of(const std::string& wanted);

}  // namespace zelta::core_service::webrtc
