// SPDX-License-Identifier: Apache-2.0
#include "core_service/session/roster.h"

#include <algorithm>
#include <utility>

namespace zelta::core_service {

bool roster::receives(media::media_kind kind) const {
  return std::any_of(users_.begin(), users_.end(),
                     [kind](const auto& one) { return one.second->has(kind); });
}

void roster::start_service() {
  serves_ = true;
  for (const auto& one : users_) one.second->start_service();
  if (mix_ && !users_.empty()) mix_->start_service();
}

void roster::stop_service(const files::recording_end& why) {
  serves_ = false;
  for (const auto& one : users_) one.second->stop_service(why);
  if (mix_) mix_->stop_service(why);
}

user& roster::add(uint32_t uid, std::unique_ptr<user> one) {
  in_order_.push_back(uid);
  user& added = *(users_[uid] = std::move(one));
  if (!serves_) return added;
  added.start_service();
  // A mix begins with its first user: before, there is nothing to see or hear.
  if (mix_) mix_->start_service();
  return added;
}

void roster::end(uint32_t uid, const files::recording_end& why) {
  const auto found = users_.find(uid);
  if (found == users_.end()) return;
  user* const gone = leaving_.emplace_back(std::move(found->second)).get();
  users_.erase(found);
  in_order_.erase(std::find(in_order_.begin(), in_order_.end(), uid));
  if (mix_) mix_->remove_user(uid);
  events_.left(uid, why);
  gone->finish(why, [this, gone] {
    leaving_.erase(std::find_if(leaving_.begin(), leaving_.end(),
                                [gone](const auto& old) { return old.get() == gone; }));
    events_.completed();
  });
}

void roster::end_all(const files::recording_end& why) {
  while (!users_.empty()) end(users_.begin()->first, why);
}

void roster::finish_mix(const files::recording_end& why) {
  if (mix_) mix_->finish(why);
}

void roster::abandon_files() const {
  each_with_leaving([](user& one) { one.abandon_files(); });
  if (mix_) mix_->abandon_files();
}

void roster::count_losses() const {
  each_with_leaving([](user& one) { one.count_losses(); });
}

void roster::tick() const {
  each_with_leaving([](user& one) { one.tick(); });
  if (mix_) mix_->tick();
}

void roster::tell_progress() const {
  each_with_leaving([](user& one) { one.tell_progress(); });
  if (mix_) mix_->tell_progress();
}

}  // namespace zelta::core_service
