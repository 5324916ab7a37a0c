// SPDX-License-Identifier: Apache-2.0
// A server of SFTP, by libcurl over libssh2: its connections, limits, time limits and errors are
// then those of the other targets. A file goes under a temporary name and is renamed.
#include "target.h"

namespace zelta::deliver {
namespace {

class sftp_target : public target {
 public:
  sftp_target(const target_settings& settings, std::chrono::seconds stall)
      : settings_(settings), stall_(stall) {}

  sight look(http_client& by, const parcel& of, bool thorough) const override;
  outcome send(http_client& by, const parcel& of, shipment& at,
               const std::function<bool()>& save) const override;
  bool takes_whole() const override { return true; }

 private:
  http_request request(const std::string& remote) const;
  // As commands have it: absolute, in quotes.
  std::string quoted(const std::string& remote) const;

  const target_settings& settings_;
  const std::chrono::seconds stall_;
};

http_request sftp_target::request(const std::string& remote) const {
  http_request made;
  made.url = settings_.url + "/" + percent_encoded(remote, true);
  made.user = settings_.user;
  made.password = settings_.password;
  made.key_file = settings_.key_file;
  made.known_hosts = settings_.known_hosts;
  made.stall = stall_;
  return made;
}

std::string sftp_target::quoted(const std::string& remote) const {
  const size_t host = settings_.url.find("://") + 3;
  const size_t slash = settings_.url.find('/', host);
  const std::string path =
      (slash == std::string::npos ? "" : percent_decoded(settings_.url.substr(slash))) + "/" +
      remote;
  std::string made = "\"";
  for (const char c : path) {
    if (c == '"' || c == '\\') made += '\\';
    made += c;
  }
  return made + "\"";
}

sight sftp_target::look(http_client& by, const parcel& of, bool thorough) const {
  if (thorough) return compare_content(by, request(of.remote), of);
  // A download tells the size before its first byte, which ends it.
  http_request get = request(of.remote);
  get.sink = [](const char*, size_t) { return false; };
  const http_answer answer = by.perform(get);
  if (answer.status == 404) return {presence::kAbsent, {}};
  if (!answer.carried) return {presence::kUnknown, outcome_of(answer, "stat")};
  // Of an empty file libcurl tells none, and some servers tell none at all.
  if (answer.length <= 0) return compare_content(by, request(of.remote), of);
  const auto bytes = static_cast<uint64_t>(answer.length);
  return {bytes == of.is.bytes ? presence::kSame : presence::kOther, {}};
}

outcome sftp_target::send(http_client& by, const parcel& of, shipment&,
                          const std::function<bool()>&) const {
  const std::string beside = of.remote + ".part";
  http_request put = request(beside);
  put.file = of.file;
  put.bytes = of.is.bytes;
  // SFTP 3, which is spoken, renames over nothing.
  if (of.replaces) put.commands_after.push_back("*rm " + quoted(of.remote));
  put.commands_after.push_back("rename " + quoted(beside) + " " + quoted(of.remote));
  http_answer answer = by.perform(put);
  outcome put_there = outcome_of(answer, "put");
  if (answer.carried) return {};
  // All is there under the other name. What it says doesn't tell whether the name is taken.
  if (answer.failed_after) {
    put_there.unreachable = false;
    put_there.occupied = !of.replaces;
  }
  return put_there;
}

}  // namespace

std::unique_ptr<target> make_sftp_target(const target_settings& settings,
                                         std::chrono::seconds stall) {
  return std::make_unique<sftp_target>(settings, stall);
}

}  // namespace zelta::deliver
