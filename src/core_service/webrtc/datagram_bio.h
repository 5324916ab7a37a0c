// SPDX-License-Identifier: Apache-2.0
// OpenSSL's way to datagrams that somebody else carries: one that has come lies in memory and is
// read once, one that goes is handed on at once. Nothing is copied or kept here. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "core_service/webrtc/openssl.h"

namespace zelta::core_service::webrtc {

struct datagram_port {
  // What has come; null once it was read.
  const uint8_t* in = nullptr;
  size_t in_bytes = 0;
  std::function<void(const uint8_t*, size_t)> out;
};

// To be read and written both. Borrows `port`. Null, with errors in OpenSSL's queue, when OpenSSL
// has no memory.
owned<bio_st> make_datagram_bio(datagram_port& port);

}  // namespace zelta::core_service::webrtc
