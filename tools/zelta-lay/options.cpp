// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <CLI/CLI.hpp>

#include "exit_status.h"
#include "film_file.h"
#include "zelta_revision.h"

namespace zelta::lay {
namespace {

constexpr int kLowestSize = 64;
constexpr int kHighestSize = 7680;

// An error or nothing.
std::string take_size(const std::string& text, options& o) {
  const size_t x = text.find('x');
  int width = 0;
  int height = 0;
  const bool numbers = x != std::string::npos &&
                       CLI::detail::lexical_cast(text.substr(0, x), width) &&
                       CLI::detail::lexical_cast(text.substr(x + 1), height);
  for (const int side : {width, height}) {
    if (numbers && side >= kLowestSize && side <= kHighestSize && side % 2 == 0) continue;
    return text + " should be two even numbers from 64 to 7680, such as 1280x720";
  }
  o.width = width;
  o.height = height;
  return "";
}

void add_options(CLI::App& app, options& o) {
  app.set_version_flag("--version", "zelta-lay " ZELTA_REVISION);
  app.add_option("folder", o.folder, "recording folder")->required();
  app.add_option("-o,--output", o.output, "the film: .mp4, .mov, .mkv; .m4a with --audio-only");
  app.add_option("--layout", o.layout,
                 "grid, speaker, side-by-side, or a file as zelta-record's --layout takes")
      ->capture_default_str();
  app.add_flag("--names", o.names, "burn in names");
  app.add_flag("--clock", o.clock, "burn in the time of day, UTC");
  app.add_option_function<std::string>(
         "--size",
         [&o](const std::string& text) {
           const std::string fault = take_size(text, o);
           if (!fault.empty()) throw CLI::ValidationError("--size", fault);
         },
         "pixels of the film")
      ->default_str("1280x720");
  app.add_option("--fps", o.fps, "pictures a second")
      ->check(CLI::Range(1, 120))
      ->capture_default_str();
  app.add_option("--from", o.from,
                 "where to begin: seconds or [h:]m:s from the recording's beginning, or UTC as "
                 "2026-01-31T12:00:00Z");
  app.add_option("--to", o.to, "where to end, as --from");
  app.add_flag("--audio-only", o.audio_only, "sound alone");
  app.add_option("--track", o.track, "this user's stretches alone, as they came where that can be");
  app.add_option("--channel", o.channel, "of a folder with several channels");
  app.add_option("--edl", o.edl, "write the cuts as a CMX 3600 list");
  app.add_option("--otio", o.otio, "write all files on a timeline as OpenTimelineIO");
  app.add_flag("--force", o.force, "overwrite what is there");
  app.add_flag("--json", o.json, "events on standard output, one JSON object a line");
}

// An error or nothing. An option that would do nothing is one that its user misunderstands.
std::string contradiction(const CLI::App& app, const options& o) {
  const auto asked = [&app](const char* name) { return app.count(name) > 0; };
  const bool film = !o.output.empty();
  const bool pictures = film && !o.audio_only;
  const bool lists = !o.edl.empty() || !o.otio.empty();
  if (!film && !lists) return "say what to make: -o FILE, --edl FILE or --otio FILE";
  std::string fault = film ? film_name_fault(o.output, o.audio_only) : "";
  if (!fault.empty()) return fault;
  const struct {
    bool is_so;
    const char* words;
  } rows[] = {
      {!film && o.audio_only, "--audio-only is for a film: add -o FILE"},
      {!film && (o.names || o.clock), "--names and --clock are burned into a film: add -o FILE"},
      {o.audio_only && (o.names || o.clock),
       "--names and --clock need pictures, which --audio-only leaves out"},
      {o.track && asked("--layout"), "--layout is for all users, --track for one"},
      {o.track && asked("--size"), "--size is for a film of all users; --track keeps the recorded"},
      {!pictures && asked("--size"), "--size is for a film with pictures"},
      {!pictures && !lists && asked("--fps"), "--fps is for pictures and lists for editors"},
      {!pictures && o.edl.empty() && asked("--layout"),
       "--layout is for a film with pictures, or for --edl"},
      {!o.edl.empty() && !o.track && o.layout != "speaker",
       "an edit list has one picture at a time: add --layout speaker, or --track UID"},
  };
  for (const auto& row : rows) {
    if (row.is_so) return row.words;
  }
  return "";
}

}  // namespace

parse_result parse_options(int argc, const char* const* argv, options& o) {
  CLI::App app("Lays the files of a recording folder on one timeline, as one film.\n" +
                   std::string(kStatusHelp),
               "zelta-lay");
  add_options(app, o);
  return tools::parse_command_line(app, argc, argv, kUsage, [&app, &o] {
    o.fps_asked = app.count("--fps") > 0;
    return contradiction(app, o);
  });
}

}  // namespace zelta::lay
