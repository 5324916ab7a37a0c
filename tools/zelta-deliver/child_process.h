// SPDX-License-Identifier: Apache-2.0
// Runs another program to its end, in a process group of its own: hooks, and what seals files. Any
// thread; it waits.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zelta::deliver {

struct child_call {
  std::vector<std::string> command;      // the program's absolute path, and its arguments
  std::vector<std::string> environment;  // "NAME=value": all that it gets
  // Lent. Standard input is never a pipe of ours: nobody has to feed it.
  int in = -1;
  int out = -1;  // standard output; below 0: its lines are said, as those of standard error are
};

struct child_end {
  int failed = 0;    // errno of the start; 0: it ran
  bool cut = false;  // it was killed with all of its group, as it was not to go on
  int status = 0;    // as waitpid() has it, when it ran to its end

  bool ok() const { return failed == 0 && !cut && status == 0; }
  // "ended with 1", "was ended by signal 9"; of one that ran to its end.
  std::string how() const;
};

// `may_go_on` is asked ten times a second; once it says no, the group is killed. Each line of its
// output goes to `say`, long ones in pieces. What has left the process group, and holds the output
// open when the program has ended, isn't waited for: of it only what is there by then is heard.
// Descriptors above 2 and blocked signals aren't inherited.
child_end run_child(const child_call& call, const std::function<bool()>& may_go_on,
                    const std::function<void(const std::string&)>& say);

}  // namespace zelta::deliver
