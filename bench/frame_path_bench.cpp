// SPDX-License-Identifier: Apache-2.0
// Measures the way of a frame from the recorder's frame code to the application's callback, and
// beside it, in the same run, the bare ways to hand bytes to another process. Prints one JSON
// document; scripts/bench.sh makes the table and the plot of it.
#include <cstdio>
#include <exception>
#include <string>

#include <json/json.h>
#include <CLI/CLI.hpp>

#include "base/log.h"
#include "baselines.h"
#include "engine_run.h"

namespace {

using namespace zelta::bench;

struct kind_row {
  const char* name;
  load what;
  // About a third of a second each.
  size_t bytes;
};

load picture(int width, int height) {
  return {frame_kind::kYuv, width, height, 0, 1, true, 0};
}
load bytes_of(frame_kind kind, int bytes) {
  return {kind, bytes, 0, 0, 1, true, 0};
}

const kind_row kKinds[] = {
    {"yuv 1920x1080", picture(1920, 1080), 3'000'000'000},
    {"yuv 1280x720", picture(1280, 720), 3'000'000'000},
    {"yuv 640x360", picture(640, 360), 3'000'000'000},
    {"jpg 100 kB", bytes_of(frame_kind::kJpg, 100'000), 2'000'000'000},
    {"h264 20 kB", bytes_of(frame_kind::kH264, 20'000), 2'000'000'000},
    {"h264 5 kB", bytes_of(frame_kind::kH264, 5'000), 600'000'000},
    {"pcm 1920 B", bytes_of(frame_kind::kPcm, 1'920), 600'000'000},
};

wire plain_wire(const char* name, bool socket, bool splice) {
  wire made;
  made.name = name;
  made.socket = socket;
  made.splice = splice;
  return made;
}

Json::Value to_json(const transfer& measured) {
  Json::Value out;
  out["gb_per_s"] = measured.gb_per_s();
  out["reader_cpu"] = measured.reader_cpu_s_per_gb();
  out["writer_cpu"] = measured.writer_cpu_s_per_gb();
  return out;
}

Json::Value measured(const engine_transfer& run) {
  Json::Value out = to_json(run);
  out["allocations"] = run.allocations_a_frame;
  return out;
}

// One round: every way to move frames of every kind, one after the other.
Json::Value throughput_round(const std::string& only, bool baselines) {
  wire huge = plain_wire("huge", false, true);
  huge.huge_pages = true;
  const wire wires[] = {plain_wire("pipe", false, false), plain_wire("splice", false, true), huge,
                        plain_wire("socket", true, false)};
  Json::Value round(Json::objectValue);
  for (const kind_row& row : kKinds) {
    if (std::string(row.name).find(only) == std::string::npos) continue;
    load what = row.what;
    const size_t bytes = what.frame_bytes();
    what.frames = row.bytes / bytes;
    Json::Value& out = round[row.name];
    out["engine"] = measured(run_engine(what));
    if (!baselines) continue;
    for (const wire& by : wires) out[by.name] = to_json(run_wire(by, bytes, what.frames));
    out["memcpy"] = to_json(run_memcpy(bytes, what.frames));
    const transfer zeromq = run_zeromq(bytes, what.frames);
    if (zeromq.bytes > 0) out["zeromq"] = to_json(zeromq);
    what.splice = false;
    out["engine, plain writes"] = measured(run_engine(what));
    std::fprintf(stderr, ".");
  }
  return round;
}

Json::Value to_json(latencies found) {
  Json::Value out;
  const auto add = [&out](const char* name, std::vector<int64_t>& times) {
    for (const auto& [label, share] : {std::pair{"p50", 0.5}, {"p99", 0.99}, {"p999", 0.999}}) {
      out[name][label] = static_cast<double>(percentile(times, share)) / 1e3;
    }
  };
  add("pictures", found.pictures);
  add("sound", found.sound);
  return out;
}

Json::Value latency_round(int seconds) {
  load what = picture(1920, 1080);
  what.users = 4;
  what.paced_s = seconds;
  paced_load pace;
  pace.duration_ns = int64_t{seconds} * 1'000'000'000;
  Json::Value out;
  out["engine"] = to_json(run_paced_engine(what));
  out["pipe"] = to_json(run_paced_pipe(pace));
  std::fprintf(stderr, ".");
  return out;
}

// What a frame costs the application with one user and with many.
Json::Value users_round() {
  Json::Value out;
  for (const int users : {1, 10, 100, 1000}) {
    load what = bytes_of(frame_kind::kPcm, 1'920);
    what.frames = 600'000;
    what.users = users;
    const engine_transfer run = run_engine(what);
    Json::Value& row = out[std::to_string(users)];
    row["ns_a_frame"] = static_cast<double>(run.wall_ns) / static_cast<double>(what.frames);
    row["reader_cpu_ns_a_frame"] =
        static_cast<double>(run.reader_cpu_ns) / static_cast<double>(what.frames);
  }
  std::fprintf(stderr, ".");
  return out;
}

// What else the kernel offers for the same contract.
Json::Value variants_round() {
  std::vector<wire> wires;
  const auto add = [&wires](const char* name, bool socket, bool splice) -> wire& {
    wires.push_back(plain_wire(name, socket, splice));
    return wires.back();
  };
  add("splice", false, true);
  add("splice, pipe of 64 KiB", false, true).capacity_bytes = 64 << 10;
  add("splice, pipe of 256 KiB", false, true).capacity_bytes = 256 << 10;
  add("splice, gift", false, true).splice_flags = 8;
  add("splice, huge pages", false, true).huge_pages = true;
  add("splice, reader spins", false, true).spin = true;
  add("splice, 16 a call", false, true).frames_a_call = 16;
  add("pipe", false, false);
  add("pipe, 16 a call", false, false).frames_a_call = 16;
  add("socket", true, false);
  add("socket, 212 kB", true, false).capacity_bytes = 212 << 10;
  add("socket, 16 a call", true, false).frames_a_call = 16;
  Json::Value out(Json::objectValue);
  for (const kind_row& row : kKinds) {
    const size_t bytes = row.what.frame_bytes();
    for (const wire& by : wires) {
      out[row.name][by.name] = to_json(run_wire(by, bytes, row.bytes / bytes / 2 + 2));
    }
    std::fprintf(stderr, ".");
  }
  return out;
}

Json::Value to_json(const idle_cost& cost, int engines) {
  Json::Value out;
  out["engines"] = engines;
  out["cpu_ms_per_s"] = cost.cpu_ms_per_s;
  out["memory_kb"] = cost.memory_kb;
  out["descriptors"] = cost.descriptors;
  out["threads"] = cost.threads;
  return out;
}

int run(int rounds, int latency_s, int idle_engines, bool variants, const std::string& only,
        bool baselines) {
  Json::Value all;
  for (int i = 0; i < rounds; ++i) {
    all["throughput"].append(throughput_round(only, baselines));
    if (only.empty()) all["users"].append(users_round());
    if (latency_s > 0) all["latency"].append(latency_round(latency_s));
  }
  if (idle_engines > 0) all["idle"] = to_json(run_idle(idle_engines, 10), idle_engines);
  if (variants) all["variants"] = variants_round();
  std::fprintf(stderr, "\n");
  Json::StreamWriterBuilder writer;
  writer["precision"] = 5;
  std::printf("%s\n", Json::writeString(writer, all).c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Measures the frame path beside bare ways to hand bytes to another process");
  int rounds = 5;
  int latency_s = 10;
  int idle_engines = 100;
  bool variants = false;
  std::string only;
  bool engine_only = false;
  app.add_option("--rounds", rounds, "Of which the medians count")->check(CLI::Range(1, 100));
  app.add_option("--latency-seconds", latency_s, "Of paced load a round; 0: none")
      ->check(CLI::Range(0, 3600));
  app.add_option("--idle-engines", idle_engines, "Joined at a time; 0: none")
      ->check(CLI::Range(0, 1000));
  app.add_flag("--variants", variants, "Other pipe sizes, flags and batches as well");
  app.add_option("--only", only, "Frames whose kind has this text in its name");
  app.add_flag("--engine-only", engine_only, "No baselines: for a profiler");
  CLI11_PARSE(app, argc, argv);
  // The engines' lines are not what is wanted on standard error.
  zelta::base::log_config::set_log_level(zelta::base::ERROR_LOG);
  try {
    return run(rounds, latency_s, idle_engines, variants, only, !engine_only);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "frame_path_bench: %s\n", error.what());
    return 1;
  }
}
