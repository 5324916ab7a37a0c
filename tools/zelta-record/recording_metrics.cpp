// SPDX-License-Identifier: Apache-2.0
#include "recording_metrics.h"

#include <algorithm>
#include <string>

namespace zelta::record {
namespace {

using metrics::family;
using metrics::labels;
using prometheus::MetricType;

constexpr double kMsOfSecond = 1000;

double number(uint64_t count) {
  return static_cast<double>(count);
}

}  // namespace

void recording_metrics::begin(const recording_place& place) {
  const std::lock_guard<std::mutex> hold(lock_);
  place_ = place;
}

std::vector<prometheus::MetricFamily> recording_metrics::Collect() const {
  recording_place place;
  {
    const std::lock_guard<std::mutex> hold(lock_);
    place = place_;
  }
  const reporter::facts facts = report_.now();
  const recorded all = place.folder.empty() ? recorded() : read_recorded(place);
  const labels of_channel = {{"channel", place.channel_id}};
  const auto with = [&of_channel](const char* name, const char* value) {
    labels both = of_channel;
    both.push_back({name, value});
    return both;
  };
  const auto open = std::count_if(all.files.begin(), all.files.end(),
                                  [](const recorded_file& one) { return one.closed.empty(); });
  uint64_t pictures = 0;
  for (const auto& [uid, count] : all.pictures) pictures += count;

  std::vector<prometheus::MetricFamily> families;
  const auto gauge = [&](const char* name, const char* help, double value) {
    families.push_back(family(MetricType::Gauge, name, help).add(value, of_channel).take());
  };
  const auto counter = [&](const char* name, const char* help, double value) {
    families.push_back(family(MetricType::Counter, name, help).add(value, of_channel).take());
  };
  gauge("zelta_recording_joined", "1 while the channel is joined.",
        facts.state == reporter::state::kRecording ? 1 : 0);
  gauge("zelta_recording_users", "Users in the channel.", facts.users);
  gauge("zelta_recording_open_files", "Media files that are being written.",
        static_cast<double>(open));
  counter("zelta_recording_files_total", "Media files that were opened.", number(all.files.size()));
  counter("zelta_recording_bytes_total", "Bytes in media files.", number(all.bytes()));
  counter("zelta_recording_pictures_total", "Captured pictures.", number(pictures));
  counter("zelta_recording_messages_total", "Messages of users.", number(all.messages));
  counter("zelta_recording_missing_total", "Things that were to be recorded and aren't.",
          number(all.missing.size()));
  counter("zelta_recording_lost_packets_total", "Packets that found no room in the recorder.",
          number(all.lost_packets));
  family dropped(MetricType::Counter, "zelta_recording_dropped_frames_total",
                 "Frames that the application was too slow for.");
  dropped.add(number(all.dropped.pictures), with("kind", "pictures"))
      .add(number(all.dropped.coded), with("kind", "coded"))
      .add(number(all.dropped.sound), with("kind", "sound"));
  families.push_back(dropped.take());
  counter("zelta_recording_restarts_total", "Recorders that died and were started again.",
          facts.restarts);
  family lag(MetricType::Gauge, "zelta_recording_lag_seconds",
             "How far the recorder is behind packets and its disk, at worst.");
  lag.add(static_cast<double>(all.lag_of_packets_ms) / kMsOfSecond, with("of", "packets"))
      .add(static_cast<double>(all.lag_of_disk_ms) / kMsOfSecond, with("of", "disk"));
  families.push_back(lag.take());
  return families;
}

}  // namespace zelta::record
