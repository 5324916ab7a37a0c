// SPDX-License-Identifier: Apache-2.0
// The media of a bin of GStreamer's, in units:
//
//     bin ─▶ parse ─▶ units                        what is kept as it came
//     bin ─▶ decode ─▶ encode ─▶ parse ─▶ units    pictures that no file takes
//
// Thread rule: as media_feed says.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "base/logger.h"
#include "base/poster.h"
#include "base/scoped_timer.h"
#include "core_service/media/gst.h"
#include "core_service/media/media_feed.h"

namespace zelta::core_service::media {

class bin_feed final : public media_feed {
 public:
  // `bin` has one source pad a track, encoded media with its codec in the caps, paced in real time.
  // `complete`: every pad is there. Otherwise pads are added while it runs, and its "no-more-pads"
  // signal tells when that was all. The loop is borrowed and must outlive the feed.
  bin_feed(uint32_t uid, element_ptr bin, bool complete, base::event_loop& loop, base::logger log);
  bin_feed(const bin_feed&) = delete;
  bin_feed& operator=(const bin_feed&) = delete;
  ~bin_feed() override;

  media_time lateness() const override { return {}; }
  size_t threads() const override;
  void start(kinds taken, events told) override;
  void stop(std::function<void()> stopped) override;
  void request_key_frame() override;
  uint64_t lost_packets() const override { return lost_; }
  std::string why_lost() const override {
    return "the recorder was too busy to take what came of them";
  }

 private:
  // A pad of the bin that units come of.
  struct track {
    const codec* kind = nullptr;  // of the units
    int number = 0;
    // From where key frames are asked for: behind the encoder that is ours, but before the parser,
    // which would put parameter sets into the picture.
    pad_ptr asked;
    media_time since{};
    // It is told already that nothing of it comes out.
    std::atomic<bool> refused{false};
    std::atomic<bool> seen{false};
    std::atomic<picture_turn> turn{picture_turn{}};
    // On the streaming thread.
    caps_ptr caps;
    format_ptr format;
    bool broken = false;  // a unit of it found no room
  };
  // What a pad of the bin is linked to.
  struct link {
    pad_ptr source;
    pad_ptr in;
  };

  static void on_pad_added(GstElement* bin, GstPad* pad, gpointer self);
  static void on_no_more_pads(GstElement* bin, gpointer self);
  void attach(GstPad* pad);
  void lead(GstPad* pad, GstElement* branch);
  void discard(GstPad* pad);
  bool is_taken(media_kind kind) const;
  void expect(const codec& kind, const GstCaps* caps);
  void receive(const std::shared_ptr<track>& t, GstPad* pad, GstElement* branch);
  void follow_format(track& t, const GstCaps* caps);
  void on_sample(const std::shared_ptr<track>& t, GstSample* from);
  void note_kinds();
  void leave_out(missing_medium what);
  void leave_out_unknown(const GstCaps* caps);
  void tell_what_never_came(media_time patience);
  void end(const std::string& why, bool failed);
  void done();

  const uint32_t uid_;
  const base::logger log_;
  const base::poster poster_;
  element_ptr pipeline_;
  GstElement* const bin_;  // borrowed from the pipeline
  const bool complete_;
  kinds taken_;
  events events_;
  std::optional<bus_watch> watch_;

  // The bin's threads add to it.
  std::mutex lock_;
  std::vector<std::shared_ptr<track>> tracks_;
  std::vector<link> links_;
  media_time key_asked_{};
  bool sound_expected_ = false;

  // Ends that have not seen the end of their stream.
  std::atomic<int> open_sinks_{0};
  // Whether the bin had anything that is recorded, not asked for, or told as missing.
  std::atomic<bool> offered_{false};
  // Units that are on their way to the loop.
  std::atomic<int> waiting_{0};
  std::atomic<uint64_t> lost_{0};
  bool over_ = false;
  std::function<void()> stopped_;
  base::scoped_timer give_up_timer_;
};

}  // namespace zelta::core_service::media
