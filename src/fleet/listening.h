// SPDX-License-Identifier: Apache-2.0
// What is done with messages of a subject, for as long as this lives.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "fleet/handles.h"

namespace zelta::fleet {

class listening {
 public:
  // Any thread, once, at any time while the connection is there; not at all is allowed, too.
  using reply = std::function<void(const std::string& text)>;
  // Comes on a thread of the library, and must not wait: nothing else of the subject comes
  // meanwhile, and this can't be destroyed.
  using heard = std::function<void(const std::string& subject, const std::string& text, reply)>;

  // Null, with `status`.
  static std::unique_ptr<listening> start(natsConnection* by, const std::string& subject, heard to,
                                          natsStatus& status);
  listening(const listening&) = delete;
  listening& operator=(const listening&) = delete;
  // Nothing is told any more afterwards.
  ~listening();

 private:
  // The library may have a message in hand when this goes.
  struct gate {
    std::mutex lock;
    heard to;
  };
  explicit listening(std::shared_ptr<gate> by) : gate_(std::move(by)) {}
  static void on_message(natsConnection* by, natsSubscription* of, natsMsg* message, void* to);

  const std::shared_ptr<gate> gate_;
  subscription_ptr subscription_;
};

}  // namespace zelta::fleet
