// SPDX-License-Identifier: Apache-2.0
#include "fleet/nats_faults.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace zelta::fleet {
namespace {

using clock = std::chrono::steady_clock;

// Longer than what was asked waits for an answer.
constexpr std::chrono::seconds kViolationCounts{5};

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

}  // namespace

void violations::note(std::string text) {
  const std::lock_guard<std::mutex> hold(lock_);
  text_ = std::move(text);
  at_ = clock::now();
}

std::string violations::latest() const {
  const std::lock_guard<std::mutex> hold(lock_);
  return clock::now() < at_ + kViolationCounts ? text_ : "";
}

std::string fault_text(const std::string& what, natsStatus status, const violations& denied) {
  const std::string not_permitted = denied.latest();
  return what + ": " + natsStatus_GetText(status) + detail_of(status) +
         (not_permitted.empty() ? "" : "; this user may not: " + not_permitted);
}

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

// Over TLS servers hang up when the handshake is over.
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

}  // namespace zelta::fleet
