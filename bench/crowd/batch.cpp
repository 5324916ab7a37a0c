// SPDX-License-Identifier: Apache-2.0
#include "crowd/batch.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace zelta::crowd {

batch::batch(base::unique_fd socket) : socket_(std::move(socket)) {}

void batch::add(stream& from, const stream::packet& packet) {
  slot& out = take(from.rtp);
  std::copy(packet.header.begin(), packet.header.end(), out.own.begin());
  if (!from.srtp) {
    finish(out, kRtpHeader, packet.payload);
    return;
  }
  std::copy(packet.payload->begin(), packet.payload->end(), out.own.begin() + kRtpHeader);
  finish(out, from.srtp->protect(out.own.data(), kRtpHeader + packet.payload->size()), nullptr);
}

void batch::add_report(stream& from, const report& of) {
  slot& out = take(from.rtcp);
  std::array<uint8_t, kReportBytes> plain{};
  size_t size = write_report(of, plain);
  std::copy_n(plain.begin(), size, out.own.begin());
  if (from.srtp) size = from.srtp->protect_rtcp(out.own.data(), size);
  finish(out, size, nullptr);
}

batch::slot& batch::take(sockaddr_in& to) {
  if (used_ == kMessages) flush();
  messages_[used_].msg_hdr.msg_name = &to;
  messages_[used_].msg_hdr.msg_namelen = sizeof to;
  return slots_[used_];
}

void batch::finish(slot& of, size_t own, const bytes* borrowed) {
  if (own == 0) {
    ++errors_;
    return;
  }
  of.parts[0] = {of.own.data(), own};
  // sendmmsg writes to no part.
  if (borrowed != nullptr) {
    of.parts[1] = {const_cast<uint8_t*>(borrowed->data()), borrowed->size()};
  }
  msghdr& header = messages_[used_].msg_hdr;
  header.msg_iov = of.parts.data();
  header.msg_iovlen = borrowed != nullptr ? 2 : 1;
  ++used_;
}

void batch::flush() {
  for (size_t at = 0; at < used_;) {
    const int sent = sendmmsg(socket_.get(), &messages_[at], static_cast<unsigned>(used_ - at), 0);
    if (sent < 0 && errno == EINTR) continue;
    // It says why the first one can't be sent, and nothing of those behind it.
    if (sent <= 0) {
      ++errors_;
      ++at;
      continue;
    }
    for (const size_t end = at + static_cast<size_t>(sent); at < end; ++at) {
      ++packets_;
      bytes_ += messages_[at].msg_len;
    }
  }
  used_ = 0;
}

}  // namespace zelta::crowd
