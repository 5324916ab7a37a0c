// SPDX-License-Identifier: Apache-2.0
// Sends a part of a file as the body of an answer, piece by piece as the client takes it.
#pragma once

#include <cstdint>
#include <string>

#include <libsoup/soup.h>

#include "base/unique_fd.h"

namespace zelta::view {

// A regular file of the folder: no link is followed. Invalid, with errno, when there is none.
base::unique_fd open_in(const std::string& folder, const std::string& name, uint64_t& size);

// The message's thread. Status and headers are the caller's; the length is set here. One that turns
// out shorter ends the connection. The descriptor is kept until the message has gone.
void send_part(SoupServerMessage* message, base::unique_fd file, uint64_t first, uint64_t size);

}  // namespace zelta::view
