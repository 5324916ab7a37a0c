// SPDX-License-Identifier: Apache-2.0
#include "bench/fleet/report.h"

#include <cmath>
#include <cstdio>

namespace zelta::fleet_model {
namespace {

// 1234567 as 1,234,567.
std::string whole(double of) {
  std::string text = std::to_string(std::llround(of));
  for (size_t at = text.size(); at > 3 && text[at - 4] != '-';) {
    at -= 3;
    text.insert(at, ",");
  }
  return text;
}

std::string fixed(double of, int places) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", places, of);
  return text;
}

std::string percent(double share) {
  return share < 0.1 ? fixed(share * 100, 1) + " %" : whole(share * 100) + " %";
}

std::string seconds(sim_time of) {
  const double s = to_seconds(of);
  return fixed(s, s < 10 ? 2 : s < 100 ? 1 : 0) + " s";
}

std::string row(const std::vector<std::string>& cells) {
  std::string made = "|";
  for (const std::string& cell : cells) made += " " + cell + " |";
  return made + "\n";
}

std::string head(const std::vector<std::string>& cells) {
  std::string line = "|";
  for (size_t at = 0; at < cells.size(); ++at) line += "---|";
  return row(cells) + line + "\n";
}

std::string spread_row(const std::string& name, const spread& of) {
  if (of.count() == 0) return row({name, "0", "", "", ""});
  return row({name, whole(static_cast<double>(of.count())), seconds(of.percentile(50)),
              seconds(of.percentile(99)), seconds(of.most())});
}

// How much larger it may become, all else being as it is.
std::string room_left(const wall& of) {
  return of.used > 0 ? fixed(1 / of.share(), of.share() > 0.1 ? 1 : 0) + " times this" : "";
}

std::string short_spread(const spread& of) {
  if (of.count() == 0) return "";
  return fixed(to_seconds(of.percentile(50)), 2) + " / " + fixed(to_seconds(of.percentile(99)), 2) +
         " / " + fixed(to_seconds(of.most()), 2);
}

std::string count(uint64_t of) {
  return whole(static_cast<double>(of));
}

// Only those go on by themselves.
constexpr const char* kTwice = "recorded twice, after a worker process's death";
const spread& twice_of(const result& of) {
  return of.day.twice[static_cast<size_t>(cause::kProcessDied)];
}

std::string fleet_table(const result& of) {
  const outcome& day = of.day;
  std::string made = head({"", ""});
  made += row({"workers", whole(of.by.workers)});
  made += row({"jobs sent", count(day.sent)});
  made += row({"ended", count(day.ended)});
  made += row({"lost", count(day.lost)});
  made += row({"ended twice", count(day.ended_twice)});
  made += row({"at midnight: recorded, on the way",
               count(day.recorded_at_midnight) + ", " + count(day.waiting_at_midnight)});
  made += row({"waiting when nothing happens any more", count(day.waiting_at_the_end)});
  made += row({"most at once", count(day.most_at_once)});
  made += row({"deaths of workers", count(day.deaths)});
  made +=
      row({"the upgrade of all took", day.upgrade_s > 0 ? whole(day.upgrade_s / 60) + " min" : ""});
  made += row({"processors that may be used, and are: mean, peak",
               percent(day.processors_mean) + ", " + percent(day.processors_peak)});
  made += row({"memory, disks: peak", percent(day.memory_peak) + ", " + percent(day.disk_peak)});
  made += row({"workers that ask for no job: peak", percent(day.full_peak)});
  made +=
      row({"least that any worker had free",
           fixed(day.least_free_processors, 2) + " processors, " + whole(day.least_free_memory_mb) +
               " MB of memory, " + whole(day.least_free_disk_mb) + " MB of disk"});
  return made;
}

std::string messages_table(const result& of) {
  std::string made = head({"kind", "of the fleet a second: mean", "peak",
                           "messages of the busiest broker: mean", "in its busiest second"});
  for (size_t at = 0; at < kKinds; ++at) {
    const auto one = static_cast<kind>(at);
    made += row({kKindRows[at].name, whole(of.load.mean(one)), whole(of.load.peak(one)),
                 whole(of.load.busiest(one, of.load.mean(one))),
                 whole(of.load.busiest(one, of.load.of_busiest_second()[at]))});
  }
  made += row({"all", "", "", whole(of.load.busiest_mean()), whole(of.load.busiest_peak())});
  return made;
}

Json::Value json_of(const spread& of) {
  Json::Value made;
  made["count"] = Json::UInt64{of.count()};
  made["p50_s"] = to_seconds(of.percentile(50));
  made["p99_s"] = to_seconds(of.percentile(99));
  made["most_s"] = to_seconds(of.most());
  return made;
}

}  // namespace

std::string tables_of(const result& of) {
  std::string made = fleet_table(of) + "\n";
  made += head({"", "count", "p50", "p99", "longest"});
  made += spread_row("sent until taken", of.day.queue);
  made += spread_row("sent until recorded", of.day.start);
  for (size_t at = 0; at < kCauses; ++at) {
    made += spread_row(std::string("not recorded, after ") + kCauseNames[at], of.day.handover[at]);
  }
  made += spread_row(kTwice, twice_of(of));
  made += "\n" + messages_table(of) + "\n";
  made += head({"what", "at the peak", "capacity", "share", "full at"});
  const std::vector<wall> walls = walls_of(of);
  for (const wall& one : walls) {
    const bool is_share = one.capacity == 1;
    made += row({one.name, is_share ? "" : whole(one.used), is_share ? "" : whole(one.capacity),
                 percent(one.share()), room_left(one)});
  }
  return made + "\nFirst wall: " + first_of(walls).name + ".\n";
}

Json::Value json_of(const result& of) {
  const outcome& day = of.day;
  Json::Value made;
  made["name"] = of.name;
  made["scale"] = of.scale;
  for (const figure_row& one : figure_rows()) made["figures"][one.name] = of.by.*one.value;
  const std::pair<const char*, uint64_t> counts[] = {
      {"sent", day.sent},
      {"ended", day.ended},
      {"lost", day.lost},
      {"ended_twice", day.ended_twice},
      {"recorded_at_midnight", day.recorded_at_midnight},
      {"waiting_at_midnight", day.waiting_at_midnight},
      {"waiting_at_the_end", day.waiting_at_the_end},
      {"most_at_once", day.most_at_once},
      {"deaths", day.deaths},
  };
  for (const auto& [name, value] : counts) made["jobs"][name] = Json::UInt64{value};
  const std::pair<const char*, double> shares[] = {
      {"upgrade_s", day.upgrade_s},
      {"processors_mean", day.processors_mean},
      {"processors_peak", day.processors_peak},
      {"memory_peak", day.memory_peak},
      {"disk_peak", day.disk_peak},
      {"full_peak", day.full_peak},
      {"least_free_processors", day.least_free_processors},
      {"least_free_memory_mb", day.least_free_memory_mb},
      {"least_free_disk_mb", day.least_free_disk_mb},
  };
  for (const auto& [name, value] : shares) made["workers"][name] = value;
  made["times"]["queue"] = json_of(day.queue);
  made["times"]["start"] = json_of(day.start);
  for (size_t at = 0; at < kCauses; ++at) {
    made["times"]["handover"][kCauseNames[at]] = json_of(day.handover[at]);
    made["times"]["twice"][kCauseNames[at]] = json_of(day.twice[at]);
  }
  for (size_t at = 0; at < kKinds; ++at) {
    Json::Value& one = made["messages"][kKindRows[at].name];
    const auto what = static_cast<kind>(at);
    one["mean"] = of.load.mean(what);
    one["peak"] = of.load.peak(what);
    one["busiest_broker_mean"] = of.load.busiest(what, of.load.mean(what));
    one["busiest_broker_in_its_busiest_second"] =
        of.load.busiest(what, of.load.of_busiest_second()[at]);
  }
  const std::vector<wall> walls = walls_of(of);
  for (const wall& one : walls) {
    made["walls"][one.short_name]["used"] = one.used;
    made["walls"][one.short_name]["capacity"] = one.capacity;
  }
  made["first_wall"] = first_of(walls).short_name;
  return made;
}

std::string walls_table(const std::vector<result>& runs) {
  std::vector<std::string> titles{"run"};
  for (const wall& one : walls_of(runs.front())) titles.push_back(one.short_name);
  titles.insert(titles.end(), {"first wall", "full at"});
  std::string made = head(titles);
  for (const result& one : runs) {
    const std::vector<wall> walls = walls_of(one);
    std::vector<std::string> cells{one.name};
    for (const wall& each : walls) cells.push_back(percent(each.share()));
    const wall& first = first_of(walls);
    cells.push_back(first.short_name);
    cells.push_back(fixed(one.scale / first.share(), 2) + " times the figures");
    made += row(cells);
  }
  return made;
}

std::string times_table(const std::vector<result>& runs) {
  std::vector<std::string> titles{"run", "jobs ended", "lost", "sent until taken"};
  for (const char* name : kCauseNames) titles.push_back(std::string("not recorded, after ") + name);
  titles.insert(titles.end(), {kTwice, "handed over by the election",
                               "messages of the busiest broker: mean", "peak"});
  std::string made = head(titles);
  for (const result& one : runs) {
    std::vector<std::string> cells{one.name, count(one.day.ended), count(one.day.lost),
                                   short_spread(one.day.queue)};
    for (const spread& each : one.day.handover) cells.push_back(short_spread(each));
    cells.push_back(short_spread(twice_of(one)));
    cells.push_back(count(one.day.handover[static_cast<size_t>(cause::kElection)].count()));
    cells.push_back(whole(one.load.busiest_mean()));
    cells.push_back(whole(one.load.busiest_peak()));
    made += row(cells);
  }
  return made;
}

}  // namespace zelta::fleet_model
