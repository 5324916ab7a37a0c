// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <CLI/CLI.hpp>

#include "exit_status.h"
#include "fleet/names.h"
#include "zelta_revision.h"

namespace zelta::fleet {
namespace {

constexpr int kHighestPort = 65'535;

constexpr const char* kAbout =
    "Sends recordings to a fleet of zelta-workers, and shows what becomes of them.\n"
    "Exit status: 0 done, 1 failed, 2 bad usage.";

void add_common(CLI::App& app, options& o) {
  app.add_option("--nats", o.nats.urls,
                 "servers of the fleet: nats://HOST:PORT,…; also by ZELTA_NATS")
      ->delimiter(',')
      ->envname("ZELTA_NATS");
  app.add_option("--credentials-file", o.nats.credentials_file, "the user's at these servers");
  app.add_option("--ca-file", o.nats.ca_file, "PEM file: who signed the servers' certificates");
  auto* const certificate = app.add_option("--certificate-file", o.nats.certificate_file,
                                           "PEM file: your own, where servers ask for one");
  auto* const key = app.add_option("--key-file", o.nats.key_file, "PEM file: its private key");
  certificate->needs(key);
  key->needs(certificate);
  app.add_option("--replicas", o.nats.replicas, "of queue and store, when they are made")
      ->check(CLI::IsMember({1, 3, 5}));
  app.add_flag("--json", o.json, "JSON objects, one a line");
}

CLI::App& add_action(CLI::App& app, options& o, const char* name, const char* help, action what) {
  CLI::App& made = *app.add_subcommand(name, help);
  made.callback([&o, what] { o.what = what; });
  return made;
}

void add_record(CLI::App& app, options& o) {
  CLI::App& made = add_action(app, o, "record", "put a recording into the queue; prints its id",
                              action::kRecord);
  made.add_option("channel", o.asked.channel, "name of the channel");
  made.add_option("--id", o.asked.id, "of the recording, and its folder; default: made up");
  made.add_option("--server", o.asked.server, "channel server; default: the worker's own");
  made.add_option("--label", o.asked.label, "which workers are to take it");
  made.add_option("--key", o.asked.key, "the worker's name for the channel's key");
  made.add_option("--secret", o.asked.secret, "the worker's name for the channel's secret");
  made.add_option("--settings", o.asked.settings, "the worker's name for recorder settings");
  made.add_option("--root", o.asked.root, "the worker's name for where recordings go");
  made.add_option("--duration", o.asked.duration_s, "seconds after the first join");
  made.add_option("--users", o.asked.expected_users, "how many are expected");
  made.add_option("--set", o.sets, "NAME=VALUE, an option of zelta-record");
  made.add_option("--job", o.job_path, "JSON file with all of the job, instead");
}

// Commands to whoever records it, by the names that people know them by.
void add_orders(CLI::App& app, options& o) {
  const struct {
    const char* name;
    const char* command;
    const char* help;
  } orders[] = {{"stop", "leave", "end a recording"},
                {"pause", "stop", "stop a manual recording, which may be resumed"},
                {"resume", "start", "start a manual recording"},
                {"layout", "layout", "arrange the mixed picture"},
                {"background", "background", "give a user without a picture an image, or none"}};
  for (const auto& order : orders) {
    const std::string name = order.name;
    CLI::App& made = *app.add_subcommand(name, order.help);
    made.add_option("id", o.id, "of the recording")->required();
    if (name == "layout") {
      made.add_option("file", o.layout_path, "JSON file, as of zelta-record --layout")->required();
    }
    if (name == "background") {
      made.add_option("uid", o.uid, "the user")->required();
      made.add_option("image", o.image, "the worker's name for the image; default: none");
    }
    made.callback([&o, command = order.command] {
      o.what = action::kCommand;
      o.command = command;
    });
  }
}

}  // namespace

tools::parse_result parse_options(int argc, const char* const* argv, options& to) {
  options& o = to;
  o.asked.label = kAnyLabel;
  o.nats.name = "zelta-fleet";
  CLI::App app(kAbout, "zelta-fleet");
  app.set_version_flag("--version", "zelta-fleet " ZELTA_REVISION);
  app.require_subcommand(1);
  app.fallthrough();
  add_common(app, o);
  CLI::App& up = add_action(app, o, "up",
                            "a fleet on this machine, until Ctrl-C: a NATS server and "
                            "a worker, for a first try",
                            action::kUp);
  up.add_option("--folder", o.folder, "where it keeps everything")->capture_default_str();
  up.add_option("--port", o.port, "of the NATS server, on 127.0.0.1")
      ->capture_default_str()
      ->check(CLI::Range(1, kHighestPort));
  add_record(app, o);
  add_action(app, o, "list", "what waits and what is recorded", action::kList)
      .add_flag("--all", o.all, "also what is over");
  add_action(app, o, "show", "one recording, with its stretches", action::kShow)
      .add_option("id", o.id)
      ->required();
  add_action(app, o, "watch", "what changes, as it comes, until Ctrl-C", action::kWatch);
  add_action(app, o, "workers", "who works, and has room", action::kWorkers);
  add_action(app, o, "queue", "by label: what waits, since when, and what is taken",
             action::kQueue);
  add_action(app, o, "metrics", "the fleet's numbers for Prometheus, at /metrics, until Ctrl-C",
             action::kMetrics)
      .add_option("address", o.address, "HOST:PORT, or a port of 127.0.0.1")
      ->required();
  CLI::App& drain =
      add_action(app, o, "drain", "a worker takes no more jobs, and ends", action::kDrain);
  drain.add_option("worker", o.id, "its name")->required();
  drain.add_flag("--handover", o.handover, "at once: others go on with what it records");
  CLI::App& delivered = add_action(app, o, "delivered",
                                   "note that a recording's folder is at its targets: for the "
                                   "session hook of zelta-deliver",
                                   action::kDelivered);
  delivered.add_option("folder", o.folder, "default: what ZELTA_FOLDER says")
      ->envname("ZELTA_FOLDER")
      ->required();
  delivered.add_option("--worker", o.id, "whose folder it is, where several are called alike");
  add_orders(app, o);
  return tools::parse_command_line(app, argc, argv, kBadUsage, [&o]() -> std::string {
    if (o.what == action::kRecord && o.asked.channel.empty() && o.job_path.empty()) {
      return "record: name the channel, or a file with --job";
    }
    const bool is_name_asked = o.what == action::kShow || o.what == action::kCommand;
    if ((is_name_asked || o.what == action::kDrain) && !is_name(o.id)) {
      return "\"" + o.id.substr(0, 100) +
             "\" should be a name: letters, digits, \"-\" and \"_\", 64 at most";
    }
    return "";
  });
}

}  // namespace zelta::fleet
