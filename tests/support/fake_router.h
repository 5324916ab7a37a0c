// SPDX-License-Identifier: Apache-2.0
// A router that starts nothing and keeps what the engine hands it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/router.h"
#include "protocol/ipc_protocol.h"

namespace zelta::test {

class FakeRouter : public base::router {
 public:
  // What a test looks at; outlives the router, which the engine owns.
  struct Seen {
    std::vector<std::vector<std::string>> launches;  // "(null)" for a null pointer
    std::vector<std::vector<std::string>> relaunches;
    std::vector<std::unique_ptr<base::packet>> sent;
    std::string logdir;
    base::router_listener* listener = nullptr;
    int launch_result = 0;
    std::function<void()> on_send;
    int shutdowns = 0;
    bool deleted = false;

    std::vector<int> sent_uris() const {
      std::vector<int> uris;
      for (const auto& p : sent) uris.push_back(p->uri);
      return uris;
    }
    template <class Packet>
    const Packet& last() const {
      return dynamic_cast<const Packet&>(*sent.back());
    }
  };

  explicit FakeRouter(Seen& seen) : seen_(seen) {}
  ~FakeRouter() override { seen_.deleted = true; }

  int launch_recorder(std::vector<const char*>& argv, base::event_loop*) override {
    seen_.logdir = logdir_;
    seen_.listener = listener_;
    seen_.launches.push_back(texts(argv));
    return seen_.launch_result;
  }
  int relaunch_recorder(std::vector<const char*>& argv, base::event_loop*) override {
    seen_.relaunches.push_back(texts(argv));
    return seen_.launch_result;
  }
  void shutdown() override { ++seen_.shutdowns; }
  void send_packet(base::packet* p) override {
    seen_.sent.emplace_back(p);
    if (seen_.on_send) seen_.on_send();
  }

 private:
  static std::vector<std::string> texts(const std::vector<const char*>& argv) {
    std::vector<std::string> result;
    for (const char* entry : argv) result.emplace_back(entry != nullptr ? entry : "(null)");
    return result;
  }

  Seen& seen_;
};

}  // namespace zelta::test
