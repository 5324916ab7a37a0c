// SPDX-License-Identifier: Apache-2.0
#include "core_service/webrtc/datagram_bio.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <openssl/bio.h>

namespace zelta::core_service::webrtc {
namespace {

datagram_port& port_of(BIO* bio) {
  return *static_cast<datagram_port*>(BIO_get_data(bio));
}

int write(BIO* bio, const char* bytes, int size) {
  BIO_clear_retry_flags(bio);
  if (size <= 0) return 0;
  port_of(bio).out(reinterpret_cast<const uint8_t*>(bytes), static_cast<size_t>(size));
  return size;
}

// What doesn't fit is lost, as it is with a socket.
int read(BIO* bio, char* bytes, int capacity) {
  BIO_clear_retry_flags(bio);
  datagram_port& port = port_of(bio);
  const uint8_t* const from = std::exchange(port.in, nullptr);
  if (from == nullptr || capacity <= 0) {
    BIO_set_retry_read(bio);
    return -1;
  }
  const size_t size = std::min(port.in_bytes, static_cast<size_t>(capacity));
  std::memcpy(bytes, from, size);
  return static_cast<int>(size);
}

// Nothing waits here, and the rest, such as sizes of datagrams, isn't known.
long control(BIO* /*bio*/, int command, long /*number*/, void* /*pointer*/) {
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

owned<bio_method_st> make_method() {
  owned<bio_method_st> made(
      BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "datagrams in memory"));
  const bool done = made && BIO_meth_set_write(made.get(), write) == 1 &&
                    BIO_meth_set_read(made.get(), read) == 1 &&
                    BIO_meth_set_ctrl(made.get(), control) == 1;
  if (!done) made.reset();
  return made;
}

}  // namespace

owned<bio_st> make_datagram_bio(datagram_port& port) {
  static const owned<bio_method_st> method = make_method();
  owned<bio_st> made(method ? BIO_new(method.get()) : nullptr);
  if (!made) return nullptr;
  BIO_set_data(made.get(), &port);
  BIO_set_init(made.get(), 1);
  return made;
}

}  // namespace zelta::core_service::webrtc
