// SPDX-License-Identifier: Apache-2.0
// fleet_simulation: a day of a fleet of the size that figures.json says. docs/scale.md.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <json/json.h>
#include <CLI/CLI.hpp>

#include "bench/fleet/figures.h"
#include "bench/fleet/report.h"
#include "bench/fleet/walls.h"

namespace zelta::fleet_model {
namespace {

enum exit_status : int {
  kDone = 0,
  kLost = 1,  // a job was lost or ended twice: a fault of the simulation or of the rules
  kBadUsage = 2,
};

struct options {
  std::string path = FIGURES_FILE;
  std::string of = "day";
  uint64_t seed = 1;
  std::vector<double> scales{1};
  std::vector<std::string> changes;
  std::vector<std::string> variants;
  bool json = false;
};

bool refuse(const std::string& why) {
  std::fprintf(stderr, "fleet_simulation: %s\n", why.c_str());
  return false;
}

struct plan {
  std::string name;
  figures by;
  double scale;
};

// "what it is called: name=value name=value".
bool add_variant(const std::string& text, const figures& base, std::vector<plan>& to) {
  const size_t sign = text.find(": ");
  if (sign == std::string::npos)
    return refuse("\"" + text + "\" should be \"NAME: FIGURE=VALUE ...\"");
  plan made{text.substr(0, sign), base, 1};
  size_t at = sign + 2;
  while (at < text.size()) {
    const size_t end = std::min(text.find(' ', at), text.size());
    const std::string wrong = set_figure(made.by, text.substr(at, end - at));
    if (!wrong.empty()) return refuse(wrong);
    at = end + 1;
  }
  to.push_back(made);
  return true;
}

bool make_plans(const options& o, std::vector<plan>& to) {
  std::vector<std::string> errors;
  figures base = load_figures(o.path, errors);
  for (const std::string& change : o.changes) {
    const std::string wrong = set_figure(base, change);
    if (!wrong.empty()) errors.push_back(wrong);
  }
  for (const std::string& error : errors) refuse(error);
  if (!errors.empty()) return false;
  for (const double scale : o.scales) {
    char name[32];
    std::snprintf(name, sizeof name, "%g times", scale);
    to.push_back({name, base, scale});
  }
  for (const std::string& text : o.variants) {
    if (!add_variant(text, base, to)) return false;
  }
  for (const plan& one : to) {
    const std::string wrong = contradiction(one.by);
    if (!wrong.empty()) return refuse(one.name + ": " + wrong);
  }
  return true;
}

int print(const std::vector<result>& runs, bool json) {
  if (json) {
    Json::Value all(Json::arrayValue);
    for (const result& one : runs) all.append(json_of(one));
    std::printf("%s\n", all.toStyledString().c_str());
  } else if (runs.size() == 1) {
    std::fputs(tables_of(runs.front()).c_str(), stdout);
  } else {
    std::printf("%s\nSeconds: half of them, 99 of 100, the longest.\n\n%s",
                walls_table(runs).c_str(), times_table(runs).c_str());
  }
  for (const result& one : runs) {
    if (one.day.lost > 0 || one.day.ended_twice > 0) return kLost;
  }
  return kDone;
}

int work(int argc, char** argv) {
  options o;
  CLI::App app("Simulates a day of a fleet. Exit status: 0 done, 1 a job was lost, 2 bad usage.",
               "fleet_simulation");
  app.add_option("--figures", o.path, "JSON file of what it reckons with")->capture_default_str();
  app.add_option("--reading", o.of, "what \"recordings\" counts: of a day, or at its peak")
      ->check(CLI::IsMember({"day", "peak"}))
      ->capture_default_str();
  app.add_option("--seed", o.seed, "the same one makes the same day")->capture_default_str();
  app.add_option("--scale", o.scales,
                 "so many times the workers and recordings; several: a row each")
      ->delimiter(',')
      ->check(CLI::Range(0.0001, 100.0));
  app.add_option("--set", o.changes, "FIGURE=VALUE instead of the file's; may be repeated");
  app.add_option("--variant", o.variants,
                 "\"NAME: FIGURE=VALUE ...\": one more run, with that too");
  app.add_flag("--json", o.json, "JSON instead of tables");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kDone : kBadUsage;
  }
  std::vector<plan> plans;
  if (!make_plans(o, plans)) return kBadUsage;
  const reading of = o.of == "peak" ? reading::kAtThePeak : reading::kADay;
  std::vector<result> runs;
  for (const plan& one : plans) runs.push_back(simulate(one.name, one.by, of, o.seed, one.scale));
  return print(runs, o.json);
}

}  // namespace
}  // namespace zelta::fleet_model

int main(int argc, char** argv) {
  try {
    return zelta::fleet_model::work(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "fleet_simulation: %s\n", e.what());
    return zelta::fleet_model::kBadUsage;
  }
}
