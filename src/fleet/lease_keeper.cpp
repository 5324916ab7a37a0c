// SPDX-License-Identifier: Apache-2.0
#include "fleet/lease_keeper.h"

#include <charconv>
#include <utility>

#include "fleet/assignment.h"

namespace zelta::fleet {
namespace {

// Those that nobody answered in time are forgotten.
constexpr size_t kMostAsked = 100'000;

}  // namespace

std::unique_ptr<lease_keeper> lease_keeper::make(broker& by, proven tell, std::string& error) {
  std::unique_ptr<lease_keeper> made(new lease_keeper(by, std::move(tell)));
  lease_keeper* const self = made.get();
  made->answers_ = by.answers(
      made->beginning_, [self](const std::string& number) { self->on_answer(number); }, error);
  return made->answers_ ? std::move(made) : nullptr;
}

void lease_keeper::renew(const std::string& job, const std::string& answer_subject) {
  uint64_t number = 0;
  {
    const std::lock_guard<std::mutex> hold(lock_);
    number = ++last_;
    asked_[number] = {job, clock::now()};
    while (asked_.size() > kMostAsked) asked_.erase(asked_.begin());
  }
  // What isn't sent isn't answered.
  static_cast<void>(by_.say(answer_subject, beginning_ + std::to_string(number), kSayStillAtIt));
}

void lease_keeper::on_answer(const std::string& number) {
  uint64_t of = 0;
  std::from_chars(number.data(), number.data() + number.size(), of);
  asked found;
  {
    const std::lock_guard<std::mutex> hold(lock_);
    const auto at = asked_.find(of);
    if (at == asked_.end()) return;
    found = std::move(at->second);
    asked_.erase(at);
  }
  tell_(found.job, found.sent);
}

}  // namespace zelta::fleet
