// SPDX-License-Identifier: Apache-2.0
// What carries JSON to a gateway and back: a WebSocket, or HTTP with long polls. Nothing of it is
// understood here.
//
// Made, used and destroyed on the loop's thread; each has a thread of its own, on which the events
// come.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "core_service/channel/janus/gateway_place.h"

namespace zelta::core_service::janus {

// What a gateway may say at a time.
constexpr size_t kMostMessageBytes = 1 << 20;
// How long an end holds up its thread: for what was sent last, and for what goes on to be let go.
constexpr unsigned kLastWordsMs = 150;
constexpr unsigned kLetGoMs = 50;

class gateway_link {
 public:
  struct events {
    std::function<void()> opened;
    std::function<void(const std::string& text)> came;
    // The poll is over, and its text has come.
    std::function<void()> polled;
    // Once, and nothing comes after it.
    std::function<void(const std::string& why)> closed;
  };

  // Waits until what was sent has gone out, 0.2 s at most.
  virtual ~gateway_link() = default;
  // `path`: what the text is about, "", "/SESSION" or "/SESSION/HANDLE".
  virtual void send(const std::string& path, const std::string& text) = 0;
  // Asks for events of the session where they don't come by themselves: once for each call.
  virtual void poll(uint64_t session) = 0;
};

// They throw std::system_error when there is no thread to be had.
std::unique_ptr<gateway_link> make_web_socket_link(const gateway_place& at,
                                                   gateway_link::events told);
std::unique_ptr<gateway_link> make_long_poll_link(const gateway_place& at,
                                                  gateway_link::events told);

}  // namespace zelta::core_service::janus
