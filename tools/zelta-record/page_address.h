// SPDX-License-Identifier: Apache-2.0
// Where people publish from a browser when the recorder itself is the channel's server.
#pragma once

#include <string>

namespace zelta::record {

// The URL of the page that a recorder of `server`, "whip:ADDRESS:PORT", serves for the channel, as
// it is opened on this machine. Empty when the server is another, or chooses its port itself.
std::string page_address(const std::string& server, const std::string& channel, bool secure);

}  // namespace zelta::record
