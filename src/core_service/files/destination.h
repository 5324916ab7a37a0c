// SPDX-License-Identifier: Apache-2.0
// Where files go, and who has to know of them.
#pragma once

#include <string>

#include "base/event_loop.h"
#include "base/logger.h"
#include "core_service/files/file_writer.h"
#include "core_service/folder/ledger.h"

namespace zelta::core_service::files {

// All is borrowed.
struct destination {
  std::string folder;  // with its slash
  base::event_loop& loop;
  core_service::ledger& ledger;
  file_writer& disk;
  base::logger log;
};

}  // namespace zelta::core_service::files
