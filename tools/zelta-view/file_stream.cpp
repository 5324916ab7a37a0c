// SPDX-License-Identifier: Apache-2.0
#include "file_stream.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include <unistd.h>

namespace zelta::view {
namespace {

constexpr uint64_t kPieceBytes = 256 << 10;
constexpr const char* kData = "zelta-file-stream";

struct file_stream {
  core_service::http_listener& by;
  base::unique_fd file;
  uint64_t at;
  uint64_t left;
};

ssize_t read_at(const file_stream& from, void* to, size_t size) {
  ssize_t got = 0;
  do {
    got = pread(from.file.get(), to, size, static_cast<off_t>(from.at));
  } while (got < 0 && errno == EINTR);
  return got;
}

void append_piece(SoupServerMessage* message, gpointer stream) {
  auto& from = *static_cast<file_stream*>(stream);
  from.by.renew(soup_server_message_get_remote_address(message));
  if (from.left == 0) return;
  const size_t wanted = std::min(from.left, kPieceBytes);
  auto* const bytes = static_cast<guchar*>(g_malloc(wanted));
  const ssize_t got = read_at(from, bytes, wanted);
  SoupMessageBody* const body = soup_server_message_get_response_body(message);
  if (got <= 0) {
    // Shorter than it was: nothing but the end of the connection tells that. What is appended makes
    // libsoup write and see it, and let go of the message.
    bytes[0] = 0;
    from.left = 0;
    from.by.cut(soup_server_message_get_remote_address(message));
    soup_message_body_append_take(body, bytes, 1);
    soup_server_message_unpause(message);
    return;
  }
  from.at += static_cast<uint64_t>(got);
  from.left -= static_cast<uint64_t>(got);
  soup_message_body_append_take(body, bytes, static_cast<gsize>(got));
  if (from.left == 0) soup_message_body_complete(body);
  soup_server_message_unpause(message);
}

}  // namespace

void send_part(SoupServerMessage* message, core_service::http_listener& by, base::unique_fd file,
               uint64_t first, uint64_t size) {
  SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
  soup_message_headers_set_encoding(headers, SOUP_ENCODING_CONTENT_LENGTH);
  soup_message_headers_set_content_length(headers, static_cast<goffset>(size));
  soup_message_body_set_accumulate(soup_server_message_get_response_body(message), FALSE);
  auto stream = std::make_unique<file_stream>(file_stream{by, std::move(file), first, size});
  g_signal_connect(message, "wrote-headers", G_CALLBACK(append_piece), stream.get());
  g_signal_connect(message, "wrote-chunk", G_CALLBACK(append_piece), stream.get());
  g_object_set_data_full(G_OBJECT(message), kData, stream.release(),
                         [](gpointer one) { delete static_cast<file_stream*>(one); });
}

}  // namespace zelta::view
