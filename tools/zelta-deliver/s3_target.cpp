// SPDX-License-Identifier: Apache-2.0
// A bucket of S3, or of what speaks its protocol. Requests are signed by libcurl (signature version
// 4), over the SHA-256 of what they carry, so that a server notices what changes on the way. The
// whole file's SHA-256 goes along as metadata, by which it is known again.
#include <algorithm>

#include <unistd.h>

#include "digest.h"
#include "disk.h"
#include "target.h"

namespace zelta::deliver {
namespace {

constexpr const char* kDigestHeader = "x-amz-meta-sha256";
constexpr uint64_t kMostParts = 10'000;
// It answers once it has put all of them together.
constexpr std::chrono::seconds kLongestCompletion{1800};

class s3_target : public target {
 public:
  s3_target(const target_settings& settings, std::chrono::seconds stall)
      : settings_(settings), stall_(stall) {}

  sight look(http_client& by, const parcel& of, bool thorough) const override;
  outcome send(http_client& by, const parcel& of, shipment& at,
               const std::function<bool()>& save) const override;
  bool takes_whole() const override { return true; }
  void abandon(http_client& by, const parcel& of, const shipment& at) const override;

 private:
  http_request request(const char* method, const std::string& remote, const std::string& query,
                       const std::string& sha256) const;
  outcome send_whole(http_client& by, const parcel& of) const;
  outcome begin(http_client& by, const parcel& of, shipment& at) const;
  // These tell in `fault` what is wrong with their answer.
  http_answer send_part(http_client& by, const parcel& of, shipment& at, outcome& fault) const;
  http_answer complete(http_client& by, const parcel& of, const shipment& at, outcome& fault) const;
  outcome give_up_on(http_client& by, const parcel& of, shipment& at, const http_answer& answer,
                     const outcome& why) const;

  const target_settings& settings_;
  const std::chrono::seconds stall_;
};

// Of an element without attributes or children, the first of that name.
std::string element(const std::string& xml, const std::string& name) {
  const std::string open = "<" + name + ">";
  const size_t start = xml.find(open);
  if (start == std::string::npos) return "";
  const size_t end = xml.find("</" + name + ">", start);
  if (end == std::string::npos) return "";
  return xml.substr(start + open.size(), end - start - open.size());
}

std::string escaped(const std::string& text) {
  std::string made;
  for (const char c : text) {
    switch (c) {
      case '&':
        made += "&amp;";
        break;
      case '<':
        made += "&lt;";
        break;
      case '"':
        made += "&quot;";
        break;
      default:
        made += c;
    }
  }
  return made;
}

http_request s3_target::request(const char* method, const std::string& remote,
                                const std::string& query, const std::string& sha256) const {
  http_request made;
  made.method = method;
  const std::string key = "/" + percent_encoded(settings_.prefix + remote, true);
  if (settings_.path_style) {
    made.url = settings_.url + "/" + settings_.bucket + key;
  } else {
    const size_t host = settings_.url.find("://") + 3;
    made.url =
        settings_.url.substr(0, host) + settings_.bucket + "." + settings_.url.substr(host) + key;
  }
  // A signature is over the query as it stands: sorted, and with an equals sign everywhere.
  if (!query.empty()) made.url += "?" + query;
  made.user = settings_.access_key;
  made.password = settings_.secret_key;
  made.sigv4 = "aws:amz:" + settings_.region + ":s3";
  made.ca_file = settings_.ca_file;
  made.stall = stall_;
  made.headers.push_back("x-amz-content-sha256: " + sha256);
  return made;
}

sight s3_target::look(http_client& by, const parcel& of, bool thorough) const {
  const std::string nothing = sha256_of("");
  const http_answer answer = by.perform(request("HEAD", of.remote, "", nothing));
  if (answer.carried && answer.status == 404) return {presence::kAbsent, {}};
  if (!answer.ok()) return {presence::kUnknown, outcome_of(answer, "HEAD")};
  if (answer.length >= 0 && static_cast<uint64_t>(answer.length) != of.is.bytes) {
    return {presence::kOther, {}};
  }
  const auto told = answer.headers.find(kDigestHeader);
  const bool has_digest = told != answer.headers.end();
  if (has_digest && told->second != of.sha256) return {presence::kOther, {}};
  if (answer.length >= 0 && (has_digest ? !settings_.verify_content : !thorough)) {
    return {presence::kSame, {}};
  }
  return compare_content(by, request("GET", of.remote, "", nothing), of);
}

outcome s3_target::send(http_client& by, const parcel& of, shipment& at,
                        const std::function<bool()>& save) const {
  if (of.is.bytes <= settings_.part_bytes && at.upload_id.empty()) return send_whole(by, of);
  // Of a file that was rewritten since, or of nothing that could be gone on with.
  if (!at.upload_id.empty() && at.part_bytes == 0) {
    abandon(by, of, at);
    at.upload_id.clear();
    at.parts.clear();
    if (of.is.bytes <= settings_.part_bytes) return send_whole(by, of);
  }
  outcome unsaved{outcome::kLater, "the upload's state can't be kept", 0};
  if (at.upload_id.empty()) {
    if (outcome begun = begin(by, of, at); begun.is != outcome::kDone) return begun;
    if (!save()) return unsaved;
  }
  outcome fault;
  while (at.parts.size() * at.part_bytes < of.is.bytes) {
    const http_answer answer = send_part(by, of, at, fault);
    if (fault.is != outcome::kDone) return give_up_on(by, of, at, answer, fault);
    if (!save()) return unsaved;
  }
  const http_answer answer = complete(by, of, at, fault);
  if (fault.is != outcome::kDone) return give_up_on(by, of, at, answer, fault);
  at.upload_id.clear();
  at.parts.clear();
  return {};
}

// What the server refuses of an upload it would refuse again: the next try begins another one. Not
// so where it is the keys that it refuses.
outcome s3_target::give_up_on(http_client& by, const parcel& of, shipment& at,
                              const http_answer& answer, const outcome& why) const {
  const bool is_lost = why.is == outcome::kLater && answer.status == 404;
  const bool is_broken = why.is == outcome::kRefused && (answer.ok() || answer.status >= 400) &&
                         answer.status != 401 && answer.status != 403;
  if (is_broken || why.occupied) abandon(by, of, at);
  if (is_lost || is_broken || why.occupied) {
    at.upload_id.clear();
    at.parts.clear();
  }
  return why;
}

void s3_target::abandon(http_client& by, const parcel& of, const shipment& at) const {
  // What comes of it changes nothing: the bucket's rules end it otherwise.
  static_cast<void>(by.perform(request(
      "DELETE", of.remote, "uploadId=" + percent_encoded(at.upload_id, false), sha256_of(""))));
}

outcome s3_target::send_whole(http_client& by, const parcel& of) const {
  http_request put = request("PUT", of.remote, "", of.sha256);
  put.headers.push_back(std::string(kDigestHeader) + ": " + of.sha256);
  put.headers.emplace_back("Content-Type: application/octet-stream");
  put.file = of.file;
  put.bytes = of.is.bytes;
  return outcome_of(put_file(by, put, of), "PUT");
}

outcome s3_target::begin(http_client& by, const parcel& of, shipment& at) const {
  http_request post = request("POST", of.remote, "uploads=", sha256_of(""));
  post.headers.push_back(std::string(kDigestHeader) + ": " + of.sha256);
  post.headers.emplace_back("Content-Type: application/octet-stream");
  const http_answer answer = by.perform(post);
  if (!answer.ok()) return outcome_of(answer, "POST uploads");
  at.upload_id = element(answer.body, "UploadId");
  at.parts.clear();
  at.part_bytes = std::max(settings_.part_bytes, of.is.bytes / kMostParts + 1);
  if (at.upload_id.empty()) {
    return {outcome::kLater, "POST uploads: the answer has no UploadId", 0};
  }
  return {};
}

// The server has forgotten it, or was told to.
bool is_gone(const http_answer& answer) {
  return answer.carried && answer.status == 404 &&
         (answer.body.empty() || element(answer.body, "Code") == "NoSuchUpload");
}

http_answer s3_target::send_part(http_client& by, const parcel& of, shipment& at,
                                 outcome& fault) const {
  const uint64_t offset = at.parts.size() * at.part_bytes;
  const uint64_t bytes = std::min(at.part_bytes, of.is.bytes - offset);
  sha256 digest;
  uint64_t left = bytes;
  std::string error;
  if (lseek(of.file, static_cast<off_t>(offset), SEEK_SET) < 0) {
    fault = {outcome::kLater, "lseek fails", 0};
    return {};
  }
  const auto add = [&digest, &left](const char* piece, size_t size) {
    const size_t mine = static_cast<size_t>(std::min<uint64_t>(left, size));
    digest.add(piece, mine);
    left -= mine;
    return left > 0;
  };
  if (!read_all(of.file, add, error)) {
    fault = {outcome::kLater, error, 0};
    return {};
  }
  http_request put = request("PUT", of.remote,
                             "partNumber=" + std::to_string(at.parts.size() + 1) +
                                 "&uploadId=" + percent_encoded(at.upload_id, false),
                             digest.hex());
  put.file = of.file;
  put.offset = offset;
  put.bytes = bytes;
  http_answer answer = by.perform(put);
  const auto tag = answer.headers.find("etag");
  if (is_gone(answer)) {
    fault = {outcome::kLater, "PUT: the upload is gone, and begins anew", 0};
  } else if (!answer.ok()) {
    fault = outcome_of(answer, "PUT of a part");
  } else if (tag == answer.headers.end() || tag->second.empty()) {
    fault = {outcome::kLater, "PUT of a part: the answer has no ETag", 0};
  } else {
    at.parts.push_back(tag->second);
  }
  return answer;
}

http_answer s3_target::complete(http_client& by, const parcel& of, const shipment& at,
                                outcome& fault) const {
  std::string list = "<CompleteMultipartUpload>";
  for (size_t part = 0; part < at.parts.size(); ++part) {
    list += "<Part><PartNumber>" + std::to_string(part + 1) + "</PartNumber><ETag>" +
            escaped(at.parts[part]) + "</ETag></Part>";
  }
  list += "</CompleteMultipartUpload>";
  http_request post = request("POST", of.remote, "uploadId=" + percent_encoded(at.upload_id, false),
                              sha256_of(list));
  post.headers.emplace_back("Content-Type: application/xml");
  post.text = list;
  if (!of.replaces) post.headers.emplace_back(kIfAbsent);
  post.limit = kLongestCompletion;
  http_answer answer = by.perform(post);
  if (!of.replaces && answer.carried && answer.status == 501) {
    post.headers.pop_back();
    answer = by.perform(post);
  }
  // One that was completed before its answer got lost is found by the look that follows.
  if (is_gone(answer)) return answer;
  if (!answer.ok()) {
    fault = outcome_of(answer, "POST of the parts");
  } else if (answer.body.find("<Error>") != std::string::npos) {
    // The server answers 200 before it knows, and errors come in the body.
    const std::string code = element(answer.body, "Code").substr(0, 100);
    const bool is_temporary = code == "InternalError" || code == "SlowDown" ||
                              code == "ServiceUnavailable" || code == "RequestTimeout";
    fault = {is_temporary ? outcome::kLater : outcome::kRefused, "POST of the parts: " + code, 0};
  }
  return answer;
}

}  // namespace

std::unique_ptr<target> make_s3_target(const target_settings& settings,
                                       std::chrono::seconds stall) {
  return std::make_unique<s3_target>(settings, stall);
}

}  // namespace zelta::deliver
