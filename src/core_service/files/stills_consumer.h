// SPDX-License-Identifier: Apache-2.0
// A user's pictures as JPEG files, now and then, while the service runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "base/poster.h"
#include "core_service/folder/ledger.h"
#include "core_service/folder/missing_medium.h"
#include "core_service/media/consumer.h"

namespace zelta::core_service::files {

class stills_consumer final : public media::consumer {
 public:
  // On the loop's thread.
  struct events {
    // The disk takes no file any more.
    std::function<void(const std::string& why)> failed;
    std::function<void(const missing_medium& what)> missing;
  };

  // Into `folder`, with its slash. Ledger and loop are borrowed.
  stills_consumer(uint32_t uid, std::string folder, ledger& to, base::event_loop& loop,
                  events told);

  bool takes(media::form what) const override { return what == media::form::kStills; }
  bool wants(media::form what) const override { return takes(what) && !left_out_; }
  void on_still(const media::media_sample& sample, int rotation) override;

  void serve(bool serves) override { serves_ = serves; }
  void leave_out(media::form what, bool left_out) override {
    if (what == media::form::kStills) left_out_ = left_out;
  }

 private:
  const uint32_t uid_;
  const std::string folder_;
  ledger& ledger_;
  const events events_;
  const base::poster poster_;
  std::atomic<bool> serves_{false};
  std::atomic<bool> left_out_{false};
};

}  // namespace zelta::core_service::files
