// SPDX-License-Identifier: Apache-2.0
#include "fleet/broker.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "fleet/names.h"

namespace zelta::fleet {
namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int64_t kNanosecondsAMs = 1'000'000;
constexpr int kNoLimit = -1;
// Of a connection that is lost; with jitter, so that a fleet doesn't come back at once.
constexpr int64_t kReconnectMs = 250;
constexpr int64_t kJitterMs = 500;
// A server that doesn't answer is gone: that is found out before leases end by it.
constexpr int64_t kPingMs = 1000;
constexpr int kMostPings = 2;
constexpr milliseconds kElectionPause{100};
// The longest election seen took nine seconds.
constexpr std::chrono::seconds kPatienceAtStart{30};
constexpr int64_t kEventsDays = 7;
constexpr int64_t kEventsBytes = int64_t{1} << 30;
constexpr int kHistory = 32;
constexpr int64_t kDuplicatesMs = 120'000;
// Workers that wait for a job of one label.
constexpr int64_t kMostWaiting = 100'000;
// Of states that nobody has written again, and of wishes.
constexpr std::chrono::hours kKept{30 * 24};

// Waits without a clock of its own: for who has nothing else to wake it.
void pause(milliseconds how_long) {
  std::mutex lock;
  std::condition_variable never;
  std::unique_lock<std::mutex> held(lock);
  never.wait_for(held, how_long, [] { return false; });
}

}  // namespace

// ---- The connection ------------------------------------------------------------------------

std::unique_ptr<broker> broker::connect(const broker_settings& settings, std::string& error) {
  error = unreadable_file(settings);
  if (!error.empty()) return nullptr;
  std::unique_ptr<broker> made(new broker(settings));
  options_ptr options;
  natsStatus status = natsOptions_Create(out(options));
  const auto set = [&](natsStatus result) {
    if (status == NATS_OK) status = result;
  };
  std::vector<const char*> urls;
  for (const std::string& url : settings.urls) urls.push_back(url.c_str());
  natsOptions* const o = options.get();
  set(natsOptions_SetServers(o, urls.data(), static_cast<int>(urls.size())));
  set(natsOptions_SetName(o, settings.name.c_str()));
  set(natsOptions_SetTimeout(o, settings.patience.count()));
  set(natsOptions_SetMaxReconnect(o, kNoLimit));
  set(natsOptions_SetReconnectWait(o, kReconnectMs));
  set(natsOptions_SetReconnectJitter(o, kJitterMs, kJitterMs));
  set(natsOptions_SetPingInterval(o, kPingMs));
  set(natsOptions_SetMaxPingsOut(o, kMostPings));
  // What is said while there is no connection is of a moment that is over by then.
  set(natsOptions_SetReconnectBufSize(o, 0));
  if (!settings.credentials_file.empty()) {
    set(natsOptions_SetUserCredentialsFromFiles(o, settings.credentials_file.c_str(), nullptr));
  }
  if (!settings.ca_file.empty()) {
    set(natsOptions_SetSecure(o, true));
    set(natsOptions_LoadCATrustedCertificates(o, settings.ca_file.c_str()));
  }
  if (!settings.certificate_file.empty()) {
    set(natsOptions_LoadCertificatesChain(o, settings.certificate_file.c_str(),
                                          settings.key_file.c_str()));
  }
  set(natsOptions_SetDisconnectedCB(
      o,
      [](natsConnection*, void* self) {
        static_cast<broker*>(self)->connected_.store(false, std::memory_order_release);
      },
      made.get()));
  set(natsOptions_SetReconnectedCB(
      o,
      [](natsConnection*, void* self) {
        static_cast<broker*>(self)->connected_.store(true, std::memory_order_release);
      },
      made.get()));
  set(natsOptions_SetClosedCB(
      o,
      [](natsConnection* of, void* self) {
        const char* text = nullptr;
        const natsStatus last = natsConnection_GetLastError(of, &text);
        static_cast<broker*>(self)->on_closed(last, text != nullptr ? text : "");
      },
      made.get()));
  set(natsOptions_SetErrorHandler(
      o,
      [](natsConnection* of, natsSubscription*, natsStatus what, void* self) {
        const char* text = nullptr;
        if (what != NATS_NOT_PERMITTED) return;
        natsConnection_GetLastError(of, &text);
        static_cast<broker*>(self)->denied_.note(text != nullptr ? text : "it isn't permitted");
      },
      made.get()));
  if (status != NATS_OK) {
    error = fault_text("NATS can't be used as the settings say", status, made->denied_);
    return nullptr;
  }
  status = natsConnection_Connect(out(made->connection_), o);
  if (status != NATS_OK) {
    std::string all;
    for (const std::string& url : settings.urls)
      all += (all.empty() ? "" : ", ") + without_user(url);
    error = fault_text("no connection to NATS at " + all, status, made->denied_) +
            likely_reason(settings, status);
    return nullptr;
  }
  made->connected_.store(true, std::memory_order_release);
  jsOptions js{};
  jsOptions_Init(&js);
  js.Wait = settings.patience.count();
  status = natsConnection_JetStream(out(made->js_), made->connection_.get(), &js);
  if (status != NATS_OK) {
    error = fault_text("JetStream", status, made->denied_);
    return nullptr;
  }
  return made;
}

// Its callbacks come on the library's threads, and that of its end as the last one.
broker::~broker() {
  if (!connection_) return;
  natsConnection_Close(connection_.get());
  std::unique_lock<std::mutex> held(closing_lock_);
  closing_.wait(held, [this] { return closed_; });
}

void broker::on_closed(natsStatus last, const std::string& text) {
  // Told with the lock: whoever waits for it takes all of this away.
  const std::lock_guard<std::mutex> hold(closing_lock_);
  closed_ = true;
  closed_why_ = "NATS lets this user in no more: " + text + likely_reason(settings_, last);
  closing_.notify_all();
}

bool broker::is_shut_out(std::string& why) const {
  const std::lock_guard<std::mutex> hold(closing_lock_);
  if (closed_) why = closed_why_;
  return closed_;
}

bool broker::fail(std::string& error, const std::string& what, natsStatus status) const {
  error = fault_text(what, status, denied_);
  return false;
}

// An election takes a moment, in which nobody answers; whoever leads then may not have met all the
// others yet, among whom it looks for room.
bool broker::again_until(clock::time_point until, natsStatus of, jsErrCode code) const {
  const bool may_pass = of == NATS_TIMEOUT || of == NATS_NO_RESPONDERS ||
                        of == NATS_CONNECTION_DISCONNECTED || code == JSClusterNoPeersErr ||
                        code == JSClusterNotAvailErr || code == JSClusterNotLeaderErr;
  if (!may_pass || clock::now() >= until || !denied_.latest().empty()) return false;
  pause(kElectionPause);
  return true;
}

bool broker::ensure_stream(const char* name, const char* subject, bool is_queue,
                           std::string& error) {
  jsStreamConfig config{};
  jsStreamConfig_Init(&config);
  std::array<const char*, 1> subjects{subject};
  config.Name = name;
  config.Subjects = subjects.data();
  config.SubjectsLen = 1;
  config.Retention = is_queue ? js_WorkQueuePolicy : js_LimitsPolicy;
  config.Storage = js_FileStorage;
  config.Replicas = settings_.replicas;
  // A job that doesn't fit any more is refused, and nothing that waits is thrown away for it.
  config.Discard = is_queue ? js_DiscardNew : js_DiscardOld;
  if (!is_queue) {
    config.MaxAge = kEventsDays * 24 * 3600 * 1000 * kNanosecondsAMs;
    config.MaxBytes = kEventsBytes;
  }
  natsStatus status = NATS_OK;
  jsErrCode code{};
  const auto until = clock::now() + kPatienceAtStart;
  do {
    code = {};
    stream_info_ptr there;
    status = js_GetStreamInfo(out(there), js_.get(), name, nullptr, &code);
    if (status == NATS_NOT_FOUND) {
      status = js_AddStream(nullptr, js_.get(), &config, nullptr, &code);
    }
  } while (status != NATS_OK && code != JSStreamNameExistErr && again_until(until, status, code));
  if (status == NATS_OK || code == JSStreamNameExistErr) return true;
  return fail(error, std::string("stream ") + name, status);
}

// As the library makes them, but read from their leader alone: a server that is behind would tell
// revisions of yesterday, by which a worker takes itself for superseded.
std::unique_ptr<bucket> broker::ensure_bucket(const char* name, int history, milliseconds ttl,
                                              std::string& error) {
  const std::string stream = std::string("KV_") + name;
  const std::string subject = std::string("$KV.") + name + ".>";
  std::array<const char*, 1> subjects{subject.c_str()};
  jsStreamConfig config{};
  jsStreamConfig_Init(&config);
  config.Name = stream.c_str();
  config.Subjects = subjects.data();
  config.SubjectsLen = 1;
  config.MaxMsgsPerSubject = history;
  config.MaxAge = ttl.count() * kNanosecondsAMs;
  config.Duplicates = std::min<int64_t>(config.MaxAge, kDuplicatesMs * kNanosecondsAMs);
  config.Discard = js_DiscardNew;
  config.Storage = js_FileStorage;
  config.Replicas = settings_.replicas;
  config.AllowRollup = true;
  config.DenyDelete = true;
  config.AllowDirect = false;
  bucket_ptr made;
  natsStatus status = NATS_OK;
  jsErrCode code{};
  const auto until = clock::now() + kPatienceAtStart;
  do {
    code = {};
    status = js_KeyValue(out(made), js_.get(), name);
    if (status != NATS_NOT_FOUND) continue;
    status = js_AddStream(nullptr, js_.get(), &config, nullptr, &code);
    // Somebody with another lease may have been faster: what is there stays as it is.
    if (status == NATS_OK || code == JSStreamNameExistErr) {
      status = js_KeyValue(out(made), js_.get(), name);
    }
  } while (status != NATS_OK && again_until(until, status, code));
  if (status == NATS_OK) return std::make_unique<bucket>(std::move(made), name, denied_);
  fail(error, std::string("bucket ") + name, status);
  return nullptr;
}

bool broker::prepare(milliseconds workers_ttl, std::string& error) {
  if (!ensure_stream(kJobsStream, kJobsSubjects, true, error)) return false;
  if (!ensure_stream(kEventsStream, kEventsSubjects, false, error)) return false;
  recordings_ = ensure_bucket(kRecordings, kHistory, kKept, error);
  wishes_ = recordings_ ? ensure_bucket(kWishes, 1, kKept, error) : nullptr;
  workers_ = wishes_ ? ensure_bucket(kWorkers, 1, workers_ttl, error) : nullptr;
  deliveries_ = workers_ ? ensure_bucket(kDeliveries, 1, kKept, error) : nullptr;
  return deliveries_ != nullptr;
}

// ---- What is said --------------------------------------------------------------------------

bool broker::publish(const std::string& subject, const std::string& text, const std::string& id,
                     bool& is_repeat, std::string& error) {
  jsPubOptions options{};
  jsPubOptions_Init(&options);
  options.MsgId = id.empty() ? nullptr : id.c_str();
  natsStatus status = NATS_OK;
  const auto until = clock::now() + settings_.patience;
  do {
    publish_ack_ptr ack;
    status = js_Publish(out(ack), js_.get(), subject.c_str(), text.data(),
                        static_cast<int>(text.size()), &options, nullptr);
    is_repeat = ack != nullptr && ack->Duplicate;
  } while (status != NATS_OK && again_until(until, status));
  return status == NATS_OK || fail(error, subject, status);
}

bool broker::say(const std::string& subject, const std::string& text) {
  // The library's header has it that a buffer of 0 keeps 8 MB: all of it would go out, too late,
  // when there is a connection again.
  if (!is_connected()) return false;
  return natsConnection_Publish(connection_.get(), subject.c_str(), text.data(),
                                static_cast<int>(text.size())) == NATS_OK;
}

std::optional<std::string> broker::ask(const std::string& subject, const std::string& text,
                                       bool& is_heard, std::string& error) {
  message_ptr reply;
  const natsStatus status =
      natsConnection_Request(out(reply), connection_.get(), subject.c_str(), text.data(),
                             static_cast<int>(text.size()), settings_.patience.count());
  is_heard = status != NATS_NO_RESPONDERS && status != NATS_TIMEOUT;
  if (status != NATS_OK) {
    fail(error, subject, status);
    return std::nullopt;
  }
  return std::string(natsMsg_GetData(reply.get()),
                     static_cast<size_t>(natsMsg_GetDataLength(reply.get())));
}

std::unique_ptr<listening> broker::listen(const std::string& subject, listening::heard to,
                                          std::string& error) {
  natsStatus status = NATS_OK;
  auto made = listening::start(connection_.get(), subject, std::move(to), status);
  if (!made) fail(error, subject, status);
  return made;
}

bool broker::say(const std::string& subject, const std::string& answer_to,
                 const std::string& text) {
  if (!is_connected()) return false;
  return natsConnection_PublishRequest(connection_.get(), subject.c_str(), answer_to.c_str(),
                                       text.data(), static_cast<int>(text.size())) == NATS_OK;
}

std::unique_ptr<listening> broker::answers(std::string& beginning,
                                           std::function<void(const std::string&)> told,
                                           std::string& error) {
  natsInbox* inbox = nullptr;
  const natsStatus status = natsInbox_Create(&inbox);
  if (status != NATS_OK) {
    fail(error, "answers", status);
    return nullptr;
  }
  beginning = std::string(inbox) + ".";
  natsInbox_Destroy(inbox);
  return listen(
      beginning + "*",
      [size = beginning.size(), told = std::move(told)](
          const std::string& subject, const std::string& /*text*/,
          const listening::reply& /*none*/) { told(subject.substr(size)); },
      error);
}

// ---- The queue -----------------------------------------------------------------------------

subscription_ptr broker::queue(const std::string& label, milliseconds lease, std::string& error) {
  const std::string subject = jobs_subject(label);
  const std::string durable = jobs_consumer(label);
  jsSubOptions options{};
  jsSubOptions_Init(&options);
  options.Stream = kJobsStream;
  options.Config.AckPolicy = js_AckExplicit;
  options.Config.AckWait = lease.count() * kNanosecondsAMs;
  options.Config.MaxDeliver = kNoLimit;
  options.Config.MaxAckPending = kNoLimit;
  options.Config.MaxWaiting = kMostWaiting;
  options.Config.FilterSubject = subject.c_str();
  subscription_ptr made;
  natsStatus status = NATS_OK;
  const auto until = clock::now() + settings_.patience;
  do {
    status = js_PullSubscribe(out(made), js_.get(), subject.c_str(), durable.c_str(), nullptr,
                              &options, nullptr);
  } while (status != NATS_OK && again_until(until, status));
  if (status != NATS_OK) fail(error, "jobs of label " + label, status);
  return made;
}

std::map<std::string, broker::queue_numbers> broker::numbers(std::string& error) {
  std::map<std::string, queue_numbers> made;
  const std::string beginning = jobs_subject("");
  jsOptions options{};
  jsOptions_Init(&options);
  options.Stream.Info.SubjectsFilter = kJobsSubjects;
  stream_info_ptr info;
  natsStatus status = js_GetStreamInfo(out(info), js_.get(), kJobsStream, &options, nullptr);
  const auto* const subjects = info && status == NATS_OK ? info->State.Subjects : nullptr;
  for (int at = 0; subjects != nullptr && at < subjects->Count; ++at) {
    made[std::string(subjects->List[at].Subject).substr(beginning.size())].waiting =
        subjects->List[at].Msgs;
  }
  const std::string prefix = jobs_consumer("");
  jsConsumerInfoList* list = nullptr;
  if (status == NATS_OK) status = js_Consumers(&list, js_.get(), kJobsStream, nullptr, nullptr);
  for (int at = 0; list != nullptr && at < list->Count; ++at) {
    const std::string name = list->List[at]->Name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    queue_numbers& of = made[name.substr(prefix.size())];
    of.taken = std::min(of.waiting, static_cast<uint64_t>(list->List[at]->NumAckPending));
    of.waiting -= of.taken;
  }
  jsConsumerInfoList_Destroy(list);
  if (status != NATS_OK && status != NATS_NOT_FOUND) fail(error, kJobsStream, status);
  return made;
}

std::optional<bool> broker::stands_in_queue(uint64_t sequence, std::string& error) {
  message_ptr found;
  const natsStatus status =
      js_GetMsg(out(found), js_.get(), kJobsStream, sequence, nullptr, nullptr);
  if (status == NATS_OK) return true;
  if (status == NATS_NOT_FOUND) return false;
  fail(error, kJobsStream, status);
  return std::nullopt;
}

}  // namespace zelta::fleet
