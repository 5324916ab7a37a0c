// SPDX-License-Identifier: Apache-2.0
// What decodes one user's units, as far as somebody wants them decoded: a graph for pictures and
// one for sound, each there once it is needed. One that fails, or that the machine has no threads
// for, is told, and tried again later; the other goes on.
//
// Thread rule: everything on the loop's thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/event_loop.h"
#include "core_service/folder/missing_medium.h"
#include "core_service/media/consumer.h"
#include "core_service/media/decode_graph.h"
#include "core_service/media/media_feed.h"

namespace zelta::core_service {

class decoders {
 public:
  struct events {
    std::function<void(const missing_medium& what)> missing;
    // What was missing is made again.
    std::function<void(const std::string& medium)> over;
    // After finish(): all has come out. They may be destroyed from inside the call.
    std::function<void()> finished;
  };

  // `channels` of sound. The loop is borrowed; `feed` is asked for key frames, from any thread.
  decoders(uint32_t uid, media::consumers to, int channels, std::weak_ptr<media::media_feed> feed,
           base::event_loop& loop, events told);
  decoders(const decoders&) = delete;
  decoders& operator=(const decoders&) = delete;

  // Whether anybody wants the kind decoded now.
  bool wanted(media::media_kind kind) const;
  void push(int track, const media::encoded_unit& unit);
  // A picture was not pushed: what comes behind it can't be decoded before the next key frame.
  void skipped_picture() { wants_key_ = true; }
  void end_track(int track);
  // `patience` as decode_graph has it.
  void finish(media::media_time patience);
  void set_still_interval(media::media_time interval);

 private:
  struct part {
    media::media_kind kind;
    std::unique_ptr<media::decode_graph> graph;
    // When it couldn't be made, or failed, last; 0: never.
    media::media_time failed{};
    // What was told as missing since it worked; empty: nothing.
    std::string missing;
  };

  part& of(media::media_kind kind);
  static bool waits(const part& one, media::media_time now);
  bool make(part& wanted, media::media_time first);
  void tell(part& of, const char* medium, const std::string& why);
  void on_works(part& again);
  void on_failed(part& gone, const std::string& why);
  void on_finished(part& done);
  void request_key_frame() const;

  const uint32_t uid_;
  const media::consumers to_;
  const int channels_;
  const std::weak_ptr<media::media_feed> feed_;
  const events events_;
  const base::poster poster_;
  media::media_time still_interval_ = std::chrono::seconds(1);
  bool wants_key_ = false;
  bool finishing_ = false;
  std::array<part, 2> parts_;
};

}  // namespace zelta::core_service
