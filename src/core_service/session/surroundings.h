// SPDX-License-Identifier: Apache-2.0
// What everything that records has around it.
#pragma once

#include <string>

#include "base/event_loop.h"
#include "core_service/files/file_writer.h"
#include "core_service/folder/manifest.h"
#include "core_service/session/engine_link.h"

namespace zelta::core_service {

// Borrowed from the session, which outlives all of them.
struct surroundings {
  std::string folder;  // with its slash
  base::event_loop& loop;
  manifest& files;
  engine_link& link;
  files::file_writer& disk;
};

}  // namespace zelta::core_service
