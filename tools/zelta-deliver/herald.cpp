// SPDX-License-Identifier: Apache-2.0
#include "herald.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include <json/json.h>
#include <sys/mman.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "child_process.h"
#include "digest.h"
#include "disk.h"

namespace zelta::deliver {
namespace {

using clock = std::chrono::steady_clock;

std::vector<std::string> environment_of(const notice& of, const std::set<std::string>& secrets) {
  std::map<std::string, std::string> named;
  for (char** at = environ; *at != nullptr; ++at) {
    const std::string one = *at;
    const std::string name = one.substr(0, one.find('='));
    if (secrets.count(name) == 0) named[name] = one;
  }
  // These stand for those of the same names that we were called with.
  named["ZELTA_ID"] = "ZELTA_ID=" + of.id;
  Json::Value body;
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const bool is_object =
      reader->parse(of.body.data(), of.body.data() + of.body.size(), &body, nullptr) &&
      body.isObject();
  if (!is_object) body = Json::objectValue;
  for (const std::string& key : body.getMemberNames()) {
    std::string name = "ZELTA_" + key;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    std::string value;
    if (body[key].isArray()) {
      for (const Json::Value& one : body[key]) value += (value.empty() ? "" : " ") + one.asString();
    } else {
      value = body[key].asString();
    }
    named[name] = (name + "=").append(value);
  }
  std::vector<std::string> made;
  for (const auto& [name, one] : named) made.push_back(one);
  return made;
}

}  // namespace

outcome run_hook(const std::vector<std::string>& command, const notice& of,
                 const delivery_settings& settings, const pace& limits,
                 const std::function<void(const std::string&)>& say) {
  const std::string& program = command.front();
  // A file in memory: nobody has to feed a pipe to a hook that doesn't read.
  const base::unique_fd in(memfd_create("notice", MFD_CLOEXEC));
  if (!in.valid()) return {outcome::kLater, std::string("memfd: ") + std::strerror(errno), 0};
  std::string error;
  const std::string text = of.body + "\n";
  if (!write_all(in.get(), text.data(), text.size(), error) || lseek(in.get(), 0, SEEK_SET) != 0) {
    return {outcome::kLater, "memfd: " + error, 0};
  }
  const auto until = clock::now() + settings.hook_limit;
  const auto may_go_on = [&] { return clock::now() < until && !limits.stopped(); };
  const child_end end =
      run_child({command, environment_of(of, settings.secret_variables), in.get()}, may_go_on, say);
  if (end.ok()) return {};
  if (end.failed != 0) {
    const bool is_ours = end.failed == ENOMEM || end.failed == EAGAIN || end.failed == EMFILE ||
                         end.failed == ENFILE;
    return {is_ours ? outcome::kLater : outcome::kRefused,
            "posix_spawn " + program + ": " + std::strerror(end.failed), 0};
  }
  if (end.cut && limits.stopped()) return {outcome::kStopped, "stopped", 0};
  const std::string limit = std::to_string(settings.hook_limit.count());
  return {outcome::kRefused,
          end.cut ? program + " took more than " + limit + " s" : program + " " + end.how(), 0};
}

outcome post_notice(http_client& by, const delivery_settings& settings, const notice& of) {
  http_request post;
  post.method = "POST";
  post.url = settings.webhook_url;
  post.text = of.body;
  post.stall = settings.stall;
  post.headers = {"Content-Type: application/json", "X-Zelta-Delivery: " + of.id,
                  "X-Zelta-Event: " + of.kind,
                  "X-Zelta-Signature: sha256=" + hmac_sha256(settings.webhook_secret, of.body)};
  return outcome_of(by.perform(post), "webhook");
}

}  // namespace zelta::deliver
