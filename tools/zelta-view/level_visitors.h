// SPDX-License-Identifier: Apache-2.0
// Answers to those who ask for volumes, which wait until a file is measured.
//
// The thread of the default context of GLib, which the messages are of; it never blocks.
#pragma once

#include <memory>
#include <string>

#include <libsoup/soup.h>

#include "core_service/channel/http_listener.h"
#include "level_cache.h"
#include "level_worker.h"

namespace zelta::view {

class level_visitors {
 public:
  // `folder` ends in a slash; `by` has the visitors' connections and outlives this. Throws
  // std::system_error when there is no thread to be had.
  level_visitors(std::string folder, level_cache cache, core_service::http_listener& by);
  level_visitors(const level_visitors&) = delete;
  level_visitors& operator=(const level_visitors&) = delete;
  // Whoever waits still isn't answered.
  ~level_visitors();

  // {"levels": base64} of the file, or {} when it can't be measured. Who waits may be silent for as
  // long as that takes; 503 when too many are already.
  void wait(SoupServerMessage* message, const std::string& name);

 private:
  struct waiting_room;
  struct measured;

  std::unique_ptr<level_worker> worker_;
  std::shared_ptr<waiting_room> room_;
};

}  // namespace zelta::view
