// SPDX-License-Identifier: Apache-2.0
// Who takes a user's media, each in the form that they ask for. What nobody asks for isn't made.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <gst/gst.h>

#include "core_service/media/codecs.h"
#include "core_service/media/encoded_unit.h"
#include "core_service/media/timeline.h"

namespace zelta::core_service::media {

enum class form {
  kCodedPictures,  // encoded, as they came
  kCodedSound,
  kAccessUnits,      // H.264 in byte-stream format
  kPictures,         // decoded, I420, as they came, their rotation beside them
  kUprightPictures,  // decoded and turned, of any format
  kStills,           // JPEG, one an interval
  kSound,            // decoded: 48 kHz, 16 bits
};

// `rotation` is in degrees clockwise. kCodedPictures and kCodedSound come on the loop's thread, the
// others on GStreamer's, one thread at a time a form.
class consumer {
 public:
  virtual ~consumer() = default;
  // Whether it may ever ask for this form: always the same.
  virtual bool takes(form what) const = 0;
  // Whether it does at this moment. Any thread, and for every unit: what it costs counts.
  virtual bool wants(form what) const { return takes(what); }

  virtual void on_coded_picture(const media_sample& /*sample*/, const codec& /*kind*/) {}
  virtual void on_coded_sound(const encoded_unit& /*unit*/) {}
  virtual void on_access_unit(const media_sample& /*sample*/, int /*rotation*/) {}
  virtual void on_picture(GstSample* /*picture*/, media_time /*time*/, int /*rotation*/) {}
  virtual void on_upright_picture(GstSample* /*picture*/, media_time /*time*/) {}
  virtual void on_still(const media_sample& /*sample*/, int /*rotation*/) {}
  virtual void on_sound(media_time /*time*/, const int16_t* /*samples*/, size_t /*frames*/) {}

  // All on the loop's thread. Whether the service runs: what comes while it doesn't is to go
  // nowhere.
  virtual void serve(bool /*serves*/) {}
  // A form that may be left out while the machine is too busy.
  virtual void leave_out(form /*what*/, bool /*left_out*/) {}
  // Sound that is missing up to here won't come any more.
  virtual void fill_sound(media_time /*until*/) {}
};

// All who take the media of one user, as one.
class consumers {
 public:
  consumers() = default;
  explicit consumers(std::vector<std::shared_ptr<consumer>> all) : all_(std::move(all)) {
    for (const auto& one : all_) {
      for (int i = 0; i <= static_cast<int>(form::kSound); ++i) {
        const auto what = static_cast<form>(i);
        if (one->takes(what)) taken_ |= bit(what);
      }
    }
  }

  // The same without what comes in this form: they get it elsewhere, or not at all.
  consumers without(form what) const {
    consumers made = *this;
    made.taken_ &= ~bit(what);
    return made;
  }

  bool takes(form what) const { return (taken_ & bit(what)) != 0; }
  bool wants(form what) const {
    return takes(what) &&
           std::any_of(all_.begin(), all_.end(), [&](const auto& one) { return one->wants(what); });
  }
  bool take_decoded_pictures() const {
    return takes(form::kPictures) || takes(form::kUprightPictures) || takes(form::kStills);
  }

  // `give` hands the media in this form to each who wants it: give(consumer).
  template <class Give>
  void each(form what, Give give) const {
    if (!takes(what)) return;
    for (const auto& one : all_) {
      if (one->wants(what)) give(*one);
    }
  }
  template <class Work>
  void each(Work work) const {
    for (const auto& one : all_) work(*one);
  }

 private:
  static constexpr unsigned bit(form what) { return 1U << static_cast<unsigned>(what); }

  std::vector<std::shared_ptr<consumer>> all_;
  unsigned taken_ = 0;
};

}  // namespace zelta::core_service::media
