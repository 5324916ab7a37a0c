// SPDX-License-Identifier: Apache-2.0
// Where the packets of a crowd go.
#pragma once

#include <cstdint>
#include <string>

#include "crowd/stream.h"

namespace zelta::crowd {

class outlet {
 public:
  virtual ~outlet() = default;

  // The payload is borrowed until the next flush.
  virtual void add(stream& from, const stream::packet& packet) = 0;
  virtual void add_report(stream& from, const report& of) = 0;
  // All that was added is sent; what comes back meanwhile is looked at.
  virtual void flush() = 0;

  virtual uint64_t packets() const = 0;
  virtual uint64_t bytes_sent() const = 0;
  virtual uint64_t errors() const = 0;
  // What else there is to be told: members of a JSON object, each with a comma behind it.
  virtual std::string more() const { return ""; }
};

}  // namespace zelta::crowd
