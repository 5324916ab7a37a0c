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
};

struct outcome {
  enum kind {
    kDone,
    kLater,    // a network, a server that has trouble
    kRefused,  // an answer that is likely to stay
    kStopped,
  } is = kDone;
  std::string text;
  int64_t wait_ms = 0;  // what the target asked for; 0: nothing
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
  // What stood under its name is replaced, once all is there. What of an upload in parts is done
  // stands in `at` whenever `save` is called, which answers false when it can't be kept.
  virtual outcome send(http_client& by, const parcel& of, shipment& at,
                       const std::function<bool()>& save) const = 0;
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

// What an answer that isn't what was wanted means for the file.
outcome outcome_of(const http_answer& answer, const char* doing);
// Downloads and compares.
sight compare_content(http_client& by, http_request request, const parcel& of);

}  // namespace zelta::deliver
