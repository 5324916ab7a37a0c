// SPDX-License-Identifier: Apache-2.0
// A session's share of a recording folder.
//
// Where a site fixes the folder, several sessions record into it at a time. Each replaces its
// manifest and its journal whole, so each has files of its own: recording.json and journal.json are
// the first one's, recording_2.json and journal_2.json the second one's, and so on.
#pragma once

#include <string>

#include "base/unique_fd.h"

namespace zelta::core_service {

class folder_share {
 public:
  // Takes the first share from number `first` on that nobody has, or with `recovery` the one whose
  // journal is this session's, if there is such a one. `folder` has its slash. A folder that can't
  // be locked counts as this session's alone.
  folder_share(std::string folder, std::string session, bool recovery, int first = 1);

  // What ZELTA_FIRST_MANIFEST says: machines that record one call after each other, each into a
  // folder of its own, have their files come together without one manifest replacing another's. 1
  // where it says nothing.
  static int first_of_environment();

  // The name by which journals tell sessions, and a relaunched recorder knows its own: of the
  // engine's process, the recorder's uid as it was called for, and the channel.
  static std::string session_name(unsigned uid, const std::string& channel_id);

  const std::string& folder() const { return folder_; }
  const std::string& session() const { return session_; }
  std::string manifest_name() const;
  std::string journal_name() const;
  // Of what users write.
  std::string messages_name() const;
  // Of how loud they are.
  std::string volumes_name() const;

 private:
  std::string lock_path() const;
  bool take();
  bool is_awaited() const;

  const std::string folder_;
  const std::string session_;
  int number_ = 1;
  // Locked as long as this process lives: a share isn't given away before.
  base::unique_fd lock_;
};

}  // namespace zelta::core_service
