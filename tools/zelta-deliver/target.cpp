// SPDX-License-Identifier: Apache-2.0
#include "target.h"

#include <algorithm>
#include <charconv>
#include <ctime>

#include <curl/curl.h>

#include "digest.h"
#include "disk.h"

namespace zelta::deliver {
namespace {

constexpr int64_t kLongestWaitMs = int64_t{24} * 3600 * 1000;
constexpr size_t kLongestSaid = 200;

// RFC 9110, section 10.2.3: seconds, or a date.
int64_t retry_after_ms(const http_answer& answer) {
  const auto header = answer.headers.find("retry-after");
  if (header == answer.headers.end()) return 0;
  const std::string& text = header->second;
  int64_t wait_ms = 0;
  int64_t seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, failed] = std::from_chars(text.data(), end, seconds);
  if (failed == std::errc() && stopped == end) {
    wait_ms = std::clamp<int64_t>(seconds, 0, kLongestWaitMs / 1000) * 1000;
  } else {
    const time_t when = curl_getdate(text.c_str(), nullptr);
    if (when >= 0) wait_ms = int64_t{when} * 1000 - now_utc_ms();
  }
  return std::clamp<int64_t>(wait_ms, 0, kLongestWaitMs);
}

bool is_temporary(const http_answer& answer) {
  const long status = answer.status;
  // Request timeout, conflict, locked, too early, too many requests: others', or of the moment. S3
  // has 400 for the first.
  if (status == 400) return answer.body.find("<Code>RequestTimeout<") != std::string::npos;
  return status >= 500 || status == 408 || status == 409 || status == 423 || status == 425 ||
         status == 429;
}

// Without what may be a credential: user, password, query.
std::string shown_place(const std::string& url) {
  std::string shown = url.substr(0, url.find_first_of("?#"));
  const size_t start = shown.find("://");
  const size_t host = start == std::string::npos ? 0 : start + 3;
  const size_t at = shown.rfind('@', shown.find('/', host));
  if (at != std::string::npos && at >= host) shown.erase(host, at + 1 - host);
  std::replace_if(
      shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, ' ');
  return shown.substr(0, kLongestSaid);
}

std::string said_by(const http_answer& answer) {
  std::string text = answer.body.substr(0, kLongestSaid);
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, ' ');
  return text.empty() ? "" : ": " + text;
}

}  // namespace

outcome outcome_of(const http_answer& answer, const char* doing) {
  const std::string what = std::string(doing) + ": ";
  if (!answer.carried) {
    if (answer.error == "stopped") return {outcome::kStopped, what + "stopped", 0};
    return {answer.final ? outcome::kRefused : outcome::kLater, what + answer.error, 0,
            !answer.final};
  }
  const std::string text = what + "the server answers " + std::to_string(answer.status);
  if (answer.ok()) return {outcome::kDone, text, 0};
  if (answer.status >= 300 && answer.status < 400) {
    const auto to = answer.headers.find("location");
    return {outcome::kRefused,
            text + ", go to " + (to == answer.headers.end() ? "nowhere" : shown_place(to->second)) +
                "; the settings should name the place itself",
            0};
  }
  // RFC 9110, section 15.5.13: of what was to go only where nothing stands.
  if (answer.status == 412) {
    return {outcome::kLater, text + ": something stands there now", 0, false, true};
  }
  return {is_temporary(answer) ? outcome::kLater : outcome::kRefused, text + said_by(answer),
          retry_after_ms(answer)};
}

http_answer put_file(http_client& by, http_request put, const parcel& of) {
  if (of.replaces) return by.perform(put);
  put.headers.emplace_back(kIfAbsent);
  http_answer answer = by.perform(put);
  if (!answer.carried || answer.status != 501) return answer;
  put.headers.pop_back();
  return by.perform(put);
}

sight compare_content(http_client& by, http_request request, const parcel& of) {
  sha256 digest;
  uint64_t bytes = 0;
  request.sink = [&digest, &bytes, &of](const char* piece, size_t size) {
    digest.add(piece, size);
    bytes += size;
    return bytes <= of.is.bytes;
  };
  const http_answer answer = by.perform(request);
  // SFTP has no status.
  const bool whole = answer.carried && (answer.status == 0 || answer.ok());
  if (answer.status == 404) return {presence::kAbsent, {}};
  if (!whole) return {presence::kUnknown, outcome_of(answer, "GET")};
  const bool same = bytes == of.is.bytes && digest.hex() == of.sha256;
  return {same ? presence::kSame : presence::kOther, {}};
}

std::unique_ptr<target> make_target(const target_settings& settings, std::chrono::seconds stall,
                                    pace& limits) {
  switch (settings.kind) {
    case target_kind::kHttp:
      return make_http_target(settings, stall);
    case target_kind::kS3:
      return make_s3_target(settings, stall);
    case target_kind::kSftp:
      return make_sftp_target(settings, stall);
    case target_kind::kFolder:
      break;
  }
  return make_folder_target(settings, limits);
}

}  // namespace zelta::deliver
