// SPDX-License-Identifier: Apache-2.0
#include "status.h"
#include "exit_status.h"
#include "ledger.h"
#include "reporter.h"

namespace zelta::deliver {

int tell_status(const options& asked) {
  reporter reports(asked.json);
  bool unfinished = false;
  bool dead = false;
  bool broken = false;
  for (const std::string& folder : asked.folders) {
    std::string error;
    const std::optional<ledger> state = load_ledger(folder, error);
    if (!state) {
      reports.tell("broken", {{"folder", folder}, {"error", error}});
      broken = true;
      continue;
    }
    unfinished = unfinished || state->announced.empty() || !state->notices.empty();
    for (const auto& [name, one] : state->files) {
      dead = dead || one.dead();
      unfinished = unfinished || !one.settled();
      for (const auto& [target, at] : one.targets) {
        reports.tell(name_of(at.at), {{"folder", folder},
                                      {"file", name},
                                      {"target", target},
                                      {"bytes", std::to_string(one.is.bytes)},
                                      {"sha256", one.sha256},
                                      {"error", at.error}});
      }
    }
  }
  if (broken) return kBroken;
  if (dead) return kDeadLetters;
  return unfinished ? kUnfinished : kDelivered;
}

}  // namespace zelta::deliver
