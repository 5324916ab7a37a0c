// SPDX-License-Identifier: Apache-2.0
// zelta-fleet, the command line of a fleet.
#include <cstdio>
#include <exception>

#include "commands.h"
#include "embedded_fleet.h"
#include "exit_status.h"
#include "options.h"

namespace zelta::fleet {

exit_status fail(const char* what) {
  std::fprintf(stderr, "zelta-fleet: %s\n", what);
  return kFailed;
}

}  // namespace zelta::fleet

int main(int argc, char** argv) {
  using namespace zelta::fleet;
  try {
    options o;
    const zelta::tools::parse_result parsed = parse_options(argc, argv, o);
    if (!parsed.ok) return zelta::tools::print(parsed, "zelta-fleet");
    return o.what == action::kUp ? run_embedded_fleet(o) : run_command(o);
  } catch (const std::exception& e) {
    return fail(e.what());
  }
}
