// SPDX-License-Identifier: Apache-2.0
// recording.json: what files the recording has and where each stands in time. In a folder that
// takes one session after the other, those of all of them.
//
// Replaced as a whole, so that a reader sees a true one at every moment and a crash leaves the
// last. All functions are for the recorder's loop thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core_service/folder/ledger.h"
#include "core_service/folder/missing_medium.h"
#include "core_service/folder/state_writer.h"
#include "recordings/recording_folder.h"

namespace zelta::core_service {

struct manifest_file {
  std::string channel_id;  // empty: that of the manifest's own session
  file_opened opened;
  file_progress is;
  file_closed end;  // without a reason: it is being written
};

// What was to be recorded and isn't.
struct manifest_gap {
  uint32_t uid = 0;  // 0: nobody's
  std::string channel_id;
  missing_medium what;
  int64_t utc_ms = 0;        // when it was noticed
  int64_t until_utc_ms = 0;  // when it was over; 0: it isn't, or nobody could know
};

// Frames that the application was too slow for.
struct dropped_counts {
  uint64_t pictures = 0;  // YUV and JPEG
  uint64_t coded = 0;     // H.264
  uint64_t sound = 0;     // PCM and AAC
};

// How far the recorder is behind what comes, the worst of the last second.
struct recorder_lag {
  int64_t packets_ms = 0;  // from the kernel to its packet threads, and its own loop
  int64_t disk_ms = 0;     // from a file's bytes to the kernel
};

class manifest final : public ledger_observer {
 public:
  // Goes on with the manifest that `folder` (with its slash) has by that name: files that were
  // being written when its recorder ended are closed as "recorder died". One that can't be read is
  // kept aside as NAME.broken. The writer is borrowed.
  manifest(std::string folder, std::string name, std::string channel_id, state_writer& writer);

  const std::string& name() const { return name_; }

  void on_session_began(bool goes_on) override;
  void on_file_opened(file_number file, const file_opened& what) override;
  void on_file_progress(file_number file, const file_progress& is) override;
  void on_file_closed(file_number file, const file_closed& how) override;
  void on_file_dropped(file_number file) override;
  void on_picture(const picture_written& what) override { ++pictures_[what.uid]; }
  void on_packets_lost(uint32_t uid, uint64_t more) override {
    lost_packets_[uid] += more;
    all_lost_packets_ += more;
  }
  void on_session_ended(const std::string& reason) override;

  // False when that is known already: of a medium of a user a reason is told once a session.
  bool note_missing(uint32_t uid, const missing_medium& what);
  // All that was told of the user's medium is over; if it comes again, it is new.
  void end_missing(uint32_t uid, const std::string& medium);
  // What a user calls themselves.
  void set_name(uint32_t uid, const std::string& name);
  // One more line that the user wrote is on its way to the disk.
  void count_message(uint32_t uid) { ++messages_[uid]; }
  // Of all users, by this process.
  uint64_t all_lost_packets() const { return all_lost_packets_; }
  void set_lag(const recorder_lag& now) { lag_ = now; }
  // How many this process has dropped so far.
  void set_dropped(const dropped_counts& now);
  // Writes the manifest, soon.
  void save();
  // The same for who changes a row of many: save_changes() follows within a moment.
  void changed() { changed_ = true; }
  void save_changes() {
    if (changed_) save();
  }
  // For a recorder that takes over from one that died between making a file and writing about it,
  // or before anything was in it: the former are added, the latter go. What other manifests in the
  // folder name is theirs.
  void adopt_leftovers();

 private:
  void load();
  void add(manifest_file file);
  // What a predecessor left open.
  void end_as_dead(recordings::session& one) const;
  std::set<std::string> listed_elsewhere() const;

  bool changed_ = false;

  const std::string folder_;
  const std::string name_;
  const std::string channel_id_;
  state_writer& writer_;
  // In the order in which they were opened.
  std::map<size_t, manifest_file> files_;
  size_t next_number_ = 0;
  // Of those that the ledger has told.
  std::map<file_number, size_t> numbers_;
  std::vector<recordings::session> sessions_;
  std::map<uint32_t, std::string> names_;
  std::map<uint32_t, uint64_t> pictures_;
  std::map<uint32_t, uint64_t> messages_;
  std::map<uint32_t, uint64_t> lost_packets_;
  uint64_t all_lost_packets_ = 0;
  std::vector<manifest_gap> missing_;
  // Those of earlier sessions come first.
  size_t missing_before_ = 0;
  // As the manifest had it that was found.
  size_t missing_before_of_last_ = 0;
  // What this session has told, each by all that makes it one.
  std::set<std::string> noted_;
  recorder_lag lag_;
  // By the processes before this one, and in all.
  dropped_counts dropped_before_;
  dropped_counts dropped_;
};

}  // namespace zelta::core_service
