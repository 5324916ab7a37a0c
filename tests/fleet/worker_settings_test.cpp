// SPDX-License-Identifier: Apache-2.0
// The settings of a worker's machine: each fault is named with its key, its value and what would be
// right, and all of them at once.
#include "fleet/worker_settings.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fleet/names.h"
#include "support/temp_dir.h"

namespace zelta::test {
namespace {

using fleet::worker_settings;

class WorkerSettings : public testing::Test {
 protected:
  worker_settings load(const std::string& text, std::vector<std::string>& errors) const {
    return fleet::load_worker_settings(dir_.file("w.json", text), "/bin/true", errors);
  }
  // Right but for what a row adds.
  std::string with(const std::string& more) const {
    return "{" + root() + (more.empty() ? "" : ", ") + more + "}";
  }
  std::string root() const { return "\"root\": \"" + dir_.path() + "\""; }

  const TempDir dir_;
};

TEST_F(WorkerSettings, NameEachFault) {
  dir_.file("a-file", "");
  const std::string place = R"(should be a folder that can be written to)";
  // The text, and what each of its errors says, in their order.
  const std::pair<std::string, std::vector<std::string>> rows[] = {
      {"", {"w.json: "}},
      {"{", {"w.json: "}},
      {"[1]", {"there is no JSON object to be read"}},
      {std::string(100'000, '['), {"stack"}},
      {"{}", {"root: \"\" " + place}},
      {R"({"root": "/nowhere/at/all"})", {"root: \"/nowhere/at/all\" " + place}},
      {"{\"root\": \"" + dir_.path() + "a-file\"}", {place}},
      {R"({"root": 7})", {"root: 7 should be a text", place}},
      {"{" + root() + ", " + root() + "}", {"Duplicate key"}},
      {with(R"("lables": ["a"], "leaze_ms": 1)"),
       {"\"lables\" isn't known; there are busy_share, credentials,", "\"leaze_ms\" isn't known"}},
      {with(R"("name": "a.b")"), {"name: \"a.b\" should be a name"}},
      {with(R"("name": "")"), {"name: \"\" should be a name"}},
      {with(R"("labels": [])"), {"labels: [] should be a list of texts"}},
      {with(R"("labels": "gpu")"), {"labels: \"gpu\" should be a list of texts"}},
      {with(R"("labels": ["gpu", "a b", "c."])"),
       {"labels: \"a b\" should be a name", "labels: \"c.\" should be a name"}},
      {with(R"("roots": {"nas": "mnt"})"),
       {"roots.nas: \"mnt\" should be an absolute path by a name"}},
      {with(R"("roots": {"n/s": "/mnt"})"), {"roots.n/s: \"/mnt\" should be an absolute path"}},
      {with(R"("roots": {"nas": "/nowhere/at/all"})"), {"nas: \"/nowhere/at/all\" " + place}},
      {with(R"("roots": ["/mnt"])"), {"should be an object of names and absolute paths"}},
      {with(R"("settings": {"big": 7})"), {"settings.big: 7 should be an absolute path"}},
      {with(R"("credentials": {"k": "secret"})"),
       {"credentials.k: \"secret\" should be an absolute"}},
      {with(R"("servers": [7])"), {"servers: [7] should be a list of texts"}},
      {with(R"("recorder": "/nowhere/zelta-record")"),
       {"recorder: \"/nowhere/zelta-record\" should be the program zelta-record"}},
      {with(R"("lease_ms": 999)"), {"lease_ms: 999 should be a number, 1000 to 600000"}},
      {with(R"("lease_ms": 600001)"), {"lease_ms: 600001 should be a number"}},
      {with(R"("lease_ms": "5 s")"), {"lease_ms: \"5 s\" should be a number"}},
      {with(R"("most_tries": 0)"), {"most_tries: 0 should be a number, 1 to 1000"}},
      {with(R"("most_jobs": 0)"), {"most_jobs: 0 should be a number, 1 to 100000"}},
      {with(R"("busy_share": 101)"), {"busy_share: 101 should be a number, 0.05 to 100"}},
      {with(R"("busy_share": 0)"), {"busy_share: 0 should be"}},
      {with(R"("free_memory_share": 1)"), {"free_memory_share: 1 should be a number, 0 to 0.9"}},
      {with(R"("free_disk_mib": -1)"), {"free_disk_mib: -1 should be a number, 0 to"}},
      {with(R"("nats": [])"), {"nats: [] should be an object"}},
      {with(R"("nats": {"url": "nats://h"})"), {"nats: \"url\" isn't known; there are ca_file"}},
      {with(R"("nats": {"urls": "nats://h"})"),
       {"nats: urls: \"nats://h\" should be a list of texts"}},
      {with(R"("nats": {"replicas": 6})"), {"nats: replicas: 6 should be a number, 1 to 5"}},
      {with(R"("nats": {"certificate_file": "/c"})"),
       {"certificate_file and key_file belong together"}},
      {with(R"("nats": {"key_file": "/k"})"), {"certificate_file and key_file belong together"}},
      // All at once.
      {R"({"root": "/nowhere/at/all", "name": "a b", "lease_ms": 1, "extra": 0})",
       {"lease_ms: 1 should", "\"extra\" isn't known", "name: \"a b\" should", "root: "}},
  };
  for (const auto& [text, says] : rows) {
    std::vector<std::string> errors;
    load(text, errors);
    EXPECT_EQ(errors.size(), says.size()) << text.substr(0, 200);
    for (size_t at = 0; at < errors.size(); ++at) {
      EXPECT_EQ(errors[at].rfind(dir_.path() + "w.json: ", 0), 0U) << errors[at];
      const std::string part = at < says.size() ? says[at] : "";
      EXPECT_NE(errors[at].find(part), std::string::npos) << errors[at];
    }
  }
  std::vector<std::string> errors;
  fleet::load_worker_settings(dir_.path() + "none.json", "/bin/true", errors);
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_NE(errors[0].find("none.json"), std::string::npos);
}

TEST_F(WorkerSettings, HaveWhatIsUsualWithoutBeingTold) {
  std::vector<std::string> errors;
  const worker_settings made = load(with(""), errors);
  EXPECT_EQ(errors, std::vector<std::string>());
  EXPECT_TRUE(fleet::is_name(made.name)) << made.name;
  EXPECT_EQ(made.labels, std::vector<std::string>{fleet::kAnyLabel});
  EXPECT_EQ(made.recorder, "/bin/true");
  EXPECT_EQ(made.lease.count(), 5000);
  EXPECT_EQ(made.servers, std::vector<std::string>());
  EXPECT_EQ(made.nats.name, made.name);
}

TEST_F(WorkerSettings, TakeEachKey) {
  std::vector<std::string> errors;
  const worker_settings made = load(
      with(
          R"("name": "w1", "labels": ["any", "gpu"], "roots": {"other": ")" + dir_.path() +
          R"("}, "settings": {"big": "/s.json"}, "credentials": {"k": "/k"}, "images": {"grey": "/grey.png"},
             "servers": ["dir:", "whip:"], "server": "test:", "recorder": "/bin/sh",
             "lease_ms": 1500, "most_tries": 2, "most_jobs": 3, "busy_share": 1,
             "free_memory_share": 0, "free_disk_mib": 5,
             "nats": {"urls": ["nats://a", "tls://b:1"], "credentials_file": "/c", "ca_file": "/ca",
                      "certificate_file": "/cert", "key_file": "/key", "replicas": 3})"),
      errors);
  EXPECT_EQ(errors, std::vector<std::string>());
  EXPECT_EQ(made.name, "w1");
  EXPECT_EQ(made.labels, (std::vector<std::string>{"any", "gpu"}));
  EXPECT_EQ(made.roots.at("other"), dir_.path());
  EXPECT_EQ(made.settings.at("big"), "/s.json");
  EXPECT_EQ(made.credentials.at("k"), "/k");
  EXPECT_EQ(made.images.at("grey"), "/grey.png");
  EXPECT_EQ(made.servers, (std::vector<std::string>{"dir:", "whip:"}));
  EXPECT_EQ(made.server, "test:");
  EXPECT_EQ(made.recorder, "/bin/sh");
  EXPECT_EQ(made.lease.count(), 1500);
  EXPECT_EQ(made.most_tries, 2);
  EXPECT_EQ(made.room.most_jobs, 3);
  EXPECT_EQ(made.room.busy_share, 1);
  EXPECT_EQ(made.room.memory_share, 0);
  EXPECT_EQ(made.room.disk_bytes, uint64_t{5} << 20);
  EXPECT_EQ(made.nats.urls, (std::vector<std::string>{"nats://a", "tls://b:1"}));
  EXPECT_EQ(made.nats.credentials_file, "/c");
  EXPECT_EQ(made.nats.ca_file, "/ca");
  EXPECT_EQ(made.nats.certificate_file, "/cert");
  EXPECT_EQ(made.nats.key_file, "/key");
  EXPECT_EQ(made.nats.replicas, 3);
}

}  // namespace
}  // namespace zelta::test
