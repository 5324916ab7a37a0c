// SPDX-License-Identifier: Apache-2.0
// What everything that records has around it.
#pragma once

#include <string>

#include "base/event_loop.h"
#include "base/logger.h"
#include "core_service/engine/engine_link.h"
#include "core_service/files/file_writer.h"
#include "core_service/folder/manifest.h"

namespace zelta::core_service {

// Borrowed from the session, which outlives all of them.
struct surroundings {
  std::string folder;  // with its slash
  base::event_loop& loop;
  manifest& files;
  engine_link& link;
  files::file_writer& disk;
  base::logger log;
};

}  // namespace zelta::core_service
