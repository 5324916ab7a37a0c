// SPDX-License-Identifier: Apache-2.0
#include "http_client.h"
#include "zelta-record/percent.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <optional>
#include <stdexcept>

#include <curl/curl.h>
#include <unistd.h>

namespace zelta::deliver {
namespace {

constexpr size_t kMostBody = size_t{64} * 1024;
constexpr size_t kMostHeaders = size_t{64} * 1024;
constexpr size_t kPiece = size_t{64} * 1024;
constexpr long kConnectSeconds = 20;
// From there on libcurl sends no more of a file.
constexpr int kLeastRefusal = 300;
// Of what is read back, which no bound on what is sent slows down. A server may trickle, and is
// then as stalled as one that is silent.
constexpr long kLeastReadPerSecond = 1024;

// One request while it is under way.
struct transfer {
  const http_request& request;
  http_answer& answer;
  pace& limits;
  uint64_t at = 0;  // of what is sent
  size_t header_bytes = 0;
  bool refused = false;  // by a status that ends what is sent
  bool enough = false;
  std::optional<std::chrono::steady_clock::time_point> answered_at = std::nullopt;
  bool trickles = false;
};

struct free_list {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using header_list = std::unique_ptr<curl_slist, free_list>;

header_list list_of(const std::vector<std::string>& lines) {
  header_list list;
  for (const std::string& line : lines) {
    curl_slist* const longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    static_cast<void>(list.release());
    list.reset(longer);
  }
  return list;
}

uint64_t size_of(const http_request& request) {
  return request.file >= 0 ? request.bytes : request.text.size();
}

// No exception may pass through libcurl: those that come for want of memory end the transfer.
size_t give(char* to, size_t size, size_t count, void* context) {
  auto& of = *static_cast<transfer*>(context);
  const http_request& request = of.request;
  const uint64_t left = size_of(request) - of.at;
  const size_t most =
      static_cast<size_t>(std::min<uint64_t>({size * count, left, of.limits.piece(kPiece)}));
  if (most == 0) return 0;
  size_t got = most;
  if (request.file < 0) {
    request.text.copy(to, most, static_cast<size_t>(of.at));
  } else {
    const ssize_t done = pread(request.file, to, most, static_cast<off_t>(request.offset + of.at));
    // A file that became shorter can't fill what was announced.
    if (done <= 0) return CURL_READFUNC_ABORT;
    got = static_cast<size_t>(done);
  }
  of.at += got;
  return of.limits.take(got) ? got : CURL_READFUNC_ABORT;
}

int rewind_to(void* context, curl_off_t offset, int origin) {
  auto& of = *static_cast<transfer*>(context);
  if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_FAIL;
  of.at = static_cast<uint64_t>(offset);
  return CURL_SEEKFUNC_OK;
}

size_t take(char* bytes, size_t size, size_t count, void* context) {
  auto& of = *static_cast<transfer*>(context);
  const size_t got = size * count;
  try {
    if (of.request.sink) {
      of.enough = !of.request.sink(bytes, got);
      return of.enough ? 0 : got;
    }
    const size_t room = kMostBody - std::min(kMostBody, of.answer.body.size());
    of.answer.body.append(bytes, std::min(got, room));
    of.enough = got > room;
    return of.enough ? 0 : got;
  } catch (const std::exception&) {
    return 0;
  }
}

size_t take_header(char* bytes, size_t size, size_t count, void* context) {
  auto& of = *static_cast<transfer*>(context);
  const size_t got = size * count;
  of.header_bytes += got;
  if (of.header_bytes > kMostHeaders) return 0;
  try {
    const std::string line(bytes, got);
    if (line.rfind("HTTP/", 0) == 0) {
      of.answer.headers.clear();
      const size_t space = std::min(line.find(' '), line.size() - 1);
      of.refused = std::atoi(line.c_str() + space) >= kLeastRefusal;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return got;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const size_t first = line.find_first_not_of(" \t", colon + 1);
    const size_t last = line.find_last_not_of(" \t\r\n");
    of.answer.headers[name] =
        first == std::string::npos || last < first ? "" : line.substr(first, last - first + 1);
    return got;
  } catch (const std::exception&) {
    return 0;
  }
}

// A file may take as long as it takes; an answer that has begun after it may not: a byte now and
// then would keep the connection for ever.
bool trickles(transfer& of) {
  const bool is_sent = of.at == size_of(of.request) || of.refused;
  if (of.request.file < 0 || of.header_bytes == 0 || !is_sent) {
    of.answered_at.reset();
    return false;
  }
  const auto now = std::chrono::steady_clock::now();
  if (!of.answered_at) of.answered_at = now;
  return now - *of.answered_at > 2 * of.request.stall;
}

int look_around(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto& of = *static_cast<transfer*>(context);
  of.trickles = of.trickles || trickles(of);
  return of.limits.stopped() || of.trickles ? 1 : 0;
}

// What the server is, or says, is not going to change by asking again.
bool is_final(CURLcode code) {
  switch (code) {
    case CURLE_LOGIN_DENIED:
    case CURLE_REMOTE_ACCESS_DENIED:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return true;
    default:
      return false;
  }
}

template <class Value>
void set(CURL* easy, CURLoption option, Value value) {
  // Fails for want of memory, and for what a libcurl was built without.
  const CURLcode failed = curl_easy_setopt(easy, option, value);
  if (failed != CURLE_OK) {
    throw std::runtime_error(std::string("this libcurl: ") + curl_easy_strerror(failed));
  }
}

void set_text(CURL* easy, CURLoption option, const std::string& value) {
  if (!value.empty()) set(easy, option, value.c_str());
}

void set_who(CURL* easy, const http_request& request) {
  const bool by_key = !request.key_file.empty();
  set_text(easy, CURLOPT_USERNAME, request.user);
  // Beside a key the password is the one that the key is kept under.
  set_text(easy, by_key ? CURLOPT_KEYPASSWD : CURLOPT_PASSWORD, request.password);
  set_text(easy, CURLOPT_AWS_SIGV4, request.sigv4);
  set_text(easy, CURLOPT_CAINFO, request.ca_file);
  if (request.known_hosts.empty()) return;
  set_text(easy, CURLOPT_SSH_KNOWNHOSTS, request.known_hosts);
  set_text(easy, CURLOPT_SSH_PRIVATE_KEYFILE, request.key_file);
  set(easy, CURLOPT_SSH_AUTH_TYPES,
      static_cast<long>(by_key ? CURLSSH_AUTH_PUBLICKEY : CURLSSH_AUTH_PASSWORD));
  set(easy, CURLOPT_FTP_CREATE_MISSING_DIRS, static_cast<long>(CURLFTP_CREATE_DIR_RETRY));
}

void set_body(CURL* easy, transfer& of) {
  const http_request& request = of.request;
  if (request.method == "HEAD") {
    set(easy, CURLOPT_NOBODY, 1L);
    return;
  }
  if (!request.method.empty()) set(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  const bool uploads = request.file >= 0 || request.method == "PUT" || request.method == "POST";
  if (!uploads) return;
  set(easy, CURLOPT_UPLOAD, 1L);
  set(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size_of(request)));
  set(easy, CURLOPT_READFUNCTION, give);
  set(easy, CURLOPT_READDATA, static_cast<void*>(&of));
  set(easy, CURLOPT_SEEKFUNCTION, rewind_to);
  set(easy, CURLOPT_SEEKDATA, static_cast<void*>(&of));
}

void set_ways(CURL* easy, transfer& of) {
  set(easy, CURLOPT_URL, of.request.url.c_str());
  set(easy, CURLOPT_PATH_AS_IS, 1L);
  // Just the one that is asked for: a libcurl without SFTP refuses its name.
  set_text(easy, CURLOPT_PROTOCOLS_STR, of.request.url.substr(0, of.request.url.find("://")));
  set(easy, CURLOPT_NOSIGNAL, 1L);
  // Credentials and contents go where the settings say, and nowhere else.
  set(easy, CURLOPT_FOLLOWLOCATION, 0L);
  set(easy, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  set(easy, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  set(easy, CURLOPT_LOW_SPEED_LIMIT, of.request.sink ? kLeastReadPerSecond : 1L);
  set(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(of.request.stall.count()));
  if (of.request.file < 0 && !of.request.sink) {
    const bool is_given = of.request.limit.count() > 0;
    const auto limit = is_given ? of.request.limit.count() : 2 * of.request.stall.count();
    set(easy, CURLOPT_TIMEOUT, kConnectSeconds + static_cast<long>(limit));
  }
  set(easy, CURLOPT_BUFFERSIZE, 256L * 1024);
  set(easy, CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(kPiece));
  set(easy, CURLOPT_WRITEFUNCTION, take);
  set(easy, CURLOPT_WRITEDATA, static_cast<void*>(&of));
  set(easy, CURLOPT_HEADERFUNCTION, take_header);
  set(easy, CURLOPT_HEADERDATA, static_cast<void*>(&of));
  set(easy, CURLOPT_NOPROGRESS, 0L);
  set(easy, CURLOPT_XFERINFOFUNCTION, look_around);
  set(easy, CURLOPT_XFERINFODATA, static_cast<void*>(&of));
}

void fill(CURL* easy, CURLcode code, const transfer& of, const char* said, http_answer& answer) {
  curl_off_t length = -1;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &answer.status);
  curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  answer.length = length;
  answer.carried = code == CURLE_OK || (code == CURLE_WRITE_ERROR && of.enough);
  if (answer.carried) return;
  answer.final = is_final(code);
  answer.failed_after = code == CURLE_QUOTE_ERROR;
  answer.error = said[0] != '\0' ? said : curl_easy_strerror(code);
  if (of.header_bytes > kMostHeaders) answer.error = "the answer's headers have more than 64 KiB";
  if (of.trickles) {
    answer.error =
        "the answer takes more than " + std::to_string(2 * of.request.stall.count()) + " s";
  }
  if (of.limits.stopped()) answer.error = "stopped";
  if (code == CURLE_REMOTE_FILE_NOT_FOUND) answer.status = 404;
}

}  // namespace

void http_client::release::operator()(void* easy) const {
  curl_easy_cleanup(easy);
}

http_client::http_client(pace& limits) : limits_(limits), easy_(curl_easy_init()) {
  if (!easy_) throw std::bad_alloc();
}

http_answer http_client::perform(const http_request& request) {
  http_answer answer;
  transfer of{request, answer, limits_};
  CURL* const easy = easy_.get();
  curl_easy_reset(easy);
  char said[CURL_ERROR_SIZE] = "";
  set(easy, CURLOPT_ERRORBUFFER, static_cast<char*>(said));
  set_ways(easy, of);
  set_who(easy, request);
  set_body(easy, of);
  const header_list headers = list_of(request.headers);
  if (headers) set(easy, CURLOPT_HTTPHEADER, headers.get());
  const header_list after = list_of(request.commands_after);
  if (after) set(easy, CURLOPT_POSTQUOTE, after.get());
  const CURLcode code = curl_easy_perform(easy);
  fill(easy, code, of, said, answer);
  // What it points to ends with this call.
  curl_easy_reset(easy);
  return answer;
}

bool prepare_http() {
  return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
}

std::string percent_encoded(const std::string& text, bool keep_slashes) {
  return record::percent_encoded(text, keep_slashes ? "/" : "");
}

std::string percent_decoded(const std::string& text) {
  int size = 0;
  const std::unique_ptr<char, void (*)(void*)> made(
      curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &size), curl_free);
  if (!made) throw std::bad_alloc();
  return {made.get(), static_cast<size_t>(size)};
}

}  // namespace zelta::deliver
