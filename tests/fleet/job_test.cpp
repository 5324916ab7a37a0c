// SPDX-License-Identifier: Apache-2.0
// A job's JSON, which anybody may have written into the queue.
#include "fleet/job.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fleet/names.h"

namespace zelta::test {
namespace {

using fleet::job;
using fleet::job_of;

std::string fault_of(const std::string& text) {
  std::string error;
  const auto made = job_of(text, error);
  return made ? "taken" : error;
}

// A job that is right but for what a row adds.
std::string with(const std::string& more) {
  return R"({"id": "a", "channel": "c", )" + more + "}";
}

TEST(Job, RefusesWhatAStrangerTriesAndNamesIt) {
  const std::string text_rule = "should be a text of a line, of 1024 bytes at most";
  const std::string name_rule = R"(should be a name: letters, digits, "-" and "_", 64 at most)";
  const std::pair<std::string, std::string> rows[] = {
      // No JSON, not an object, or more than one.
      {"", ""},
      {"[1]", "a job should be a JSON object"},
      {"7", "object"},
      {with(R"("id": "b")"), "Duplicate key: 'id'"},
      {with(R"("key": "k")") + "{}", "Extra non-whitespace"},
      {std::string("\xff\xfe\x00{", 4), ""},
      // What a job needs.
      {R"({"channel": "c"})", "id: null should be"},
      {R"({"id": "a"})", "channel: null should be the name of a channel"},
      {R"({"id": "a", "channel": ""})", "channel: \"\" should be the name of a channel"},
      // Keys that aren't there, those of paths, programs and secrets among them.
      {with(R"("nonsense": 1)"), "\"nonsense\" isn't known; there are id, channel, server, label"},
      {with(R"("recorder": "/bin/sh")"), "\"recorder\" isn't known"},
      {with(R"("folder": "/etc")"), "\"folder\" isn't known"},
      {with(R"("credentials": {"k": "/etc/shadow"})"), "\"credentials\" isn't known"},
      {with(R"("environment": {"LD_PRELOAD": "/x"})"), "\"environment\" isn't known"},
      // Names become subjects, keys and folders.
      {R"({"id": "../../etc", "channel": "c"})", "id: \"../../etc\" " + name_rule},
      {R"({"id": "a b", "channel": "c"})", name_rule},
      {R"({"id": "a.b", "channel": "c"})", name_rule},
      {R"({"id": "*", "channel": "c"})", name_rule},
      {R"({"id": "", "channel": "c"})", name_rule},
      {R"({"id": 7, "channel": "c"})", "id: 7 " + text_rule},
      {R"({"id": "a\u0000b", "channel": "c"})", text_rule},
      {with(R"("label": "gpu.>")"), "label: \"gpu.>\" " + name_rule},
      {with(R"("key": "/etc/shadow")"), "key: \"/etc/shadow\" " + name_rule},
      {with(R"("secret": "../secret")"), "secret: \"../secret\" " + name_rule},
      {with(R"("settings": "/tmp/mine.json")"), "settings: \"/tmp/mine.json\" " + name_rule},
      {with(R"("root": "/")"), "root: \"/\" " + name_rule},
      {with(R"("label": ")" + std::string(65, 'x') + "\""), name_rule},
      // Texts.
      {R"({"id": "a", "channel": "two\nlines"})", "channel: \"two\\nlines\" " + text_rule},
      {R"({"id": "a", "channel": "\u001b[2J"})", text_rule},
      {R"({"id": "a", "channel": "\u007f"})", text_rule},
      {R"({"id": "a", "channel": ["c"]})", "channel: [\"c\"] " + text_rule},
      {R"({"id": "a", "channel": ")" + std::string(1025, 'x') + "\"}", text_rule},
      {with(R"("server": {"url": "x"})"), "server: "},
      // Options: those on the list, with values of their kind.
      {with(R"("options": [])"), "options: [] should be an object"},
      {with(R"("options": {"record-file-root-dir": "/etc"})"),
       "\"record-file-root-dir\" is none that a job may set; these are is-audio-only, "},
      {with(R"("options": {"cfg-file-path": "/etc/passwd"})"), "is none that a job may set"},
      {with(R"("options": {"settings": "/etc/passwd"})"), "is none that a job may set"},
      {with(R"("options": {"frames": "/etc"})"), "is none that a job may set"},
      {with(R"("options": {"channel-key": "k"})"), "is none that a job may set"},
      {with(R"("options": {"secret-file": "/etc/shadow"})"), "is none that a job may set"},
      {with(R"("options": {"applite-dir": "/tmp"})"), "is none that a job may set"},
      {with(R"("options": {"lease": 1})"), "is none that a job may set"},
      {with(R"("options": {"commands": true})"), "is none that a job may set"},
      {with(R"("options": {"": true})"), "\"\" is none that a job may set"},
      {with(R"("options": {"chunk=1 --frames": 1})"), "is none that a job may set"},
      {with(R"("options": {"is-mixing-enabled": "true"})"),
       "options.is-mixing-enabled: \"true\" should be true or false"},
      {with(R"("options": {"chunk": -1})"),
       "options.chunk: -1 should be a number, 0 to 4294967295"},
      {with(R"("options": {"chunk": 1.5})"), "options.chunk: 1.5 should be a number"},
      {with(R"("options": {"chunk": "10"})"), "options.chunk: \"10\" should be a number"},
      {with(R"("options": {"chunk": 4294967296})"), "should be a number, 0 to 4294967295"},
      {with(R"("options": {"mix-resolution": "--frames=/etc"})"),
       "options.mix-resolution: \"--frames=/etc\" should be a text"},
      {with(R"("options": {"mix-resolution": "-"})"), "should be a text"},
      {with(R"("options": {"mix-resolution": ""})"), "should be a text"},
      {with(R"("options": {"mix-resolution": null})"), "should be a text"},
      {with(R"("options": {"mix-resolution": "a\nleave"})"), text_rule},
      // Numbers and objects.
      {with(R"("duration_s": -1)"), "duration_s: -1 should be seconds, a year at most"},
      {with(R"("duration_s": 1e300)"), "duration_s: 1.0000000000000001e+300 should be seconds"},
      {with(R"("duration_s": "5")"), "duration_s: \"5\" should be seconds"},
      {with(R"("duration_s": NaN)"), ""},
      {with(R"("expect": 7)"), "expect: 7 should be {\"users\": NUMBER}, 0 to 100000"},
      {with(R"("expect": {"users": 100001})"), "should be {\"users\": NUMBER}"},
      {with(R"("expect": {"users": -1})"), "should be {\"users\": NUMBER}"},
      {with(R"("expect": {"users": 1, "cpu": 2})"), "should be {\"users\": NUMBER}"},
      {with(R"("layout": "/etc/passwd")"),
       "layout: \"/etc/passwd\" should be an object, as in a layout file"},
      // Nested so deeply that a parser would run out of its stack, and longer than any job.
      {with(R"("layout": {"a": )" + std::string(100'000, '[')), "stack"},
      {with("\"layout\": {\"a\": \"" + std::string(size_t{1} << 18, 'x') + "\"}"),
       "bytes; 262144 are the most"},
  };
  for (const auto& [text, says] : rows) {
    const std::string fault = fault_of(text);
    EXPECT_NE(fault, "taken") << text.substr(0, 200);
    EXPECT_NE(fault, "") << text.substr(0, 200);
    EXPECT_NE(fault.find(says), std::string::npos) << text.substr(0, 200) << ": " << fault;
    // It is shown where people and programs read lines.
    EXPECT_LT(fault.size(), 600U) << fault;
  }
}

TEST(Job, ShowsNoControlCharacterOfAStrangersKey) {
  for (const char* const text :
       {R"({"id": "a", "channel": "c", "\u001b[2J\nfake": 1})",
        R"({"id": "a", "channel": "c", "options": {"\u001b[2J\nfake": 1}})"}) {
    for (const char c : fault_of(text)) EXPECT_GE(static_cast<unsigned char>(c), ' ') << text;
  }
}

TEST(Job, TakesWhatIsRightToTheLastByte) {
  const std::string all[] = {
      with(R"("duration_s": 31622400)"),
      with(R"("duration_s": null)"),
      with(R"("expect": {"users": 100000})"),
      with(R"("label": null)"),
      R"({"id": ")" + std::string(64, 'x') + R"(", "channel": ")" + std::string(1024, 'c') + "\"}",
      // It stands behind "--" as an argument.
      R"({"id": "-a", "channel": "--frames=/etc"})",
      R"({"id": "a", "channel": "grüße 🎥"})",
      with(R"("options": {"uid": 4294967295})"),
  };
  for (const std::string& text : all) EXPECT_EQ(fault_of(text), "taken") << text.substr(0, 200);
}

TEST(Job, ComesBackWholeFromItsText) {
  job all;
  all.id = "call-7_x";
  all.channel = "grüße \"quoted\" \\ 🎥";
  all.server = "whip:0.0.0.0:8080";
  all.label = "gpu";
  all.key = "room-key";
  all.secret = "room-secret";
  all.settings = "big";
  all.root = "nas";
  all.duration_s = 90.5;
  all.expected_users = 12;
  all.options = {{"audio-profile", "high"},     {"channel-profile", "live"},
                 {"chunk", "4294967295"},       {"is-audio-only", "false"},
                 {"is-mixing-enabled", "true"}, {"mix-resolution", "640x360"}};
  all.layout["regions"] = Json::arrayValue;
  all.layout["backgroundColor"] = "#204060";
  std::string error;
  const auto back = job_of(text_of(all), error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->id, all.id);
  EXPECT_EQ(back->channel, all.channel);
  EXPECT_EQ(back->server, all.server);
  EXPECT_EQ(back->label, all.label);
  EXPECT_EQ(back->key, all.key);
  EXPECT_EQ(back->secret, all.secret);
  EXPECT_EQ(back->settings, all.settings);
  EXPECT_EQ(back->root, all.root);
  EXPECT_EQ(back->duration_s, all.duration_s);
  EXPECT_EQ(back->expected_users, all.expected_users);
  EXPECT_EQ(back->options, all.options);
  EXPECT_EQ(back->layout, all.layout);
  EXPECT_EQ(text_of(*back), text_of(all));

  const auto least = job_of(R"({"id": "a", "channel": "c"})", error);
  ASSERT_TRUE(least) << error;
  EXPECT_EQ(least->label, fleet::kAnyLabel);
  EXPECT_EQ(text_of(*least), R"({"channel":"c","id":"a"})");
}

TEST(Names, AreLettersDigitsHyphensAndUnderscores) {
  for (const char* const name : {"a", "Z9", "-", "_", "call-7_x"}) {
    EXPECT_TRUE(fleet::is_name(name)) << name;
  }
  EXPECT_TRUE(fleet::is_name(std::string(64, 'x')));
  EXPECT_FALSE(fleet::is_name(std::string(65, 'x')));
  for (const std::string& name : {std::string(), std::string("a.b"), std::string("a b"),
                                  std::string("a/b"), std::string(".."), std::string("a>"),
                                  std::string("*"), std::string("ä"), std::string("a\0b", 3)}) {
    EXPECT_FALSE(fleet::is_name(name)) << name;
  }
}

}  // namespace
}  // namespace zelta::test
