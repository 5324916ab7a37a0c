// SPDX-License-Identifier: Apache-2.0
#include "fleet/queue_reader.h"

#include <utility>

namespace zelta::fleet {
namespace {

// A request that waits at the server gets what comes at once. It ends soon, as it would get a job
// for a worker that has no room any more, or has ended.
constexpr int64_t kAskMs = 1000;
constexpr std::chrono::milliseconds kRetry{500};
constexpr int64_t kLateMs = 200;

}  // namespace

queue_reader::queue_reader(broker& by, std::string label, std::chrono::milliseconds lease_length,
                           told to)
    : by_(by), label_(std::move(label)), lease_length_(lease_length), told_(std::move(to)) {
  thread_ = std::thread([this] { work(); });
}

queue_reader::~queue_reader() {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void queue_reader::want_one() {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    wants_ = true;
  }
  changed_.notify_all();
}

void queue_reader::want_none(bool for_good) {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    wants_ = false;
    for_good_ = for_good_ || for_good;
  }
  changed_.notify_all();
}

// A server may answer a request in the moment in which it ends here: nobody would have that job
// until its lease is over.
void queue_reader::give_back_late_ones() {
  jsFetchRequest request{};
  jsFetchRequest_Init(&request);
  request.Batch = 1;
  request.NoWait = true;
  request.Expires = kLateMs * 1'000'000;
  natsMsgList list{};
  if (queue_ && natsSubscription_FetchRequest(&list, queue_.get(), &request) == NATS_OK) {
    for (int at = 0; at < list.Count; ++at) {
      static_cast<void>(by_.say(natsMsg_GetReply(list.Msgs[at]), kSayAgain));
    }
  }
  natsMsgList_Destroy(&list);
}

bool queue_reader::is_asking() const {
  const std::lock_guard<std::mutex> hold(lock_);
  return asks_ || (for_good_ && !is_done_);
}

// False with an error when the queue can't be asked.
bool queue_reader::take_one(std::string& error) {
  if (!queue_) queue_ = by_.queue(label_, lease_length_, error);
  if (!queue_) return false;
  natsMsgList list{};
  // What is there already came by an earlier question, too late for it.
  uint64_t queued = 0;
  static_cast<void>(natsSubscription_QueuedMsgs(queue_.get(), &queued));
  if (queued == 0) asked_ = lease::clock::now();
  const natsStatus status = natsSubscription_Fetch(&list, queue_.get(), 1, kAskMs, nullptr);
  if (status != NATS_OK) {
    natsMsgList_Destroy(&list);
    if (status == NATS_TIMEOUT) return true;
    error = "jobs of label " + label_ + ": " + natsStatus_GetText(status);
    // A consumer that somebody has deleted is made anew.
    queue_.reset();
    return false;
  }
  const message_ptr message(list.Count > 0 ? std::exchange(list.Msgs[0], nullptr) : nullptr);
  natsMsgList_Destroy(&list);
  // Of one that is older than its lease somebody else may have the job.
  if (!message || lease::clock::now() - asked_ >= lease_length_) return true;
  assignment made;
  made.text.assign(natsMsg_GetData(message.get()),
                   static_cast<size_t>(natsMsg_GetDataLength(message.get())));
  made.answer_to = natsMsg_GetReply(message.get());
  made.label = label_;
  made.asked = asked_;
  metadata_ptr about;
  if (natsMsg_GetMetaData(out(about), message.get()) == NATS_OK) {
    made.sequence = about->Sequence.Stream;
    made.delivered = about->NumDelivered;
  }
  {
    const std::lock_guard<std::mutex> hold(lock_);
    wants_ = false;
  }
  told_.job(std::move(made));
  return true;
}

void queue_reader::work() {
  std::unique_lock<std::mutex> held(lock_);
  bool was_fine = true;
  while (!ending_) {
    changed_.wait(held, [this] { return ending_ || wants_ || for_good_; });
    if (ending_) return;
    std::string error;
    asks_ = true;
    const bool asks_for_one = wants_;
    held.unlock();
    const bool fine = !asks_for_one || take_one(error);
    if (!fine && was_fine) told_.fault(error);
    was_fine = fine;
    held.lock();
    if (for_good_) {
      held.unlock();
      give_back_late_ones();
      held.lock();
      asks_ = false;
      is_done_ = true;
      held.unlock();
      told_.none();
      return;
    }
    asks_ = false;
    if (!fine) changed_.wait_for(held, kRetry, [this] { return ending_; });
  }
}

}  // namespace zelta::fleet
