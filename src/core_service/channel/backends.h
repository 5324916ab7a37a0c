// SPDX-License-Identifier: Apache-2.0
// The kinds of channel servers there are, each by the scheme of its name: a row of channel.cpp and
// a file of its own.
#pragma once

#include <memory>
#include <string>

#include "core_service/channel/channel.h"
#include "core_service/rtp/settings.h"

namespace zelta::core_service {

struct channel_place {
  std::string rest;  // of the server's name, behind the scheme
  std::string channel_id;
  std::string channel_key;
  rtp::settings rtp;
  whip_settings whip;
  janus_settings janus;
  base::logger log;
};

// All as make_channel() has them.
std::unique_ptr<channel> make_test_channel(const channel_place& place, base::event_loop& loop,
                                           channel_listener& listener, std::string& error);
std::unique_ptr<channel> make_dir_channel(const channel_place& place, base::event_loop& loop,
                                          channel_listener& listener, std::string& error);
std::unique_ptr<channel> make_janus_channel(const channel_place& place, base::event_loop& loop,
                                            channel_listener& listener, std::string& error);
std::unique_ptr<channel> make_whip_channel(const channel_place& place, base::event_loop& loop,
                                           channel_listener& listener, std::string& error);

}  // namespace zelta::core_service
