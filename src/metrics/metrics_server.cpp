// SPDX-License-Identifier: Apache-2.0
#include "metrics/metrics_server.h"

#include <charconv>
#include <exception>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <prometheus/exposer.h>

namespace zelta::metrics {
namespace {

// Collections come every few seconds, from one or two who collect.
constexpr const char* kThreads = "2";

bool is_port(const std::string& text) {
  unsigned port = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, failed] = std::from_chars(text.data(), end, port);
  return failed == std::errc() && stopped == end && port >= 1 && port <= 65535;
}

bool is_host(const std::string& text) {
  in_addr four{};
  in6_addr six{};
  const bool bracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
  return bracketed ? inet_pton(AF_INET6, text.substr(1, text.size() - 2).c_str(), &six) == 1
                   : inet_pton(AF_INET, text.c_str(), &four) == 1;
}

// Empty when it is none.
std::string whole_address(const std::string& given) {
  const size_t colon = given.rfind(':');
  const std::string host = colon == std::string::npos ? "127.0.0.1" : given.substr(0, colon);
  const std::string port = colon == std::string::npos ? given : given.substr(colon + 1);
  return is_host(host) && is_port(port) ? host + ":" + port : "";
}

}  // namespace

std::unique_ptr<metrics_server> metrics_server::make(const std::string& address,
                                                     std::string& error) {
  const std::string whole = whole_address(address);
  if (whole.empty()) {
    error = "\"" + address +
            "\" should be an IP address of this machine and a port, such as 127.0.0.1:9464, "
            "[::1]:9464, or a port alone";
    return nullptr;
  }
  try {
    const std::vector<std::string> how = {"listening_ports", whole, "num_threads", kThreads};
    return std::unique_ptr<metrics_server>(
        new metrics_server(std::make_unique<prometheus::Exposer>(how)));
  } catch (const std::exception&) {
    // The library doesn't say why.
    error = "can't listen at " + whole + ": it is in use, or isn't this machine's";
    return nullptr;
  }
}

metrics_server::metrics_server(std::unique_ptr<prometheus::Exposer> by) : exposer_(std::move(by)) {}

metrics_server::~metrics_server() = default;

void metrics_server::add(const std::weak_ptr<prometheus::Collectable>& source) {
  exposer_->RegisterCollectable(source);
}

family::family(prometheus::MetricType type, std::string name, std::string help) {
  made_.type = type;
  made_.name = std::move(name);
  made_.help = std::move(help);
}

family& family::add(double value, labels of) {
  prometheus::ClientMetric one;
  one.label = std::move(of);
  (made_.type == prometheus::MetricType::Counter ? one.counter.value : one.gauge.value) = value;
  made_.metric.push_back(std::move(one));
  return *this;
}

}  // namespace zelta::metrics
