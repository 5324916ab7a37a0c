// SPDX-License-Identifier: Apache-2.0
#include "fleet/listening.h"

#include <utility>

namespace zelta::fleet {

std::unique_ptr<listening> listening::start(natsConnection* by, const std::string& subject,
                                            heard to, natsStatus& status) {
  auto shared = std::make_shared<gate>();
  shared->to = std::move(to);
  std::unique_ptr<listening> made(new listening(shared));
  auto held = std::make_unique<std::shared_ptr<gate>>(shared);
  status = natsConnection_Subscribe(out(made->subscription_), by, subject.c_str(), on_message,
                                    held.get());
  if (status != NATS_OK) return nullptr;
  // The library's share of it ends when it has told its last message.
  void* const theirs = held.release();
  status = natsSubscription_SetOnCompleteCB(
      made->subscription_.get(), [](void* of) { delete static_cast<std::shared_ptr<gate>*>(of); },
      theirs);
  return made;
}

listening::~listening() {
  const std::lock_guard<std::mutex> hold(gate_->lock);
  gate_->to = nullptr;
}

void listening::on_message(natsConnection* by, natsSubscription* /*of*/, natsMsg* message,
                           void* to) {
  const message_ptr held(message);
  // A server that has nobody for a question says so, and that is no answer.
  if (natsMsg_IsNoResponders(message)) return;
  const std::string text(natsMsg_GetData(message),
                         static_cast<size_t>(natsMsg_GetDataLength(message)));
  const char* const back = natsMsg_GetReply(message);
  reply answer = [](const std::string& /*none*/) {};
  if (back != nullptr) {
    answer = [by, subject = std::string(back)](const std::string& said) {
      // Whoever asked has a time limit of their own.
      static_cast<void>(
          natsConnection_Publish(by, subject.c_str(), said.data(), static_cast<int>(said.size())));
    };
  }
  const std::shared_ptr<gate> gate_of = *static_cast<std::shared_ptr<gate>*>(to);
  const std::lock_guard<std::mutex> hold(gate_of->lock);
  if (gate_of->to) gate_of->to(natsMsg_GetSubject(message), text, std::move(answer));
}

}  // namespace zelta::fleet
