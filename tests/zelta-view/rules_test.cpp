// SPDX-License-Identifier: Apache-2.0
// Who gets what of the server.
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "byte_range.h"
#include "complain.h"
#include "exit_status.h"
#include "options.h"
#include "support/temp_dir.h"
#include "view_rules.h"

namespace zelta::test {
namespace {

using view::byte_range;
using view::verdict;

TEST(ByteRange, IsThePartThatTheStandardMeans) {
  const std::tuple<const char*, byte_range::outcome, uint64_t, uint64_t> rows[] = {
      {"", byte_range::kWhole, 0, 99},
      {"bytes=0-", byte_range::kPart, 0, 99},
      {"bytes=10-19", byte_range::kPart, 10, 19},
      {"Bytes=99-99", byte_range::kPart, 99, 99},
      {"bytes=90-5000", byte_range::kPart, 90, 99},
      {"bytes=-7", byte_range::kPart, 93, 99},
      {"bytes=-700", byte_range::kPart, 0, 99},
      {"bytes=5-99999999999999999999999", byte_range::kPart, 5, 99},
      {"bytes=100-", byte_range::kBeyond, 0, 0},
      {"bytes=99999999999999999999999-", byte_range::kBeyond, 0, 0},
      {"bytes=-0", byte_range::kBeyond, 0, 0},
      {"bytes=9-5", byte_range::kWhole, 0, 99},
      {"bytes=10", byte_range::kWhole, 0, 99},
      {"bytes=-", byte_range::kWhole, 0, 99},
      {"bytes=0-1,5-6", byte_range::kWhole, 0, 99},
      {"bytes= 1-2", byte_range::kWhole, 0, 99},
      {"bytes=1--2", byte_range::kWhole, 0, 99},
      {"items=1-2", byte_range::kWhole, 0, 99}};
  for (const auto& [header, what, first, last] : rows) {
    const byte_range range = view::parse_range(header, 100);
    EXPECT_EQ(std::tie(range.what, range.first, range.last), std::tie(what, first, last)) << header;
  }
  EXPECT_EQ(view::parse_range("bytes=0-", 0).what, byte_range::kBeyond);
  EXPECT_EQ(view::parse_range("bytes=-1", 0).what, byte_range::kBeyond);
}

TEST(ByteRange, WithoutAnEndIsCutAndNoOtherIs) {
  const std::tuple<const char*, uint64_t, uint64_t> rows[] = {
      {"bytes=0-", 0, 29},   {"bytes=90-", 90, 99}, {"bytes=70-", 70, 99},
      {"bytes=69-", 69, 98}, {"bytes=-50", 50, 99}, {"bytes=5-99", 5, 99}};
  for (const auto& [header, first, last] : rows) {
    const byte_range range = view::parse_range(header, 100, 30);
    EXPECT_EQ(std::tie(range.first, range.last), std::tie(first, last)) << header;
  }
}

TEST(ViewRules, LeadNowhereButToThePageAndNamedFiles) {
  const view::view_rules rules("", "secret", 8080);
  const std::tuple<const char*, const char*, const char*, verdict::kind, const char*, int> rows[] =
      {{"GET", "/", "127.0.0.1:8", verdict::kPage, "", 200},
       {"HEAD", "/session.json", "localhost:8", verdict::kSession, "", 200},
       {"GET", "/files/1%20a.mp4", "[::1]:8", verdict::kFile, "1 a.mp4", 200},
       {"GET", "/levels/1.mp4", "[::1]", verdict::kLevels, "1.mp4", 200},
       {"GET", "/files/..%2Fetc%2Fpasswd", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/../../etc/passwd", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/..", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/%2e%2e", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/a%00b", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/a%zz", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/files/", "127.0.0.1", verdict::kRefuse, "", 404},
       {"GET", "/recording.json", "127.0.0.1", verdict::kRefuse, "", 404},
       {"POST", "/", "127.0.0.1", verdict::kRefuse, "", 405},
       {"POST", "/enter", "127.0.0.1", verdict::kRefuse, "", 405},
       {"GET", "/", "recordings.example:8", verdict::kRefuse, "", 421},
       {"GET", "/", "127.0.0.1.example", verdict::kRefuse, "", 421},
       {"GET", "/", "[::1", verdict::kRefuse, "", 421},
       {"GET", "/", "", verdict::kRefuse, "", 421}};
  for (const auto& [method, path, host, what, name, status] : rows) {
    const verdict found = rules.judge({method, path, host, "", "", ""});
    EXPECT_EQ(found.what, what) << path << " " << host;
    EXPECT_EQ(found.name, name);
    EXPECT_EQ(found.status, status) << path << " " << host;
  }
}

TEST(ViewRules, LetNobodyInWithoutTheToken) {
  const view::view_rules rules("open sesame", "c00c1e", 8080);
  const std::tuple<const char*, const char*, const char*, const char*, verdict::kind> rows[] = {
      {"GET", "/", "", "", verdict::kAskToken},
      {"GET", "/files/1.mp4", "", "", verdict::kRefuse},
      {"GET", "/session.json", "Bearer open", "zelta_view_8080=c00c1", verdict::kRefuse},
      {"GET", "/session.json", "Basic open sesame", "xzelta_view_8080=c00c1e", verdict::kRefuse},
      {"GET", "/session.json", "bearer open sesame", "", verdict::kSession},
      {"GET", "/files/1.mp4", "", "a=b; zelta_view_8080=c00c1e; c", verdict::kFile},
      {"GET", "/", "", "zelta_view_8080=c00c1e", verdict::kPage},
      {"GET", "/", "", "zelta_view_8081=c00c1e", verdict::kAskToken},
      {"POST", "/files/1.mp4", "", "zelta_view_8080=c00c1e", verdict::kRefuse},
      {"POST", "/", "", "", verdict::kEnter}};
  for (const auto& [method, path, authorization, cookie, what] : rows) {
    EXPECT_EQ(rules.judge({method, path, "name.example", authorization, cookie, ""}).what, what)
        << path << " " << authorization << " " << cookie;
  }
  EXPECT_TRUE(rules.knows_token("token=open+sesame"));
  EXPECT_FALSE(rules.knows_token("token=open"));
  EXPECT_FALSE(rules.knows_token("toke=open+sesame"));
  EXPECT_FALSE(rules.knows_token(""));
  EXPECT_NE(view::fresh_secret(), view::fresh_secret());
  EXPECT_EQ(rules.cookie_header(), "zelta_view_8080=c00c1e; HttpOnly; SameSite=Lax; Path=/");
}

TEST(ViewRules, LetOtherSitesLeadToThePageAlone) {
  const std::tuple<const char*, const char*, int> rows[] = {{"/", "cross-site", 200},
                                                            {"/", "same-site", 200},
                                                            {"/session.json", "cross-site", 403},
                                                            {"/files/1.mp4", "cross-site", 403},
                                                            {"/levels/1.mp4", "same-site", 403},
                                                            {"/files/1.mp4", "same-origin", 200},
                                                            {"/files/1.mp4", "none", 200},
                                                            {"/session.json", "", 200}};
  for (const char* token : {"", "sesame"}) {
    const view::view_rules rules(token, "c00c1e", 8080);
    for (const auto& [path, site, status] : rows) {
      const verdict found = rules.judge({"GET", path, "127.0.0.1:8080", "Bearer sesame", "", site});
      EXPECT_EQ(found.status, status) << path << " " << site;
    }
  }
}

TEST(Complaint, ObeysNoNameThatSpeaksToTheTerminal) {
  const std::pair<std::string, const char*> rows[] = {
      {"plain \"name\".mp4", "plain \"name\".mp4"},
      {"\x1b[2Jgone\n", "\\x1b[2Jgone\\x0a"},
      {"\xc2\x9b\x7f", "\xc2\\x9b\\x7f"},
      {"\xc3\x9c \xe2\x82\xac", "\xc3\x9c \xe2\x82\xac"}};
  for (const auto& [text, said] : rows) EXPECT_EQ(view::printable(text), said);
}

TEST(ViewOptions, AreRefusedWithTheValueAndWhatWouldBeRight) {
  const TempDir dir;
  const std::string empty = dir.file("empty", "");
  const std::string token = dir.file("token", "sesame\nmore");
  const std::tuple<std::string, int, const char*> rows[] = {
      {"", view::kUsage, "folder"},
      {"f --address 127.0.0.1", view::kUsage, "--address 127.0.0.1 should be"},
      {"f --address ::1:80", view::kUsage, "in brackets"},
      {"f --address 127.0.0.1:70000", view::kUsage, "70000 should be"},
      {"f --address here:80", view::kUsage, "here:80 should be"},
      {"f --address 0.0.0.0:80", view::kUsage, "give a token"},
      {"f --export --address 127.0.0.1:80", view::kUsage, "excludes"},
      {"f --export --token sesame", view::kUsage, "excludes"},
      {"f --export --token-file " + token, view::kUsage, "excludes"},
      {"f --token ''", view::kUsage, "should be 1 to 1024"},
      {"f --token-file " + empty, view::kUsage, "should hold the secret"},
      {"f --address [::1]:80", view::kDone, ""},
      {"f --address 0.0.0.0:80 --token-file " + token, view::kDone, ""}};
  for (const auto& [line, status, says] : rows) {
    std::vector<std::string> words = words_of("zelta-view " + line);
    std::vector<const char*> argv;
    for (const std::string& word : words) argv.push_back(word.c_str());
    view::options o;
    const auto parsed = view::parse_options(static_cast<int>(argv.size()), argv.data(), o);
    EXPECT_EQ(parsed.ok, status == view::kDone) << line << parsed.message;
    EXPECT_EQ(parsed.exit_status, status) << line;
    EXPECT_NE(parsed.message.find(says), std::string::npos) << parsed.message;
  }
}

}  // namespace
}  // namespace zelta::test
