// SPDX-License-Identifier: Apache-2.0
// What becomes of a session, its files and its pictures, as events with values. Whoever makes files
// tells the ledger and knows nobody else; whoever has to know of files observes it.
//
// Thread rule: everything on the recorder's loop thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::core_service {

// Counted by the process from 1.
using file_number = uint64_t;

struct file_opened {
  std::string name;          // in the recording folder
  uint32_t uid = 0;          // 0: the mix
  int64_t begin_utc_ms = 0;  // where it stands as long as nothing is in it, ms since 1970 UTC
};

struct file_progress {
  std::string kind;         // "audio_video", "audio", "video"
  std::string video_codec;  // "h264", "hevc", "av1", "vp8", "vp9"; empty: no video
  std::string audio_codec;  // "aac", "opus"; empty: no audio
  int width = 0;            // pixels
  int height = 0;
  // Media time in milliseconds since 1970 UTC; while there is no media, both say where it begins.
  int64_t first_utc_ms = 0;
  int64_t last_utc_ms = 0;
  uint64_t bytes = 0;  // with the kernel
};

struct file_closed {
  std::string reason;
  // Of all its bytes (ISO 3309, as zlib, gzip and zip have it); none: the disk failed.
  std::optional<uint32_t> crc32;
};

struct picture_written {
  std::string name;
  uint32_t uid = 0;
};

class ledger_observer {
 public:
  virtual ~ledger_observer() = default;

  // `goes_on`: a recorder died over it, and this one takes over.
  virtual void on_session_began(bool /*goes_on*/) {}
  virtual void on_file_opened(file_number /*file*/, const file_opened& /*what*/) {}
  virtual void on_file_progress(file_number /*file*/, const file_progress& /*is*/) {}
  // Behind the last progress.
  virtual void on_file_closed(file_number /*file*/, const file_closed& /*how*/) {}
  // In place of that: it held nothing, and is gone.
  virtual void on_file_dropped(file_number /*file*/) {}
  virtual void on_picture(const picture_written& /*what*/) {}
  // More of the user's packets found no room here.
  virtual void on_packets_lost(uint32_t /*uid*/, uint64_t /*more*/) {}
  // All its files are closed.
  virtual void on_session_ended(const std::string& /*reason*/) {}
};

class ledger {
 public:
  // Borrowed. They hear in the order in which they came.
  void add(ledger_observer& one) { observers_.push_back(&one); }

  void session_began(bool goes_on) const {
    for (ledger_observer* const one : observers_) one->on_session_began(goes_on);
  }
  file_number opened(const file_opened& what) {
    const file_number file = ++last_;
    for (ledger_observer* const one : observers_) one->on_file_opened(file, what);
    return file;
  }
  void progress(file_number file, const file_progress& is) const {
    for (ledger_observer* const one : observers_) one->on_file_progress(file, is);
  }
  void closed(file_number file, const file_closed& how) const {
    for (ledger_observer* const one : observers_) one->on_file_closed(file, how);
  }
  void dropped(file_number file) const {
    for (ledger_observer* const one : observers_) one->on_file_dropped(file);
  }
  void picture(const picture_written& what) const {
    for (ledger_observer* const one : observers_) one->on_picture(what);
  }
  void packets_lost(uint32_t uid, uint64_t more) const {
    for (ledger_observer* const one : observers_) one->on_packets_lost(uid, more);
  }
  void session_ended(const std::string& reason) const {
    for (ledger_observer* const one : observers_) one->on_session_ended(reason);
  }

 private:
  std::vector<ledger_observer*> observers_;
  file_number last_ = 0;
};

}  // namespace zelta::core_service
