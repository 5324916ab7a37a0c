// SPDX-License-Identifier: Apache-2.0
#include "fleet/recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "base/clocks.h"
#include "fleet/json_text.h"
#include "fleet/names.h"

namespace zelta::fleet {
namespace {

using clock = lease::clock;
using std::chrono::milliseconds;

// zelta-record's exit statuses.
constexpr int kRecorded = 0;
constexpr int kCantGoOn = 1;
constexpr int kUsage = 2;
constexpr int kRefusedToStart = 3;
constexpr int kNotAll = 5;

constexpr size_t kMostLines = 5;
// A recorder that was let go of completes its files; whose lease is over has hardly any time.
constexpr int kPatienceMs = 15'000;

std::string seconds_of(milliseconds of) {
  return std::to_string(std::chrono::duration<double>(of).count());
}

}  // namespace

recording::recording(const recording_tools& with, job what, assignment by, recording_state state,
                     Json::Value wishes, is_over over)
    : with_(with),
      job_(std::move(what)),
      by_(std::move(by)),
      state_(std::move(state)),
      wishes_(std::move(wishes)),
      over_(std::move(over)),
      files_before_(state_.files),
      losses_before_(state_.losses),
      lease_(with.settings.lease, by_.asked) {}

std::string scratch_beginning(const std::string& worker) {
  std::error_code failed;
  const std::filesystem::path folder = std::filesystem::temp_directory_path(failed);
  return (failed ? "/tmp" : folder.string()) + "/zelta-job." + worker + ".";
}

recording::~recording() {
  child_.reset();
  std::error_code ignored;
  if (!scratch_.empty()) std::filesystem::remove_all(scratch_, ignored);
}

// "" with errno when it can't be written.
std::string recording::keep_file(const char* name, const std::string& text) {
  if (scratch_.empty()) {
    std::string path = scratch_beginning(with_.settings.name) + "XXXXXX";
    if (mkdtemp(path.data()) == nullptr) return "";
    scratch_ = path + "/";
  }
  const std::string path = scratch_ + name;
  std::ofstream file(path, std::ios::trunc);
  file << text;
  file.close();
  return file ? path : "";
}

// The job's words come by options that take a value, or behind all of them.
std::vector<std::string> recording::arguments(std::string& error) const {
  std::vector<std::string> made{with_.settings.recorder, "--json", "--commands"};
  made.push_back("--lease=" + seconds_of(lease_.left(clock::now())));
  const std::string server = job_.server.empty() ? with_.settings.server : job_.server;
  const auto& allowed = with_.settings.servers;
  const bool may = job_.server.empty() ||
                   std::any_of(allowed.begin(), allowed.end(), [&server](const std::string& one) {
                     return server.compare(0, one.size(), one) == 0;
                   });
  if (!may || server.empty()) {
    std::string all;
    for (const std::string& one : allowed) all += (all.empty() ? "" : ", ") + one;
    error = "server: \"" + server + "\" should begin as this worker's settings allow: " +
            (all.empty() ? "nothing is" : all);
    return {};
  }
  made.push_back("--server=" + server);
  for (const auto& [name, text] : job_.options) {
    if (text == "false") continue;
    made.push_back("--" + name + (text == "true" ? "" : "=" + text));
  }
  if (!job_.settings.empty()) {
    const auto found = with_.settings.settings.find(job_.settings);
    if (found == with_.settings.settings.end()) {
      error = "settings: this worker has none by the name \"" + job_.settings + "\"";
      return {};
    }
    made.push_back("--settings=" + found->second);
  }
  if (job_.duration_s > 0) {
    double left = job_.duration_s;
    if (state_.first_joined_utc_ms > 0) {
      left -= static_cast<double>(base::utc_ms() - state_.first_joined_utc_ms) / 1000;
    }
    made.push_back("--duration=" + std::to_string(std::max(left, 0.1)));
  }
  for (const auto& [option, name] :
       {std::pair("--channel-key-file=", job_.key), std::pair("--secret-file=", job_.secret)}) {
    if (name.empty()) continue;
    const auto found = with_.settings.credentials.find(name);
    if (found == with_.settings.credentials.end()) {
      error = "this worker has no credential by the name \"" + name + "\"";
      return {};
    }
    made.push_back(option + found->second);
  }
  if (!job_.root.empty() && with_.settings.roots.count(job_.root) == 0) {
    error = "root: this worker has none by the name \"" + job_.root + "\"";
    return {};
  }
  return made;
}

// Each stretch has a manifest of its own name: files of several machines come together.
std::vector<std::string> recording::environment() const {
  const std::string first = "ZELTA_FIRST_MANIFEST=";
  std::vector<std::string> made;
  for (char** one = environ; one != nullptr && *one != nullptr; ++one) {
    if (std::strncmp(*one, first.c_str(), first.size()) != 0) made.emplace_back(*one);
  }
  made.push_back(first + std::to_string(state_.stretches.size()));
  return made;
}

// "" with `error`.
std::string recording::make_place(std::string& error) const {
  const auto root = with_.settings.roots.find(job_.root);
  std::string place = (job_.root.empty() ? with_.settings.root : root->second) + "/" + job_.id;
  const bool is_made = mkdir(place.c_str(), 0777) == 0 || errno == EEXIST;
  struct stat is {};
  if (is_made && stat(place.c_str(), &is) == 0 && access(place.c_str(), W_OK | X_OK) == 0) {
    if (S_ISDIR(is.st_mode)) return place;
    errno = ENOTDIR;
  }
  error = place + ": " + std::strerror(errno);
  return "";
}

recording::begun recording::start(std::string& error) {
  if (lease_.is_lost(clock::now())) {
    error = "the lease was over before it could begin";
    return begun::kCant;
  }
  std::vector<std::string> argv = arguments(error);
  if (argv.empty()) return begun::kRefused;
  const std::string place = make_place(error);
  if (place.empty()) return begun::kCant;
  state_.stretches.back().folder = place;
  Json::Value configuration;
  configuration["Recording_Dir"] = place;
  // What isn't there has its absence logged as an error.
  configuration["Chunk_Time_Span"] = "0";
  const Json::Value& layout = wishes_.isMember("layout") ? wishes_["layout"] : job_.layout;
  const std::string path = keep_file("configuration.json", line_of(configuration));
  const std::string arranged =
      layout.isObject() && !path.empty() ? keep_file("layout.json", line_of(layout)) : "";
  if (path.empty() || (layout.isObject() && arranged.empty())) {
    error = std::string("no file can be made for its configuration: ") + std::strerror(errno);
    return begun::kCant;
  }
  argv.push_back("--cfg-file-path=" + path);
  if (!arranged.empty()) argv.push_back("--layout=" + arranged);
  argv.insert(argv.end(), {"--", job_.channel});
  child_ = recorder_child::start(with_.loop, argv, environment(),
                                 {[this](const Json::Value& event) { on_event(event); },
                                  [this](const std::string& line) { on_line(line); },
                                  [this](int status) { on_ended(status); }},
                                 error);
  if (!child_) return begun::kCant;
  lease_timer_ = base::scoped_timer(with_.loop, static_cast<int>(lease_.pause().count()),
                                    [this] { keep_lease(); });
  keep_lease();
  send_wishes();
  return begun::kYes;
}

// What whoever had it before was asked for.
void recording::send_wishes() {
  std::vector<std::string> lines;
  if (wishes_["started"].isBool() && wishes_["started"].asBool()) lines.emplace_back("start");
  const Json::Value& backgrounds = wishes_["backgrounds"];
  if (backgrounds.isObject()) {
    for (const std::string& uid : backgrounds.getMemberNames()) {
      Json::Value asked;
      asked["command"] = "background";
      asked["uid"] = uid;
      asked["image"] = backgrounds[uid];
      std::string line;
      if (line_of_command(asked, line).empty()) lines.push_back(line);
    }
  }
  for (const std::string& line : lines) {
    // Its answer is nobody's, and comes before those of others.
    if (child_->command(line)) answers_.emplace_back([](const std::string& /*none*/) {});
  }
}

// By its own clock whoever had it may still have it, as queues may give a job away early. It goes
// on until now, so that nothing is missed.
void recording::tell_joined() {
  Json::Value told;
  told["command"] = "taken";
  told["worker"] = with_.settings.name;
  told["stretch"] = Json::UInt64{state_.stretches.size()};
  static_cast<void>(with_.by.say(command_subject(job_.id), line_of(told)));
}

void recording::touch() {
  if (!child_) return;
  note(state_.now);
  if (!wishes_.empty()) with_.writer.wish(job_.id, line_of(wishes_));
}

// ---- The lease -----------------------------------------------------------------------------

void recording::keep_lease() {
  if (lost_) return;
  if (lease_.is_lost(clock::now())) {
    if (superseded_) return superseded();
    lost_ = true;
    return stop_recorder("the lease could not be renewed");
  }
  if (superseded_ || !lease_.is_due(clock::now())) return;
  with_.keeper.renew(job_.id, by_.answer_to);
}

// What was sent before a cable was cut arrives when it is whole again, after somebody else was
// given the job. Whoever was wrote that into the store before they recorded anything.
void recording::renewed(clock::time_point sent) {
  const auto now = clock::now();
  if (lease_.is_sure(now) && now >= doubtful_until_) return prove(sent);
  if (!child_ || lost_ || superseded_) return;
  if (unsure_) {
    if (sent <= unsure_noted_) unsure_ = std::max(*unsure_, sent);
    return;
  }
  unsure_ = sent;
  unsure_noted_ = now;
  note(state_.now);
  unsure_note_ = last_note_;
}

void recording::kept(uint64_t number) {
  if (!unsure_ || number < unsure_note_) return;
  if (!lease_.is_sure(unsure_noted_)) doubtful_until_ = unsure_noted_ + lease_.length();
  prove(*std::exchange(unsure_, std::nullopt));
}

void recording::prove(clock::time_point sent) {
  lease_.renewed(sent);
  // It leaves by itself when these don't come, whatever holds this process up.
  if (!child_ || lost_ || superseded_) return;
  child_->command("renew " + seconds_of(lease_.left(clock::now())));
}

void recording::taken_again(assignment by) {
  by_ = std::move(by);
  state_.stretches.back().delivered = by_.delivered;
  lease_.renewed(by_.asked);
  note(state_.now);
}

void recording::superseded() {
  grace_timer_.stop();
  superseded_ = true;
  if (!is_ending_) stop_recorder("another worker has taken it up");
}

void recording::outdated(bool at_once) {
  if (at_once) return superseded();
  if (std::exchange(superseded_, true)) return;
  grace_timer_ = base::scoped_timer(with_.loop, static_cast<int>(lease_.grace().count()),
                                    [this] { superseded(); });
}

// ---- Its end -------------------------------------------------------------------------------

void recording::stop_recorder(const std::string& why) {
  if (end_reason_.empty()) end_reason_ = why;
  is_ending_ = true;
  if (!child_) return;
  // One that doesn't read this any more leaves when its lease is over.
  child_->command("leave");
  child_->let_go();
  const int patience =
      lost_ || superseded_ ? static_cast<int>(lease_.pause().count()) : kPatienceMs;
  kill_timer_ = base::scoped_timer(with_.loop, std::max(patience, 1), [this] {
    kill_timer_.stop();
    if (child_) child_->kill_now();
  });
}

void recording::end(bool again, const std::string& why) {
  again_ = again_ || again;
  note(phase::kEnding);
  stop_recorder(why);
}

verdict recording::judge(int status) {
  stretch& last = state_.stretches.back();
  const bool joined = last.joined_utc_ms != 0;
  if (superseded_) return verdict::kNotOurs;
  if (lost_) {
    // For the next one, if there is none yet; the queue hands it out by itself.
    note(phase::kWaiting);
    return verdict::kNotOurs;
  }
  if (again_) return verdict::kAgain;
  if (status == kRecorded || status == kNotAll) {
    note(phase::kEnded);
    return verdict::kDone;
  }
  if (status == kUsage || status == kRefusedToStart) {
    note(phase::kRefused);
    return verdict::kDone;
  }
  // A recorder that was lost, or one that can't join now, is tried again.
  state_.tries = joined && status != kCantGoOn ? 0 : state_.tries + 1;
  if (state_.tries >= with_.settings.most_tries) {
    note(phase::kFailed);
    return verdict::kDone;
  }
  return verdict::kAgain;
}

void recording::on_ended(int status) {
  lease_timer_.stop();
  kill_timer_.stop();
  grace_timer_.stop();
  stretch& last = state_.stretches.back();
  last.ended_utc_ms = base::utc_ms();
  last.status = status;
  last.reason = end_reason_;
  if (last.reason.empty() && status != kRecorded && !last_lines_.empty()) {
    last.reason = last_lines_.back();
  }
  last.reason = cut(last.reason);
  state_.reason = last.reason;
  state_.users = 0;
  for (const auto& answer : std::exchange(answers_, {})) answer("the recording has ended");
  const verdict found = judge(status);
  if (found == verdict::kAgain) note(phase::kWaiting);
  over_(found);
}

// ---- What it tells -------------------------------------------------------------------------

void recording::note(phase now) {
  if (superseded_) return;
  if (now != state_.now) state_.since_utc_ms = base::utc_ms();
  state_.now = now;
  last_note_ = with_.writer.note(job_.id, state_.text());
}

void recording::on_event(const Json::Value& event) {
  const std::string name = event["event"].asString();
  if (name == "command" && !answers_.empty()) {
    const std::string result = event["result"].asString();
    const auto answer = std::move(answers_.front());
    answers_.pop_front();
    return answer(result == "done" ? "" : result);
  }
  if (name == "joined") {
    stretch& last = state_.stretches.back();
    last.joined_utc_ms = base::utc_ms();
    if (state_.first_joined_utc_ms == 0) state_.first_joined_utc_ms = last.joined_utc_ms;
    state_.tries = 0;
    note(phase::kRecording);
    tell_joined();
  } else if (name == "user joined" || name == "user offline") {
    state_.users = std::max(0, state_.users + (name == "user joined" ? 1 : -1));
    note(state_.now);
  } else if (name == "progress") {
    return on_progress(event);
  } else if (name == "file") {
    ++files_told_;
  } else if (name == "missing") {
    ++losses_told_;
  } else if (name == "end") {
    state_.files = files_before_ + files_told_;
    state_.losses = losses_before_ + losses_told_;
    if (end_reason_.empty()) end_reason_ = event["reason"].asString();
  } else if (name == "lease over") {
    // It left because nobody was there to renew it, and not because the recording is over.
    lost_ = true;
    end_reason_ = "the lease was not renewed in time";
  }
  // Volumes and speakers are for who listens to them, and come many times a second.
  if (name == "volume" || name == "active speaker") return;
  Json::Value told = event;
  told["job"] = job_.id;
  told["worker"] = with_.settings.name;
  with_.writer.tell(job_.id, line_of(told));
}

void recording::on_progress(const Json::Value& event) {
  lag_ms_ = event["lag_ms"].asInt64();
  const uint64_t files = files_before_ + event["files"].asUInt64();
  const uint64_t losses = losses_before_ + event["missing"].asUInt64();
  // A state that hasn't changed is no load for the store.
  if (files == state_.files && losses == state_.losses) return;
  state_.files = files;
  state_.losses = losses;
  note(state_.now);
}

void recording::on_line(const std::string& line) {
  last_lines_.push_back(line);
  if (last_lines_.size() > kMostLines) last_lines_.pop_front();
}

// ---- Commands ------------------------------------------------------------------------------

// "", and the line that zelta-record takes; or what is wrong.
std::string recording::line_of_command(const Json::Value& asked, std::string& line) {
  const std::string name = asked["command"].isString() ? asked["command"].asString() : "";
  line = name;
  if (name == "start" || name == "stop" || name == "leave") return "";
  if (name == "layout") {
    if (!asked["layout"].isObject()) return "layout: it should be an object, as in a layout file";
    const std::string path = keep_file("layout.json", line_of(asked["layout"]));
    if (path.empty()) return std::string("no file can be made: ") + std::strerror(errno);
    line += " " + path;
    return "";
  }
  if (name != "background") {
    return "\"" + name.substr(0, 40) +
           "\" isn't known; there are layout, background, start, stop, leave";
  }
  const Json::Value& uid = asked["uid"];
  const std::string user = uid.isString() || uid.isUInt() ? uid.asString() : "";
  if (user.empty() || user.size() > 10 ||
      user.find_first_not_of("0123456789") != std::string::npos) {
    return "uid: it should be a user id, 0 to 4294967295";
  }
  line += " " + user;
  const Json::Value& image = asked["image"];
  const std::string name_of_image = image.isString() ? image.asString() : "";
  if (image.isNull() || (image.isString() && name_of_image.empty())) return "";
  const auto found = with_.settings.images.find(name_of_image);
  if (found == with_.settings.images.end()) return "image: this worker has none by that name";
  line += " " + found->second;
  return "";
}

// For whoever takes it up.
void recording::remember(const Json::Value& asked) {
  const std::string name = asked["command"].asString();
  if (name == "layout") {
    wishes_["layout"] = asked["layout"];
  } else if (name == "background") {
    const std::string uid = asked["uid"].asString();
    Json::Value& all = wishes_["backgrounds"];
    if (!all.isObject()) all = Json::objectValue;
    all.removeMember(uid);
    const std::string image = asked["image"].isString() ? asked["image"].asString() : "";
    if (!image.empty()) all[uid] = image;
  } else {
    wishes_["started"] = name == "start";
  }
  with_.writer.wish(job_.id, line_of(wishes_));
}

void recording::command(const Json::Value& asked, std::function<void(std::string)> answer) {
  if (asked["command"] == "taken") {
    // Of whoever has taken it up: the queue gave it away, whatever this machine's clock says.
    const Json::Value& number = asked["stretch"];
    if (asked["worker"] != with_.settings.name && number.isUInt64() &&
        number.asUInt64() > state_.stretches.size())
      superseded();
    return answer("");
  }
  std::string line;
  const std::string fault = line_of_command(asked, line);
  if (!fault.empty()) return answer(fault);
  if (line == "leave") {
    end(false, "it was asked to leave");
    return answer("");
  }
  if (!child_ || !child_->command(line)) return answer("the recorder takes no commands");
  answers_.emplace_back([this, asked, answer = std::move(answer)](const std::string& found) {
    if (found.empty()) remember(asked);
    answer(found);
  });
}

}  // namespace zelta::fleet
