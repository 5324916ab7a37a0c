// SPDX-License-Identifier: Apache-2.0
// A server that takes files by PUT, WebDAV's (RFC 4918) among them.
#include "target.h"

namespace zelta::deliver {
namespace {

class http_target : public target {
 public:
  http_target(const target_settings& settings, std::chrono::seconds stall)
      : settings_(settings), stall_(stall) {}

  sight look(http_client& by, const parcel& of, bool thorough) const override;
  outcome send(http_client& by, const parcel& of, shipment& at,
               const std::function<bool()>& save) const override;
  // Some keep what came before the connection broke.
  bool takes_whole() const override { return false; }

 private:
  http_request request(const char* method, const std::string& remote) const;
  outcome make_folders(http_client& by, const std::string& remote) const;

  const target_settings& settings_;
  const std::chrono::seconds stall_;
};

http_request http_target::request(const char* method, const std::string& remote) const {
  http_request made;
  made.method = method;
  made.url = settings_.url + "/" + percent_encoded(remote, true);
  made.user = settings_.user;
  made.password = settings_.password;
  made.ca_file = settings_.ca_file;
  made.stall = stall_;
  if (!settings_.token.empty()) made.headers.push_back("Authorization: Bearer " + settings_.token);
  return made;
}

sight http_target::look(http_client& by, const parcel& of, bool thorough) const {
  const http_answer answer = by.perform(request("HEAD", of.remote));
  if (answer.carried && (answer.status == 404 || answer.status == 410)) {
    return {presence::kAbsent, {}};
  }
  if (!answer.ok()) return {presence::kUnknown, outcome_of(answer, "HEAD")};
  // Of a file without a byte some servers tell no length.
  const bool told = answer.length >= 0;
  if (told && static_cast<uint64_t>(answer.length) != of.is.bytes) return {presence::kOther, {}};
  if (told && !thorough) return {presence::kSame, {}};
  return compare_content(by, request("GET", of.remote), of);
}

// Each is asked for from above: a server makes none whose parent isn't there. 405 says that it is
// there already.
outcome http_target::make_folders(http_client& by, const std::string& remote) const {
  for (size_t slash = remote.find('/'); slash != std::string::npos;
       slash = remote.find('/', slash + 1)) {
    const http_answer answer = by.perform(request("MKCOL", remote.substr(0, slash + 1)));
    if (!answer.ok() && !(answer.carried && answer.status == 405)) {
      return outcome_of(answer, "MKCOL");
    }
  }
  return {};
}

outcome http_target::send(http_client& by, const parcel& of, shipment&,
                          const std::function<bool()>&) const {
  http_request put = request("PUT", of.remote);
  put.headers.emplace_back("Content-Type: application/octet-stream");
  put.file = of.file;
  put.bytes = of.is.bytes;
  // Folders are there for all files but the first, and some servers make them by themselves.
  http_answer answer = put_file(by, put, of);
  // RFC 4918 has 409 for one that is missing; nginx answers 500.
  const bool lacks_folder =
      answer.carried && (answer.status == 404 || answer.status == 409 || answer.status == 500);
  if (lacks_folder && settings_.make_folders) {
    outcome made = make_folders(by, of.remote);
    // 500 may just as well be some other trouble, of a server that knows no MKCOL.
    if (made.is != outcome::kDone) return answer.status == 500 ? outcome_of(answer, "PUT") : made;
    answer = put_file(by, put, of);
  }
  return outcome_of(answer, "PUT");
}

}  // namespace

std::unique_ptr<target> make_http_target(const target_settings& settings,
                                         std::chrono::seconds stall) {
  return std::make_unique<http_target>(settings, stall);
}

}  // namespace zelta::deliver
