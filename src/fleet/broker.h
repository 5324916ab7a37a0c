// SPDX-License-Identifier: Apache-2.0
// The way to NATS: one connection, the fleet's streams and buckets, and what is asked of them.
//
// Any thread; calls wait for the servers, as long as `patience` says. What fails says why, in
// words; nothing throws but std::bad_alloc.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fleet/broker_settings.h"
#include "fleet/bucket.h"
#include "fleet/handles.h"
#include "fleet/listening.h"
#include "fleet/nats_faults.h"

namespace zelta::fleet {

class broker {
 public:
  // Connects, waits for that, and keeps on trying later whenever the connection is lost. Null, with
  // `error`.
  static std::unique_ptr<broker> connect(const broker_settings& settings, std::string& error);
  broker(const broker&) = delete;
  broker& operator=(const broker&) = delete;
  ~broker();

  // Makes the streams and buckets that aren't there; those that are stay as they are. Servers that
  // are just electing, or have just begun, are asked again for half a minute.
  bool prepare(std::chrono::milliseconds workers_ttl, std::string& error);
  // Of those that prepare() made.
  const bucket& recordings() const { return *recordings_; }
  const bucket& wishes() const { return *wishes_; }
  const bucket& workers() const { return *workers_; }
  const bucket& deliveries() const { return *deliveries_; }

  // Kept once by this id, however often it is tried, within two minutes.
  // `is_repeat`: it was there already.
  bool publish(const std::string& subject, const std::string& text, const std::string& id,
               bool& is_repeat, std::string& error);
  // Whoever listens gets it, or nobody: not kept.
  bool say(const std::string& subject, const std::string& text);
  // The answer; nothing, with `error`, and not `is_heard` when nobody listens or answers.
  std::optional<std::string> ask(const std::string& subject, const std::string& text,
                                 bool& is_heard, std::string& error);
  // Null, with `error`.
  std::unique_ptr<listening> listen(const std::string& subject, listening::heard to,
                                    std::string& error);

  // Says `text` to `subject`, whose answer goes to `answer_to`, under a subject of answers().
  bool say(const std::string& subject, const std::string& answer_to, const std::string& text);
  // What is answered to subjects that begin so, with what follows the beginning. As listen().
  std::unique_ptr<listening> answers(std::string& beginning,
                                     std::function<void(const std::string&)> told,
                                     std::string& error);

  // The queue of jobs of a label: its consumer is made when there is none. `lease`: a job that
  // isn't renewed for so long is somebody else's.
  subscription_ptr queue(const std::string& label, std::chrono::milliseconds lease,
                         std::string& error);
  struct queue_numbers {
    uint64_t waiting = 0;
    uint64_t taken = 0;
  };
  // By label: of those that jobs ask for, or a worker has asked for.
  std::map<std::string, queue_numbers> numbers(std::string& error);
  // Whether the job of that number still stands there: it isn't over. Nothing, with `error`, when
  // it can't be asked.
  std::optional<bool> stands_in_queue(uint64_t sequence, std::string& error);

  bool is_connected() const { return connected_.load(std::memory_order_acquire); }
  // For good, with `why`: mostly as a server refused this user twice in a row, after which the
  // library doesn't ask again. All calls fail from then on.
  bool is_shut_out(std::string& why) const;
  jsCtx* jetstream() const { return js_.get(); }

 private:
  explicit broker(const broker_settings& settings) : settings_(settings) {}

  bool ensure_stream(const char* name, const char* subject, bool is_queue, std::string& error);
  std::unique_ptr<bucket> ensure_bucket(const char* name, int history,
                                        std::chrono::milliseconds ttl, std::string& error);
  bool again_until(std::chrono::steady_clock::time_point until, natsStatus of,
                   jsErrCode code = {}) const;
  bool fail(std::string& error, const std::string& what, natsStatus status) const;
  void on_closed(natsStatus last, const std::string& text);

  const broker_settings settings_;
  std::atomic<bool> connected_{false};
  violations denied_;
  mutable std::mutex closing_lock_;
  std::condition_variable closing_;
  bool closed_ = false;
  std::string closed_why_;
  connection_ptr connection_;
  jetstream_ptr js_;
  std::unique_ptr<bucket> recordings_;
  std::unique_ptr<bucket> wishes_;
  std::unique_ptr<bucket> workers_;
  std::unique_ptr<bucket> deliveries_;
};

}  // namespace zelta::fleet
