// SPDX-License-Identifier: Apache-2.0
// Sends a part of a file as the body of an answer, piece by piece as the client takes it.
#pragma once

#include <cstdint>

#include <libsoup/soup.h>

#include "base/unique_fd.h"
#include "core_service/channel/http_listener.h"

namespace zelta::view {

// The message's thread. Status and headers are the caller's; the length is set here. One that turns
// out shorter ends the connection, which is `by`'s; each piece that is taken renews it. The
// descriptor is kept until the message has gone, and `by` has to outlive it.
void send_part(SoupServerMessage* message, core_service::http_listener& by, base::unique_fd file,
               uint64_t first, uint64_t size);

}  // namespace zelta::view
