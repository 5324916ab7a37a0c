// SPDX-License-Identifier: Apache-2.0
// The settings of a machine's recorders: what is told of a file that can't be used, and whether the
// schema that is given to people describes what is taken.
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include "core_service/task/settings.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using namespace core_service;
using namespace std::string_literals;
using lines = std::vector<std::string>;

void expect_errors(const std::string& text, lines errors) {
  for (std::string& error : errors) error.insert(0, "a/s.json: ");
  EXPECT_EQ(parse_settings("a/s.json", text).errors, errors) << text.substr(0, 99);
}

TEST(Settings, AreTakenAsTheyAreWritten) {
  // With most_users, ports.from, ports.to.
  const std::pair<const char*, std::vector<int>> rows[] = {
      {"{}", {0, 0, 0}},
      {R"({"ports": {}})", {0, 0, 0}},
      {R"({"most_users": 1})", {1, 0, 0}},
      {" {\"most_users\":\n1e5 , \"ports\": {\"from\": 1024, \"to\": 65535}}\n",
       {100000, 1024, 65535}},
      {R"({"ports": {"from": 65534}})", {0, 65534, 0}},
      {R"({"ports": {"to": 1025.0}})", {0, 0, 1025}},
      {R"({"ports": {"to": 50003, "from": 50001}})", {0, 50001, 50003}},
  };
  for (const auto& [text, values] : rows) {
    const loaded_settings read = parse_settings("s", text);
    EXPECT_EQ(read.errors, lines()) << text;
    const recorder_settings& is = read.values;
    EXPECT_EQ((std::vector<int>{is.most_users, is.first_port, is.last_port}), values) << text;
  }
}

TEST(Settings, AreRefusedWithEveryErrorInWords) {
  const std::string users = " should be a whole number of 1 to 100000";
  const std::string from = " should be a whole number of 1024 to 65534";
  const std::string unknown =
      ": no such setting; most_users, ports, sound, volumes, whip, janus are";
  const std::pair<std::string, lines> rows[] = {
      {R"({"ports": {"from": 80}})", {"ports.from: 80" + from}},
      {R"({"ports": {"from": 65535}})", {"ports.from: 65535" + from}},
      {R"({"ports": {"to": 1024}})", {"ports.to: 1024 should be a whole number of 1025 to 65535"}},
      {R"({"ports": {"from": 50000, "to": 50000}})",
       {"ports.to: 50000 should be at least 50001, so that there is an even port from ports.from, "
        "50000, on and the one above it"}},
      {R"({"ports": {"from": 50001, "to": 50002}})",
       {"ports.to: 50002 should be at least 50003, so that there is an even port from ports.from, "
        "50001, on and the one above it"}},
      {R"({"ports": [1, {"a": null}]})",
       {"ports: [1,{\"a\":null}] should be an object with from, to"}},
      {R"({"soud": "aac", "azAZ09_": 1})", {"azAZ09_" + unknown, "soud" + unknown}},
      {R"({"ports": {"form": 1}})", {"ports.form: no such setting; from, to are"}},
      {R"({"ports.from": 2000})", {"\"ports.from\"" + unknown}},
      {R"({"": 1, "most_users\u0000": 1})", {"\"\"" + unknown, R"("most_users\u0000")" + unknown}},
      {"{\"\xff\x1b[2J\xc3\xbc\": 1}", {R"("\ufffd\u001b[2J\u00fc")" + unknown}},
      {R"({"x": 1, "most_users": true, "ports": {"to": "9", "from": 1.5}})",
       {"most_users: true" + users, "ports.from: 1.5" + from,
        "ports.to: \"9\" should be a whole number of 1025 to 65535", "x" + unknown}},
      {R"({"most_users": )" + std::string(90, '9') + "}",
       {"most_users: " + std::string(80, '9') + "..." + users}},
  };
  for (const auto& [text, errors] : rows) expect_errors(text, errors);
  const auto refuse = [](const std::string& number, const std::string& why) {
    expect_errors(R"({"most_users": )" + number + "}", {"most_users: " + number + why});
  };
  for (const char* const number : {"0", "100001", "-1", "null", "4294967297", "1e300"}) {
    refuse(number, users);
  }
  for (const char* const none : {"01", "+1", "1.", "-"}) {
    refuse(none, " is no number of JSON; it" + users);
  }
}

TEST(Settings, MayBeTexts) {
  const loaded_settings read =
      parse_settings("s", R"({"whip": {"token": "!a~", "certificate": "a b/\u00fc.pem", "key": "k",
               "address": "192.0.2.7,2001:db8::7"}})");
  EXPECT_EQ(read.errors, lines());
  const recorder_settings& is = read.values;
  EXPECT_EQ((lines{is.whip_token, is.whip_certificate, is.whip_key, is.whip_address}),
            (lines{"!a~", "a b/\xc3\xbc.pem", "k", "192.0.2.7,2001:db8::7"}));
  const auto of_whip = [](const std::string& key, const std::string& value) {
    return R"({"whip": {")" + key + "\": " + value + "}}";
  };
  EXPECT_EQ(parse_settings("s", of_whip("token", "\"" + std::string(1024, 'x') + "\"")).errors,
            lines());
  const std::string token =
      "whip.token: its value should be a text of 1 to 1024 printable ASCII characters without "
      "spaces";
  for (const std::string& wrong :
       {R"("")"s, R"("se cret")"s, R"("secret\n")"s, R"("secret\u00fc")"s, "4711"s, "[\"secret\"]"s,
        "\"" + std::string(1025, 'x') + "\""}) {
    expect_errors(of_whip("token", wrong), {token});
  }
  const std::string path = " should be a text of 1 to 4096 bytes, no control characters";
  expect_errors(R"({"whip": {"certificate": "", "key": "a\tb"}})",
                {"whip.certificate: \"\"" + path, R"(whip.key: "a\tb")" + path});
  expect_errors(
      of_whip("certificate", R"("c.pem")"),
      {R"(whip.key: should be given too, as whip.certificate is, "c.pem", or neither of them)"});
  expect_errors(
      of_whip("key", R"("k.pem")"),
      {R"(whip.certificate: should be given too, as whip.key is, "k.pem", or neither of them)"});
  const std::string address =
      " should be the IP address of a host, such as 192.0.2.7 or 2001:db8::7; several are split by "
      "commas without spaces";
  for (const std::string wrong :
       {"host", "0.0.0.0", "::", "224.0.0.1", "ff02::1", " 192.0.2.7", "192.0.2.7:80", "[::1]"}) {
    expect_errors(of_whip("address", "\"::1," + wrong + ",127.0.0.1\""),
                  {std::string("whip.address: \"").append(wrong).append("\"").append(address)});
  }
  expect_errors(of_whip("address", R"("127.0.0.1,")"), {R"(whip.address: "")" + address});
}

TEST(Settings, AreRefusedWithAnExampleWhereTheyAreNoObject) {
  // Of 16 levels what is in them is looked at, of 17 nothing is.
  const std::string deep = std::string(16, '[') + std::string(16, ']');
  const std::string too_deep = "can't be read: Exceeded stackLimit in readValue().";
  const std::pair<std::string, std::string> rows[] = {
      {R"({"most_users": 1, "most_users": 2})", "Line 1, Column 19: Duplicate key: 'most_users'"},
      {"{\"\x1b \x7f \xff\": 1, \"\x1b \x7f \xff\": 2}",
       "Line 1, Column 14: Duplicate key: '? ? ?'"},
      {R"({"most_users": 1,})", "Line 1, Column 18: Missing '}' or object member name"},
      {"\n{} // 1", "Line 2, Column 4: Extra non-whitespace after JSON value."},
      {"", "Line 1, Column 1: Syntax error: value, object or array expected."},
      {"\xef\xbb\xbf{}", "Line 1, Column 1: Syntax error: value, object or array expected."},
      {"[1]", "[1] is no object"},
      {deep, deep + " is no object"},
      {"[" + deep + "]", too_deep},
      {std::string(100'000, '['), too_deep},
  };
  for (const auto& [text, error] : rows) {
    expect_errors(text, {error + "; it should hold a JSON object such as {\"most_users\": 50}"});
  }
}

TEST(Settings, TellSoManyErrorsThatTheyCanBeRead) {
  std::string text = "{";
  for (int key = 0; key < 1000; ++key) text += "\"k" + std::to_string(key) + "\": 1,";
  text.back() = '}';
  const lines errors = parse_settings("s", text).errors;
  ASSERT_EQ(errors.size(), 21U);
  EXPECT_EQ(errors.back(), "s: and 980 more");
}

TEST(Settings, MayBeWords) {
  const std::vector<setting> known = {
      {{"sort", &recorder_settings::most_users, 0, 0, {"plain", "fancy"}}}};
  EXPECT_EQ(parse_settings("s", R"({"sort": "fancy"})", known).values.most_users, 1);
  for (const char* const wrong : {"\"fanc\"", "1", "\"\"", "[\"fancy\"]"}) {
    EXPECT_EQ(parse_settings("s", std::string("{\"sort\": ") + wrong + "}", known).errors,
              lines{std::string("s: sort: ") + wrong + R"( should be "plain" or "fancy")"});
  }
}

TEST(Settings, ComeFromAPlainFileOfBoundedLength) {
  const TempDir dir;
  const std::string fifo = dir.path() + "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string mebibyte = "{}" + std::string((1 << 20) - 2, ' ');
  const std::pair<std::string, const char*> rows[] = {
      {dir.file("full", mebibyte), ""},
      {dir.file("long", mebibyte + " "), "should have 1 MiB at most"},
      {dir.path() + "none", "can't be read: No such file or directory"},
      {dir.path() + "full/x", "can't be read: Not a directory"},
      {dir.path(), "should be a plain file"},
      {fifo, "should be a plain file"},
      {"/dev/zero", "should be a plain file"},
      {"/proc/self/mem", "can't be read: Input/output error"},
  };
  for (const auto& [path, error] : rows) {
    const lines expected = *error == '\0' ? lines() : lines{path + ": " + error};
    EXPECT_EQ(load_settings(path).errors, expected);
    setenv("ZELTA_RECORDER_SETTINGS", path.c_str(), 1);
    EXPECT_EQ(load_settings_of_environment().errors, expected);
  }
  setenv("ZELTA_RECORDER_SETTINGS", "", 1);
  EXPECT_EQ(load_settings_of_environment().errors, lines());
  unsetenv("ZELTA_RECORDER_SETTINGS");
  EXPECT_EQ(load_settings_of_environment().errors, lines());
}

// ---- The schema ----------------------------------------------------------------------------

// Adds the keys of all settings, in the form of the table's.
void describe(const Json::Value& schema, const std::string& prefix, Json::Value& described) {
  EXPECT_EQ(schema["additionalProperties"], Json::Value(false)) << prefix;
  EXPECT_FALSE(schema.isMember("required")) << prefix;
  for (const std::string& name : schema["properties"].getMemberNames()) {
    const Json::Value& inner = schema["properties"][name];
    EXPECT_FALSE(inner["description"].asString().empty()) << prefix << name;
    if (inner["type"] == "object") {
      describe(inner, prefix + name + ".", described);
    } else {
      described[prefix + name] = inner;
      described[prefix + name].removeMember("description");
    }
  }
}

Json::Value schema_of(const setting& row) {
  Json::Value schema;
  if (std::holds_alternative<std::string recorder_settings::*>(row.value)) {
    schema["type"] = "string";
    schema["minLength"] = row.lowest;
    schema["maxLength"] = row.highest;
    if (row.kind == setting::kSecret) schema["pattern"] = "^[!-~]+$";
    return schema;
  }
  const int by_itself = recorder_settings().*std::get<int recorder_settings::*>(row.value);
  if (row.words[0] == nullptr) {
    schema["type"] = "integer";
    schema["minimum"] = row.lowest;
    schema["maximum"] = row.highest;
    // None is what no file can say.
    if (by_itself >= row.lowest && by_itself <= row.highest) schema["default"] = by_itself;
    return schema;
  }
  for (const char* const word : row.words) {
    if (word != nullptr) schema["enum"].append(word);
  }
  schema["default"] = row.words.at(static_cast<size_t>(by_itself));
  return schema;
}

TEST(SettingsSchema, DescribesWhatIsTaken) {
  const std::string path = SCHEMA_FILE;
  Json::Value schema;
  std::string error;
  std::ifstream file(path);
  ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), file, &schema, &error))
      << path << error;
  EXPECT_EQ(schema["$schema"], "https://json-schema.org/draft/2020-12/schema");
  EXPECT_EQ(schema["type"], "object");
  Json::Value described;
  describe(schema, "", described);
  Json::Value taken;
  for (const setting& row : known_settings()) taken[row.name] = schema_of(row);
  EXPECT_EQ(described, taken);
}

}  // namespace
}  // namespace zelta::test
