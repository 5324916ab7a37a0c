// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/format_tracker.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "core_service/media/nal_formats.h"
#include "core_service/media/picture_formats.h"

namespace zelta::core_service::media {
namespace {

using source_ptr = std::unique_ptr<format_source>;

class nal_source : public format_source {
 public:
  nal_source(const codec& kind, const nal_rules& rules, const described_format& described)
      : formats_(kind, rules) {
    for (const std::string& sets : described.parameter_sets) {
      for (size_t at = 0; at <= sets.size();) {
        const size_t end = std::min(sets.find(',', at), sets.size());
        add(sets.substr(at, end - at));
        at = end + 1;
      }
    }
  }
  format_ptr look(const uint8_t* unit, size_t bytes, bool key) override {
    return formats_.look(unit, bytes, key);
  }

 private:
  void add(std::string base64) {
    while (base64.size() % 4 != 0) base64 += '=';  // some leave it out
    gsize bytes = 0;
    const std::unique_ptr<guchar, void (*)(void*)> nal(g_base64_decode(base64.c_str(), &bytes),
                                                       g_free);
    formats_.add(nal.get(), bytes);
  }

  nal_formats formats_;
};

// Sound says nothing of itself.
class sound_source : public format_source {
 public:
  sound_source(const codec& kind, int sample_rate, int channels) {
    auto made = std::make_shared<stream_format>();
    made->kind = &kind;
    made->sample_rate = sample_rate;
    made->channels = channels;
    format_ = std::move(made);
  }
  format_ptr look(const uint8_t* /*unit*/, size_t /*bytes*/, bool /*key*/) override {
    return format_;
  }

 private:
  format_ptr format_;
};

source_ptr sound_of(const codec& kind, const described_format& described, int rate, int channels) {
  return std::make_unique<sound_source>(kind,
                                        described.sample_rate > 0 ? described.sample_rate : rate,
                                        described.channels > 0 ? described.channels : channels);
}

struct source_row {
  const char* name;
  source_ptr (*make)(const codec& kind, const described_format& described);
};
constexpr source_row kSources[] = {
    {"h264",
     [](const codec& kind, const described_format& described) -> source_ptr {
       return std::make_unique<nal_source>(kind, kH264Rules, described);
     }},
    {"hevc",
     [](const codec& kind, const described_format& described) -> source_ptr {
       return std::make_unique<nal_source>(kind, kHevcRules, described);
     }},
    {"av1", [](const codec& kind, const described_format&) { return av1_source(kind); }},
    {"vp8", [](const codec& kind, const described_format&) { return vp8_source(kind); }},
    {"vp9", [](const codec& kind, const described_format&) { return vp9_source(kind); }},
    // The clock of Opus is always this (RFC 7587, 4.1); its "2" in a description is no count of
    // channels, but all that a decoder may be asked for.
    {"opus",
     [](const codec& kind, const described_format& described) {
       return sound_of(kind, {{}, 48'000, described.channels}, 48'000, 2);
     }},
    {"pcmu", [](const codec& kind,
                const described_format& described) { return sound_of(kind, described, 8'000, 1); }},
    {"pcma", [](const codec& kind,
                const described_format& described) { return sound_of(kind, described, 8'000, 1); }},
};

}  // namespace

format_tracker::format_tracker(const codec& kind, const described_format& described) {
  for (const source_row& row : kSources) {
    if (std::strcmp(row.name, kind.name) == 0) source_ = row.make(kind, described);
  }
}

format_tracker::format_tracker(format_tracker&&) noexcept = default;
format_tracker& format_tracker::operator=(format_tracker&&) noexcept = default;
format_tracker::~format_tracker() = default;

format_ptr format_tracker::look(const uint8_t* unit, size_t bytes, bool key) {
  return source_ != nullptr ? source_->look(unit, bytes, key) : nullptr;
}

}  // namespace zelta::core_service::media
