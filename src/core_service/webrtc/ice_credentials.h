// SPDX-License-Identifier: Apache-2.0
// The name and password that one end of an ICE session gives the other (RFC 8445, section 5.3).
#pragma once

#include <optional>
#include <string>

namespace zelta::core_service::webrtc {

struct ice_credentials {
  std::string ufrag;
  std::string password;
};

// Random ones of 48 and 144 bits. None when the machine gives no random bytes. Any thread.
std::optional<ice_credentials> make_ice_credentials();

}  // namespace zelta::core_service::webrtc
