// SPDX-License-Identifier: Apache-2.0
#include "fleet/worker.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <utility>

#include <json/json.h>

#include "base/clocks.h"
#include "fleet/json_text.h"
#include "fleet/names.h"

namespace zelta::fleet {
namespace {

constexpr int kReportMs = 1000;
// A job that can't be recorded here may be somebody else's soon.
constexpr std::chrono::seconds kAgain{1};
constexpr std::chrono::seconds kFaultPause{10};
// The store forgets what nobody has written for a month.
constexpr int kTouchReports = 3600;
constexpr const char* kAskedToLeave = "it was asked to leave";

}  // namespace

// A job that came, and what the store knows of it.
struct worker::taken {
  assignment by;
  job what;
  recording_state state;
  Json::Value wishes;
  uint64_t revision = 0;
  std::unique_ptr<listening> commands;
};

worker::worker(base::event_loop& loop, broker& by, const worker_settings& settings, bool handover,
               say tell)
    : loop_(loop),
      by_(by),
      settings_(settings),
      handover_(handover),
      say_(std::move(tell)),
      poster_(loop),
      meter_(settings.root) {}

worker::~worker() {
  // Whoever tells the loop something goes before what that is about.
  readers_.clear();
  commands_.clear();
  orders_.reset();
  writer_.reset();
  keeper_.reset();
}

// Of whoever had this name before.
void worker::clean_up() const {
  const std::filesystem::path beginning = scratch_beginning(settings_.name);
  const std::string name = beginning.filename().string();
  std::error_code failed;
  std::filesystem::directory_iterator at(beginning.parent_path(), failed);
  for (; !failed && at != std::filesystem::directory_iterator(); at.increment(failed)) {
    std::error_code ignored;
    const std::string found = at->path().filename().string();
    const bool is_one = found.compare(0, name.size(), name) == 0 && found.size() == name.size() + 6;
    if (is_one) std::filesystem::remove_all(at->path(), ignored);
  }
}

bool worker::start(std::string& error) {
  clean_up();
  keeper_ = lease_keeper::make(
      by_,
      [this](const std::string& id, clock::time_point sent) {
        poster_.post([this, id, sent] {
          const auto found = recordings_.find(id);
          if (found != recordings_.end()) found->second->renewed(sent);
        });
      },
      error);
  if (!keeper_) return false;
  writer_ = std::make_unique<state_writer>(
      by_, state_writer::told{[this](const std::string& id, uint64_t adopted, bool at_once) {
                                poster_.post([this, id, adopted, at_once] {
                                  // The queue may have given it to this worker anew meanwhile.
                                  if (!writer_->is_current(id, adopted)) return;
                                  settling_.erase(id);
                                  const auto found = recordings_.find(id);
                                  if (found != recordings_.end()) found->second->outdated(at_once);
                                });
                              },
                              [this](const std::string& id, uint64_t number) {
                                poster_.post([this, id, number] { on_kept(id, number); });
                              }});
  orders_ = by_.listen(
      worker_subject(settings_.name),
      [this](const std::string& /*subject*/, const std::string& text,
             const listening::reply& answer) { on_order(text, answer); },
      error);
  if (!orders_) return false;
  load_ = meter_.measure();
  for (const std::string& label : settings_.labels) {
    readers_.push_back(std::make_unique<queue_reader>(
        by_, label, settings_.lease,
        queue_reader::told{[this](assignment what) { take(std::move(what)); },
                           [this](const std::string& fault) {
                             poster_.post([this, fault] { say_("", "fault", fault); });
                           },
                           [this] { poster_.post([this] { hand_over(); }); }}));
  }
  report_timer_ = base::scoped_timer(loop_, kReportMs, [this] { report(); });
  report();
  return true;
}

// ---- Taking one ----------------------------------------------------------------------------

// On a reader's thread, which may wait for servers.
void worker::take(assignment what) {
  // It asked for one before it was told to end.
  if (ends_.load(std::memory_order_acquire)) {
    static_cast<void>(by_.say(what.answer_to, kSayAgain));
    return;
  }
  std::string error;
  const std::optional<job> asked = job_of(what.text, error);
  if (!asked) {
    // Nobody else could read it either.
    static_cast<void>(by_.say(what.answer_to, kSayNever));
    tell_refused("", "unreadable", what, error);
    return poster_.post([this] { look_for_room(); });
  }
  // What is to be large may not fit where there is room for one of which nothing is known.
  const worker_numbers now = numbers();
  const auto lacks =
      what_lacks(now.load, settings_.room, job_cost{0, 0, 0, 0}, cost_of(asked->expected_users), 0);
  if (asked->expected_users > 0 && lacks) {
    static_cast<void>(by_.say(what.answer_to, say_again_after(kAgain)));
    return poster_.post([this, id = asked->id, why = *lacks] {
      say_(id, "put back", "too large for this worker now: " + why);
      look_for_room();
    });
  }
  // Shared, as what is posted has to be copied.
  const auto made = std::make_shared<taken>();
  made->by = std::move(what);
  made->what = *asked;
  const std::string id = asked->id;
  // Before its wishes are read: what comes later is told here.
  made->commands = by_.listen(
      command_subject(id),
      [this, id](const std::string& /*subject*/, const std::string& text,
                 const listening::reply& answer) { on_command(id, text, answer); },
      error);
  constexpr int kMostTries = 3;
  finding result = made->commands ? finding::kChanged : finding::kCant;
  // A sender that has just written "waiting" is no reason to wait.
  for (int at = 0; at < kMostTries && result == finding::kChanged; ++at) {
    result = prepare(*made, error);
  }
  if (result == finding::kTaken) {
    return poster_.post([this, made] { begin(*made); });
  }
  if (result != finding::kSettled) {
    static_cast<void>(by_.say(made->by.answer_to, say_again_after(kAgain)));
    poster_.post([this, id, error] { say_(id, "put back", error); });
  }
  poster_.post([this, id] {
    // It was meant for this job, and not for a later one of that id.
    early_leaves_.erase(id);
    look_for_room();
  });
}

void worker::tell_refused(const std::string& id, const std::string& key, const assignment& what,
                          const std::string& why) {
  Json::Value event;
  event["event"] = "refused";
  if (!id.empty()) event["job"] = id;
  event["worker"] = settings_.name;
  event["reason"] = why;
  event["sequence"] = Json::UInt64{what.sequence};
  writer_->tell(key, line_of(event));
  poster_.post([this, id, why] {
    ++numbers_.refused;
    say_(id, "refused", why);
  });
}

// Waits until the queue has heard it, as a state that is over isn't written again.
void worker::tell_done(const assignment& what) {
  bool heard = false;
  std::string error;
  static_cast<void>(by_.ask(what.answer_to, kSayDone, heard, error));
}

// The store's word for a job, with this worker's stretch added.
worker::finding worker::prepare(taken& made, std::string& error) {
  const std::string& id = made.what.id;
  recording_state& state = made.state;
  state = recording_state();
  made.revision = 0;
  error.clear();
  const std::optional<stored> before = by_.recordings().get(id, error);
  if (!error.empty()) return finding::kCant;
  if (before) {
    made.revision = before->revision;
    std::string none;
    const std::optional<recording_state> known = state_of(before->value, none);
    if (known) state = *known;
  }
  const std::optional<stored> wishes = by_.wishes().get(id, error);
  if (!error.empty()) return finding::kCant;
  made.wishes = wishes ? parsed(wishes->value) : Json::nullValue;
  if (!made.wishes.isObject()) made.wishes = Json::objectValue;
  const assignment& by = made.by;
  state.id = id;
  state.label = by.label;
  state.channel = made.what.channel;
  if (is_over(state.now) && state.sequence == by.sequence) {
    // The queue wasn't told, or what it was told was lost.
    tell_done(by);
    return finding::kSettled;
  }
  if (is_repeat(by, state, error)) return finding::kSettled;
  if (!error.empty()) return finding::kCant;
  // A job of the same id after one that is over counts anew, whatever was wished of that one.
  if (state.sequence != by.sequence) {
    if (is_over(state.now)) made.wishes = Json::objectValue;
    state.tries = 0;
    state.first_joined_utc_ms = 0;
    state.reason.clear();
  }
  state.sequence = by.sequence;
  state.users = 0;
  state.since_utc_ms = base::utc_ms();
  const bool leaves = made.wishes["leave"].isBool() && made.wishes["leave"].asBool();
  state.now = leaves ? phase::kEnded : phase::kTaken;
  if (leaves) {
    state.reason = kAskedToLeave;
  } else {
    stretch next;
    next.worker = settings_.name;
    next.sequence = by.sequence;
    next.delivered = by.delivered;
    next.taken_utc_ms = state.since_utc_ms;
    state.stretches.push_back(next);
  }
  // Whoever has it still finds out by its own next writing.
  const change noted = by_.recordings().update(id, state.text(), made.revision, error);
  if (noted != change::kDone)
    return noted == change::kOutdated ? finding::kChanged : finding::kCant;
  if (leaves) {
    tell_done(by);
    return finding::kSettled;
  }
  return finding::kTaken;
}

// Whether the queue has another job of that id, which came first and isn't over: a sender wasn't
// sure, or somebody took an id that wasn't theirs.
bool worker::is_repeat(const assignment& what, const recording_state& state, std::string& error) {
  if (is_over(state.now) || state.sequence == 0 || state.sequence >= what.sequence) return false;
  const std::optional<bool> stands = by_.stands_in_queue(state.sequence, error);
  if (!stands || !*stands) return false;
  tell_done(what);
  tell_refused(state.id, state.id, what, "a job of this id stands in the queue already");
  return true;
}

void worker::begin(taken& what) {
  const std::string id = what.what.id;
  // The queue has given it anew, whatever it was still to be told of the time before.
  settling_.erase(id);
  if (draining_) return give_back(what, phase::kWaiting, "this worker ends");
  const auto had = recordings_.find(id);
  if (had != recordings_.end()) {
    // The queue thinks that this worker had lost it, as it does after an election.
    if (had->second->goes_on()) {
      writer_->adopt(id, what.revision);
      had->second->taken_again(std::move(what.by));
      return look_for_room();
    }
    had->second->superseded();
    return give_back(what, phase::kWaiting, "this worker still ends its last stretch");
  }
  writer_->adopt(id, what.revision);
  auto made = std::make_unique<recording>(
      recording_tools{loop_, by_, settings_, *keeper_, *writer_}, what.what, what.by, what.state,
      what.wishes, [this, id](verdict found) { on_over(id, found); });
  std::string error;
  const recording::begun found = made->start(error);
  if (found == recording::begun::kRefused) return give_back(what, phase::kRefused, error);
  if (found == recording::begun::kCant) {
    fault_ = error;
    fault_until_ = clock::now() + kFaultPause;
    return give_back(what, phase::kWaiting, error);
  }
  // What was refused takes nothing: many such jobs would keep the worker from others.
  const job_cost cost = cost_of(what.what.expected_users);
  begun_.processors += cost.processors;
  begun_.mbit += cost.mbit;
  begun_.memory_bytes += cost.memory_bytes;
  begun_.disk_bytes += cost.disk_bytes;
  ++numbers_.taken;
  say_(id, "taken", made->what().channel);
  recordings_[id] = std::move(made);
  commands_[id] = std::move(what.commands);
  if (early_leaves_.erase(id) > 0) recordings_[id]->end(false, kAskedToLeave);
  look_for_room();
}

// ---- Its end -------------------------------------------------------------------------------

// Of a job that nothing was recorded of.
void worker::give_back(taken& what, phase as, const std::string& why) {
  const std::string id = what.what.id;
  early_leaves_.erase(id);
  const bool refused = as == phase::kRefused;
  ++(refused ? numbers_.refused : numbers_.put_back);
  say_(id, refused ? "refused" : "put back", why);
  recording_state& state = what.state;
  state.now = as;
  state.reason = why;
  state.since_utc_ms = base::utc_ms();
  state.stretches.back().ended_utc_ms = state.since_utc_ms;
  state.stretches.back().reason = why;
  writer_->adopt(id, what.revision);
  const uint64_t number = writer_->note(id, state.text());
  settle_later(id, {std::move(what.by), refused ? verdict::kDone : verdict::kLater, number, {}});
  look_for_room();
  end_if_idle();
}

void worker::on_over(const std::string& id, verdict what) {
  const auto found = recordings_.find(id);
  if (found == recordings_.end()) return;
  const std::unique_ptr<recording> gone = std::move(found->second);
  recordings_.erase(found);
  commands_.erase(id);
  const stretch& last = gone->state().stretches.back();
  ++(what == verdict::kDone      ? numbers_.over
     : what == verdict::kNotOurs ? numbers_.lost
                                 : numbers_.put_back);
  say_(id,
       what == verdict::kDone      ? "over"
       : what == verdict::kNotOurs ? "lost"
                                   : "put back",
       last.reason);
  if (what != verdict::kNotOurs) settle_later(id, {gone->by(), what, gone->last_note(), {}});
  if (what == verdict::kNotOurs) writer_->forget(id, true);
  look_for_room();
  end_if_idle();
}

// The queue is told when the store knows: who takes a job up goes by what stands there, and who was
// superseded has nothing to tell the queue.
void worker::settle_later(const std::string& id, settling what) {
  if (what.number == 0) return;
  what.until = clock::now() + 2 * settings_.lease;
  settling_[id] = std::move(what);
}

void worker::on_kept(const std::string& id, uint64_t number) {
  const auto recorded = recordings_.find(id);
  if (recorded != recordings_.end()) recorded->second->kept(number);
  const auto found = settling_.find(id);
  if (found == settling_.end() || number < found->second.number) return;
  const std::string& answer_to = found->second.by.answer_to;
  // An acknowledgement that is lost has the job handed out again, to whom the store tells its end.
  switch (found->second.what) {
    case verdict::kDone:
      static_cast<void>(by_.say(answer_to, kSayDone));
      break;
    case verdict::kAgain:
      static_cast<void>(by_.say(answer_to, kSayAgain));
      break;
    case verdict::kLater:
      static_cast<void>(by_.say(answer_to, say_again_after(kAgain)));
      break;
    case verdict::kNotOurs:
      break;
  }
  settling_.erase(found);
  if (recorded == recordings_.end()) writer_->forget(id);
  end_if_idle();
}

// Their leases go on until the store knows how they ended: nobody should record them again.
void worker::look_after_settling() {
  // Nothing of it can be told any more.
  std::string why;
  if (by_.is_shut_out(why)) settling_.clear();
  for (auto at = settling_.begin(); at != settling_.end();) {
    if (clock::now() >= at->second.until) {
      at = settling_.erase(at);
      continue;
    }
    keeper_->renew(at->first, at->second.by.answer_to);
    ++at;
  }
}

void worker::drain(bool handover) {
  const bool first = !std::exchange(was_told_to_end_, true);
  take_no_more();
  hands_over_ = hands_over_ || handover_ || handover || !first;
  report();
  hand_over();
}

void worker::take_no_more() {
  draining_ = true;
  ends_.store(true, std::memory_order_release);
  for (const auto& reader : readers_) reader->want_none(true);
}

// A request for a job that still waits at a server would get what is handed over: until it is over
// the recordings go on.
void worker::hand_over() {
  if (!draining_) return;
  end_if_idle();
  if (!hands_over_ || is_asking()) return;
  for (const auto& [id, one] : recordings_) one->end(true, "this worker ends");
}

bool worker::is_asking() const {
  return std::any_of(readers_.begin(), readers_.end(),
                     [](const auto& reader) { return reader->is_asking(); });
}

void worker::end_if_idle() {
  if (draining_ && recordings_.empty() && settling_.empty() && !is_asking()) loop_.stop();
}

// ---- Room ----------------------------------------------------------------------------------

void worker::look_for_room() {
  int64_t lag_ms = 0;
  for (const auto& [id, one] : recordings_) lag_ms = std::max(lag_ms, one->lag_ms());
  load_.lag_ms = lag_ms;
  const auto lacks =
      what_lacks(load_, settings_.room, begun_, cost_of(0), static_cast<int>(recordings_.size()));
  lacks_ = clock::now() < fault_until_ ? fault_ : lacks.value_or("");
  for (const auto& reader : readers_) {
    lacks_.empty() && !draining_ ? reader->want_one() : reader->want_none();
  }
}

worker_numbers worker::numbers() const {
  const std::lock_guard<std::mutex> hold(numbers_lock_);
  return shown_;
}

void worker::report() {
  std::string why;
  if (!draining_ && by_.is_shut_out(why)) {
    say_("", "fault", why);
    take_no_more();
  }
  load_ = meter_.measure();
  // What was begun shows in the load after a few seconds.
  begun_.processors *= 0.8;
  begun_.mbit *= 0.8;
  begun_.memory_bytes = begun_.memory_bytes / 5 * 4;
  begun_.disk_bytes = begun_.disk_bytes / 5 * 4;
  look_for_room();
  look_after_settling();
  end_if_idle();
  if (++reports_ % kTouchReports == 0) {
    for (const auto& [id, one] : recordings_) one->touch();
  }
  numbers_.load = load_;
  numbers_.recordings = recordings_.size();
  numbers_.has_room = lacks_.empty() && !draining_;
  numbers_.draining = draining_;
  numbers_.connected = by_.is_connected();
  {
    const std::lock_guard<std::mutex> hold(numbers_lock_);
    shown_ = numbers_;
  }
  Json::Value made;
  made["version"] = 1;
  made["worker"] = settings_.name;
  made["utc_ms"] = Json::Int64{base::utc_ms()};
  made["labels"] = Json::arrayValue;
  for (const std::string& label : settings_.labels) made["labels"].append(label);
  made["recordings"] = Json::arrayValue;
  for (const auto& [id, one] : recordings_) made["recordings"].append(id);
  made["processors"] = load_.processors;
  made["busy_processors"] = load_.busy_processors;
  made["free_memory_bytes"] = Json::UInt64{load_.free_memory_bytes};
  made["free_disk_bytes"] = Json::UInt64{load_.free_disk_bytes};
  made["lag_ms"] = Json::Int64{load_.lag_ms};
  made["received_mbit"] = load_.received_mbit;
  made["draining"] = draining_;
  made["lacks"] = lacks_;
  // Not kept while there is no connection: the next second says it anew.
  static_cast<void>(by_.say("$KV." + std::string(kWorkers) + "." + settings_.name, line_of(made)));
}

// ---- Commands ------------------------------------------------------------------------------

namespace {

std::string reply_of(const std::string& fault) {
  Json::Value made;
  made["result"] = fault.empty() ? "done" : fault;
  made["ok"] = fault.empty();
  return line_of(made);
}

}  // namespace

// On a thread of the library.
void worker::on_command(const std::string& id, const std::string& text,
                        const listening::reply& reply) {
  poster_.post([this, id, asked = parsed(text), reply] {
    const auto answer = [reply](const std::string& fault) { reply(reply_of(fault)); };
    if (!asked.isObject()) return answer("a command should be a JSON object");
    const auto found = recordings_.find(id);
    if (found != recordings_.end()) return found->second->command(asked, answer);
    // One that is about to begin.
    if (asked["command"] == "leave") early_leaves_.insert(id);
    answer("it isn't recorded here now");
  });
}

void worker::on_order(const std::string& text, const listening::reply& reply) {
  poster_.post([this, asked = parsed(text), reply] {
    if (!asked.isObject() || asked["command"] != "drain") {
      return reply(reply_of("{\"command\": \"drain\", \"handover\": true or false} is known"));
    }
    reply(reply_of(""));
    say_("", "draining", "it was asked to");
    drain(asked["handover"].isBool() && asked["handover"].asBool());
  });
}

}  // namespace zelta::fleet
