// SPDX-License-Identifier: Apache-2.0
// Owners of what the NATS library makes.
#pragma once

#include <memory>

#include <nats/nats.h>

namespace zelta::fleet {

template <class T, void (*Destroy)(T*)>
struct destroy_by {
  void operator()(T* one) const { Destroy(one); }
};
template <class T, void (*Destroy)(T*)>
using owned = std::unique_ptr<T, destroy_by<T, Destroy>>;

using options_ptr = owned<natsOptions, natsOptions_Destroy>;
using connection_ptr = owned<natsConnection, natsConnection_Destroy>;
using jetstream_ptr = owned<jsCtx, jsCtx_Destroy>;
using subscription_ptr = owned<natsSubscription, natsSubscription_Destroy>;
using message_ptr = owned<natsMsg, natsMsg_Destroy>;
using metadata_ptr = owned<jsMsgMetaData, jsMsgMetaData_Destroy>;
using consumer_info_ptr = owned<jsConsumerInfo, jsConsumerInfo_Destroy>;
using stream_info_ptr = owned<jsStreamInfo, jsStreamInfo_Destroy>;
using publish_ack_ptr = owned<jsPubAck, jsPubAck_Destroy>;
using bucket_ptr = owned<kvStore, kvStore_Destroy>;
using value_ptr = owned<kvEntry, kvEntry_Destroy>;
using watcher_ptr = owned<kvWatcher, kvWatcher_Destroy>;

// Gives what a function of the library fills to an owner: `make(out(owner))`.
template <class Owner>
class out {
 public:
  explicit out(Owner& to) : to_(to) {}
  ~out() { to_.reset(made_); }
  out(const out&) = delete;
  out& operator=(const out&) = delete;
  operator typename Owner::pointer *() { return &made_; }  // NOLINT(google-explicit-constructor)

 private:
  Owner& to_;
  typename Owner::pointer made_ = nullptr;
};

}  // namespace zelta::fleet
