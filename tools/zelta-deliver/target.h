// SPDX-License-Identifier: Apache-2.0
// A place that recordings are delivered to. What all kinds have to be able to do: say whether they
// have a file, whole, and take it. Any thread; a target has no state of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "http_client.h"
#include "ledger.h"
#include "settings.h"

namespace zelta::deliver {

struct parcel {
  int file = -1;       // open for reading, lent
  std::string remote;  // folder and name at the target, split by slashes
  stamp is;
  std::string sha256;
  bool replaces = false;  // what stands there is ours, and an older or a broken one
};

struct outcome {
  enum kind {
    kDone,
    kLater,    // a network, a server that has trouble
    kRefused,  // an answer that is likely to stay
    kStopped,
  } is = kDone;
  std::string text;
  int64_t wait_ms = 0;       // what the target asked for; 0: nothing
  bool unreachable = false;  // it is the target's trouble, not this file's
  bool occupied = false;     // meanwhile something else came to stand there, and was left alone
};

enum class presence { kAbsent, kSame, kOther, kUnknown };

// `why` is of use when it is unknown.
struct sight {
  presence is = presence::kUnknown;
  outcome why;
};

class target {
 public:
  virtual ~target() = default;

  // Whether what is in `of` stands there. With `thorough` its bytes are compared, or a checksum
  // that the target has made or was given with them; without, its size is enough.
  virtual sight look(http_client& by, const parcel& of, bool thorough) const = 0;
  // What stood under its name is replaced, if it may be, once all is there. What of an upload in
  // parts is done stands in `at` whenever `save` is called, which answers false when it can't be
  // kept.
  virtual outcome send(http_client& by, const parcel& of, shipment& at,
                       const std::function<bool()>& save) const = 0;
  // Whether under a file's name there is all of it or nothing, whatever dies meanwhile.
  virtual bool takes_whole() const = 0;
  // Ends an upload in parts, if the target can be asked to now.
  virtual void abandon(http_client&, const parcel&, const shipment&) const {}
};

// `settings` outlives it.
std::unique_ptr<target> make_target(const target_settings& settings, std::chrono::seconds stall,
                                    pace& limits);

std::unique_ptr<target> make_folder_target(const target_settings& settings, pace& limits);
std::unique_ptr<target> make_http_target(const target_settings& settings,
                                         std::chrono::seconds stall);
std::unique_ptr<target> make_s3_target(const target_settings& settings, std::chrono::seconds stall);
std::unique_ptr<target> make_sftp_target(const target_settings& settings,
                                         std::chrono::seconds stall);

// RFC 9110, section 13.1.2: only where nothing stands yet.
constexpr const char* kIfAbsent = "If-None-Match: *";
// Sends a file where nothing stands, or what may be replaced; where a server doesn't know how to
// refuse what came meanwhile, as it was seen to be before.
http_answer put_file(http_client& by, http_request put, const parcel& of);
// What an answer that isn't what was wanted means for the file.
outcome outcome_of(const http_answer& answer, const char* doing);
// Downloads and compares.
sight compare_content(http_client& by, http_request request, const parcel& of);

}  // namespace zelta::deliver
