// SPDX-License-Identifier: Apache-2.0
#include "fleet/broker.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include <unistd.h>

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
constexpr int64_t kWatchMs = 200;
constexpr milliseconds kElectionPause{100};
// The longest election seen took nine seconds.
constexpr std::chrono::seconds kPatienceAtStart{30};
constexpr int64_t kEventsDays = 7;
constexpr int64_t kEventsBytes = int64_t{1} << 30;
constexpr int kHistory = 32;
// Longer than what was asked waits for an answer.
constexpr std::chrono::seconds kViolationCounts{5};
constexpr int64_t kDuplicatesMs = 120'000;
// Workers that wait for a job of one label.
constexpr int64_t kMostWaiting = 100'000;
// Of states that nobody has written again, and of wishes.
constexpr std::chrono::hours kKept{30 * 24};

// What the library's last call on this thread said beside its status, without the place in its
// source.
std::string detail_of(natsStatus status) {
  natsStatus of = NATS_OK;
  const char* const text = nats_GetLastError(&of);
  std::string said = text != nullptr && of == status ? text : "";
  const size_t place = said.rfind('(', 0) == 0 ? said.find("): ") : std::string::npos;
  if (place != std::string::npos) said.erase(0, place + 3);
  return said.empty() || said == natsStatus_GetText(status) ? "" : ": " + said;
}

std::string words(const std::string& what, natsStatus status, const violations& denied) {
  const std::string not_permitted = denied.latest();
  return what + ": " + natsStatus_GetText(status) + detail_of(status) +
         (not_permitted.empty() ? "" : "; this user may not: " + not_permitted);
}

// The library says nothing of a file that isn't there.
std::string unreadable_file(const broker_settings& of) {
  const std::array<std::pair<const char*, const std::string*>, 4> files{
      {{"credentials_file", &of.credentials_file},
       {"ca_file", &of.ca_file},
       {"certificate_file", &of.certificate_file},
       {"key_file", &of.key_file}}};
  for (const auto& [name, path] : files) {
    if (path->empty() || access(path->c_str(), R_OK) == 0) continue;
    const std::string why = std::generic_category().message(errno);
    return std::string(name) + ": \"" + *path + "\" can't be read: " + why;
  }
  return "";
}

// Servers tell who isn't let in no reason; over TLS they hang up when the handshake is over.
std::string likely_reason(const broker_settings& of, natsStatus status) {
  if (status == NATS_CONNECTION_AUTH_FAILED && !of.credentials_file.empty()) {
    return "; credentials_file \"" + of.credentials_file +
           "\" has expired or was revoked, or the servers don't know its account";
  }
  const bool is_tls = !of.ca_file.empty() ||
                      std::any_of(of.urls.begin(), of.urls.end(), [](const std::string& url) {
                        return url.rfind("tls://", 0) == 0;
                      });
  if (!is_tls || (status != NATS_IO_ERROR && status != NATS_PROTOCOL_ERROR)) return "";
  return of.certificate_file.empty()
             ? "; the server may want certificate_file and key_file"
             : "; the server may not trust who signed \"" + of.certificate_file + "\"";
}

// Whose user it is may stand in it, and a password.
std::string without_user(const std::string& url) {
  const size_t scheme = url.find("//");
  const size_t start = scheme == std::string::npos ? 0 : scheme + 2;
  const size_t at = url.rfind('@');
  if (at == std::string::npos || at < start) return url;
  return url.substr(0, start) + url.substr(at + 1);
}

stored stored_of(kvEntry* entry) {
  stored made;
  made.key = kvEntry_Key(entry);
  const auto* const bytes = static_cast<const char*>(kvEntry_Value(entry));
  if (bytes != nullptr) made.value.assign(bytes, static_cast<size_t>(kvEntry_ValueLen(entry)));
  made.revision = kvEntry_Revision(entry);
  made.utc_ms = kvEntry_Created(entry) / kNanosecondsAMs;
  made.deleted = kvEntry_Operation(entry) != kvOp_Put;
  return made;
}

// Waits without a clock of its own: for who has nothing else to wake it.
void pause(milliseconds how_long) {
  std::mutex lock;
  std::condition_variable never;
  std::unique_lock<std::mutex> held(lock);
  never.wait_for(held, how_long, [] { return false; });
}

}  // namespace

// ---- What isn't permitted ------------------------------------------------------------------

void violations::note(std::string text) {
  const std::lock_guard<std::mutex> hold(lock_);
  text_ = std::move(text);
  at_ = clock::now();
}

std::string violations::latest() const {
  const std::lock_guard<std::mutex> hold(lock_);
  return clock::now() < at_ + kViolationCounts ? text_ : "";
}

// ---- Buckets -------------------------------------------------------------------------------

std::string bucket::words(const std::string& key, natsStatus status) const {
  return fleet::words(name_ + (key.empty() ? "" : ": " + key), status, denied_);
}

std::optional<stored> bucket::get(const std::string& key, std::string& error) const {
  error.clear();
  value_ptr found;
  const natsStatus status = kvStore_Get(out(found), kv_.get(), key.c_str());
  if (status == NATS_OK) return stored_of(found.get());
  if (status != NATS_NOT_FOUND) error = words(key, status);
  return std::nullopt;
}

change bucket::update(const std::string& key, const std::string& value, uint64_t& revision,
                      std::string& error) const {
  const auto size = static_cast<int>(value.size());
  uint64_t made = 0;
  // A key that was deleted has a revision, too, which kvStore_Create() knows about.
  const natsStatus status =
      revision == 0 ? kvStore_Create(&made, kv_.get(), key.c_str(), value.data(), size)
                    : kvStore_Update(&made, kv_.get(), key.c_str(), value.data(), size, revision);
  if (status == NATS_OK) {
    revision = made;
    return change::kDone;
  }
  error = words(key, status);
  // The library tells a wrong revision by no status of its own.
  std::string other;
  const std::optional<stored> now = get(key, other);
  if (!other.empty()) return change::kFailed;
  const uint64_t there = now ? now->revision : 0;
  // A server that is behind knows an older one.
  return there > revision ? change::kOutdated : change::kFailed;
}

bool bucket::put(const std::string& key, const std::string& value, std::string& error) const {
  const natsStatus status =
      kvStore_Put(nullptr, kv_.get(), key.c_str(), value.data(), static_cast<int>(value.size()));
  if (status == NATS_OK) return true;
  error = words(key, status);
  return false;
}

// Any server may be chosen to tell what there is, also one that is gone, for as long as the others
// hope for it: nobody answers then, and the next time it may be another one.
natsStatus bucket::begin_watch(watcher_ptr& to) const {
  constexpr int kMostTries = 3;
  natsStatus status = NATS_TIMEOUT;
  for (int at = 0; at < kMostTries && status == NATS_TIMEOUT && denied_.latest().empty(); ++at) {
    status = kvStore_WatchAll(out(to), kv_.get(), nullptr);
  }
  return status;
}

std::vector<stored> bucket::all(std::string& error) const {
  std::vector<stored> found;
  bool told = false;
  watcher_ptr watcher;
  natsStatus status = begin_watch(watcher);
  while (status == NATS_OK && !told) {
    value_ptr next;
    status = kvWatcher_Next(out(next), watcher.get(), kWatchMs * 25);
    if (status != NATS_OK) break;
    told = next == nullptr;
    if (next != nullptr && kvEntry_Operation(next.get()) == kvOp_Put) {
      found.push_back(stored_of(next.get()));
    }
  }
  if (status != NATS_OK) error = words("", status);
  return found;
}

void bucket::watch(const std::atomic<bool>& stop, const std::function<void(const stored*)>& tell,
                   std::string& error) const {
  watcher_ptr watcher;
  natsStatus status = begin_watch(watcher);
  if (status != NATS_OK) {
    error = words("", status);
    return;
  }
  while ((status == NATS_OK || status == NATS_TIMEOUT) && !stop.load(std::memory_order_acquire)) {
    value_ptr next;
    status = kvWatcher_Next(out(next), watcher.get(), kWatchMs);
    if (status != NATS_OK) continue;
    if (next == nullptr) {
      tell(nullptr);
    } else {
      const stored one = stored_of(next.get());
      tell(&one);
    }
  }
  if (status != NATS_OK && status != NATS_TIMEOUT) error = words("", status);
}

std::vector<stored> bucket::history(const std::string& key, std::string& error) const {
  std::vector<stored> found;
  kvEntryList list{};
  const natsStatus status = kvStore_History(&list, kv_.get(), key.c_str(), nullptr);
  for (int at = 0; at < list.Count; ++at) found.push_back(stored_of(list.Entries[at]));
  kvEntryList_Destroy(&list);
  if (status != NATS_OK && status != NATS_NOT_FOUND) error = words(key, status);
  return found;
}

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
    error = words("NATS can't be used as the settings say", status, made->denied_);
    return nullptr;
  }
  status = natsConnection_Connect(out(made->connection_), o);
  if (status != NATS_OK) {
    std::string all;
    for (const std::string& url : settings.urls)
      all += (all.empty() ? "" : ", ") + without_user(url);
    error = words("no connection to NATS at " + all, status, made->denied_) +
            likely_reason(settings, status);
    return nullptr;
  }
  made->connected_.store(true, std::memory_order_release);
  jsOptions js{};
  jsOptions_Init(&js);
  js.Wait = settings.patience.count();
  status = natsConnection_JetStream(out(made->js_), made->connection_.get(), &js);
  if (status != NATS_OK) {
    error = words("JetStream", status, made->denied_);
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
  error = words(what, status, denied_);
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
  // Whatever the library would keep for later.
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
