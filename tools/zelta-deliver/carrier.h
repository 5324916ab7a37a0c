// SPDX-License-Identifier: Apache-2.0
// Carries one file to one target, as it is or sealed, and notes every step in its folder's ledger
// before the next one. Of what goes sealed no target's code ever has the file itself.
// Runs on a worker's thread; `mutex` guards the consignment and is not held while bytes move, nor
// while anything is told. It is noted under it: once a file is confirmed, its manifest may be.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "consignment.h"
#include "http_client.h"
#include "pace.h"
#include "reporter.h"
#include "sealed_copies.h"
#include "settings.h"
#include "target.h"
#include "target_gates.h"

namespace zelta::deliver {

// All outlive the carrier.
struct carrier_tools {
  std::mutex& mutex;
  const delivery_settings& settings;
  const std::vector<std::unique_ptr<target>>& targets;
  target_gates& gates;          // guarded by the mutex
  std::vector<size_t>& copies;  // sealed ones that stand, by targets; likewise
  pace& limits;
  reporter& reports;
};

class carrier {
 public:
  carrier(const carrier_tools& with, http_client& by, consignment& from, consignment::errand of);

  // At its end the errand is no more in flight, whatever came of it, and its consignment, which may
  // end from then on, is touched no more.
  void carry();

 private:
  bool load();
  bool digest();
  void pack();
  bool look_first();
  bool seal();
  bool begin();
  bool send();
  void look_after();

  void confirm();
  void fail(const outcome& why);
  void bury(const std::string& why);
  void changed();
  bool still_the_same() const;
  void abandon_upload();
  void note(const char* event, const std::string& why) const;

  const carrier_tools with_;
  http_client& by_;
  consignment& from_;
  const consignment::errand of_;
  const target_settings& settings_;
  const target& to_;
  const std::string folder_;
  base::unique_fd file_;
  stamp is_;            // of the file; the parcel's is of what goes
  std::string sha256_;  // likewise
  sealed_copy sealed_;
  parcel parcel_;
  rank order_ = rank::kMedia;
};

}  // namespace zelta::deliver
