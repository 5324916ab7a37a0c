// SPDX-License-Identifier: Apache-2.0
// Somebody who publishes in a VideoRoom, as the gateway tells it. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

namespace zelta::core_service::janus {

struct publisher {
  Json::Value feed;     // its number or text
  std::string key;      // the same as a text
  std::string name;     // what it calls itself; may be empty
  uint32_t uid = 0;     // see uid_of_publisher()
  std::string streams;  // what it publishes: another text, other streams

  // In words.
  std::string text() const;
};

// Those of "publishers" that can be understood.
std::vector<publisher> publishers_in(const Json::Value& data);

// The name, if it is a number of 1 to 4294967295; else the feed's, if that is one; else uid_of() of
// the name, or of the feed of one without a name.
uint32_t uid_of_publisher(const std::string& name, const std::string& feed);

}  // namespace zelta::core_service::janus
