// SPDX-License-Identifier: Apache-2.0
// A channel: where users come from and what they send.
//
// One file a backend. All functions and callbacks are for the recorder's loop thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/event_loop.h"
#include "base/logger.h"
#include "core_service/folder/missing_medium.h"
#include "core_service/media/media_feed.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service {

class channel_listener {
 public:
  virtual void on_channel_joined() = 0;
  virtual void on_channel_failed(const std::string& why) = 0;
  // `open` opens what the user sends, once and from inside the call: whoever is turned away costs
  // nothing. It may find out only now that there is nothing to receive, says so by on_missing(),
  // and gives none; the user is then none.
  virtual void on_user_in(uint32_t uid, const media::open_media& open) = 0;
  // What a user who is in calls themselves, where that isn't their number: UTF-8.
  virtual void on_user_name(uint32_t uid, const std::string& name) = 0;
  virtual void on_user_out(uint32_t uid) = 0;
  // What can't be recorded of somebody, who may not be in the channel; uid 0: of something that is
  // nobody's.
  virtual void on_missing(uint32_t uid, const missing_medium& what) = 0;
  virtual void on_channel_interrupted() = 0;
  virtual void on_channel_lost() = 0;

 protected:
  ~channel_listener() = default;
};

class channel {
 public:
  virtual ~channel() = default;
  // on_channel_joined or on_channel_failed follows, at the earliest in the loop's next round.
  virtual void join() = 0;
  // No callback comes after it.
  virtual void leave() = 0;
  // For a user who was turned away, or let go: if they are still there, on_user_in() comes once
  // more, from inside the call; else false.
  virtual bool offer_again(uint32_t uid) = 0;
  // How long what came has waited before it was taken in hand: the longest since the last call.
  virtual media::media_time take_behind() { return {}; }
  // Packets for which there was no room here since the last call, of users who share a port. Where
  // they have their own, their feeds tell.
  virtual uint64_t take_dropped() { return 0; }
};

// What the machine's settings say of users who come by WHIP; empty where they say nothing.
struct whip_settings {
  std::string token;  // asked for as a bearer token (RFC 6750)
  // Paths of PEM files: both, or neither.
  std::string certificate;
  std::string key;
  // IP addresses that users reach the machine under, split by commas.
  std::string address;
};

// The same of gateways.
struct janus_settings {
  std::string api_secret;
};

// Which channel, by what right, and how its media is to be received.
struct channel_request {
  std::string server;  // "test:…", "dir:…", "whip:…", "janus:…"
  std::string channel_id;
  std::string channel_key;  // may be empty
  std::string encrypt_mode;
  std::string encrypt_secret;
  // How long media that is missing is waited for.
  media::media_time patience{};
  // What ports nobody has named are opened at; 0: no bound on that side.
  int min_port = 0;
  int max_port = 0;
  // Take times from the senders' clocks, or from arrival alone.
  bool use_sender_clocks = true;
  // Of a picture that comes at several sizes, take the smallest, not the largest.
  bool smallest_layer = false;
  whip_settings whip;
  janus_settings janus;
  base::logger log;
};

// Null, with `error` saying what is wrong and what would be right. Loop and listener are borrowed
// and must outlive the channel.
std::unique_ptr<channel> make_channel(const channel_request& request, base::event_loop& loop,
                                      channel_listener& listener, std::string& error);

}  // namespace zelta::core_service
