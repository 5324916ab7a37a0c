// SPDX-License-Identifier: Apache-2.0
// Packets of many streams on their way out of one socket, many a system call.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "crowd/outlet.h"

namespace zelta::crowd {

class batch final : public outlet {
 public:
  explicit batch(base::unique_fd socket);

  void add(stream& from, const stream::packet& packet) override;
  void add_report(stream& from, const report& of) override;
  void flush() override;

  uint64_t packets() const override { return packets_; }
  uint64_t bytes_sent() const override { return bytes_; }
  uint64_t errors() const override { return errors_; }

 private:
  static constexpr size_t kMessages = 256;
  struct slot {
    std::array<uint8_t, kRtpHeader + kPayloadBytes + srtp_sender::kGrowth> own;
    std::array<iovec, 2> parts;
  };

  slot& take(sockaddr_in& to);
  // What lies in the slot's own bytes, and what is borrowed; 0 bytes are an error that isn't sent.
  void finish(slot& of, size_t own, const bytes* borrowed);

  const base::unique_fd socket_;
  std::vector<slot> slots_{kMessages};
  std::vector<mmsghdr> messages_{kMessages};
  size_t used_ = 0;
  uint64_t packets_ = 0;
  uint64_t bytes_ = 0;
  uint64_t errors_ = 0;
};

}  // namespace zelta::crowd
