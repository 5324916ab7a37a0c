// SPDX-License-Identifier: Apache-2.0
// zelta-record, the command line over the engine.
#include <memory>

#include "core_service/task/secrets.h"
#include "options.h"
#include "recording.h"
#include "signals.h"

int main(int argc, char** argv) {
  using namespace zelta;
  record::signal_watch signals;
  // On the heap for its size alone: its configuration points into itself, so it must not move.
  const auto o = std::make_unique<record::options>();
  const record::parse_result parsed = record::parse_options(argc, argv, *o);
  core_service::wipe_arguments(argc, argv, {"--channel-key", "--secret"});
  if (!parsed.ok) return tools::print(parsed, "zelta-record");
  return record::record(*o, signals);
}
