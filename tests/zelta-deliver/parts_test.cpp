// SPDX-License-Identifier: Apache-2.0
// The parts of a delivery that stand alone: waiting, digests, the state on disk.
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/process_name.h"
#include "base/unique_fd.h"
#include "digest.h"
#include "http_client.h"
#include "ledger.h"
#include "names.h"
#include "pace.h"
#include "recordings/crc_text.h"
#include "recordings/folder_state.h"
#include "recordings/recording_folder.h"
#include "support/temp_dir.h"
#include "target.h"
#include "target_gates.h"

namespace zelta::test {
namespace {

using std::chrono::milliseconds;

TEST(Backoff, DoublesUpToItsBoundAndNeverFallsBelowHalf) {
  const std::tuple<int, int64_t> rows[] = {{1, 100},  {2, 200},   {4, 800},
                                           {5, 1000}, {63, 1000}, {1'000'000, 1000}};
  for (const auto& [attempts, whole_ms] : rows) {
    const auto wait = [attempts = attempts](uint32_t random) {
      return deliver::backoff(attempts, milliseconds(100), milliseconds(1000), random).count();
    };
    EXPECT_EQ(wait(0), whole_ms / 2);
    EXPECT_GT(wait(1023), whole_ms * 99 / 100 - 1);
    EXPECT_LE(wait(UINT32_MAX), whole_ms);
  }
}

TEST(Pace, EndsAWaitThatWouldLastForHours) {
  deliver::pace slow(1);
  EXPECT_TRUE(slow.take(1'000'000));  // what it has to wait for comes after it
  std::thread waiting([&slow] { EXPECT_FALSE(slow.take(1)); });
  slow.stop();
  waiting.join();
}

TEST(Pace, HoldsNobodyBackWithoutABound) {
  deliver::pace all(0);
  for (int at = 0; at < 2; ++at) EXPECT_TRUE(all.take(1'000'000'000));
  EXPECT_EQ(all.piece(65536), 65536U);
  all.stop();
  EXPECT_FALSE(all.take(1));
}

// RFC 4231, case 2; FIPS 180-4's of no bytes.
TEST(Digest, IsThatOfTheStandards) {
  EXPECT_EQ(deliver::hmac_sha256("Jefe", "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(deliver::sha256_of(""),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(PercentEncoded, LeavesUnreservedCharactersAlone) {
  EXPECT_EQ(deliver::percent_encoded("a call+1/é~.-_", true), "a%20call%2B1/%C3%A9~.-_");
  EXPECT_EQ(deliver::percent_encoded("a/b", false), "a%2Fb");
}

TEST(Ledger, ComesBackAsItWasKept) {
  const TempDir dir;
  std::string error;
  auto kept = deliver::load_ledger(dir.path(), error);
  ASSERT_TRUE(kept) << error;
  kept->remote = "2026/call";
  deliver::entry& file = kept->files["7_a.mp4"];
  file.is = {uint64_t{1} << 40, 1'764'000'000'123'456'789};
  file.sha256 = "ab";
  file.order = deliver::rank::kBeside;
  file.announced = true;
  file.deleted_utc_ms = 5;
  file.targets["s3"] = {
      deliver::stage::kSending, 3, 2, 77, 88, "why", true, "id", 9, {"\"t\""}, "aa", "bb", 7};
  kept->notices.push_back({"id-1", "{}", true, "file", 4, 99});
  kept->next_notice = 2;
  ASSERT_TRUE(deliver::save_ledger(dir.path(), *kept, error)) << error;
  const std::string first = read_file(dir.path() + "delivery.json");
  const auto read = deliver::load_ledger(dir.path(), error);
  ASSERT_TRUE(read) << error;
  ASSERT_TRUE(deliver::save_ledger(dir.path(), *read, error)) << error;
  EXPECT_EQ(read_file(dir.path() + "delivery.json"), first);
  const deliver::shipment& at = read->files.at("7_a.mp4").targets.at("s3");
  EXPECT_EQ(std::tie(at.at, at.attempts, at.refusals, at.next_utc_ms, at.confirmed_utc_ms, at.ours),
            std::make_tuple(deliver::stage::kSending, 3, 2, int64_t{77}, int64_t{88}, true));
  EXPECT_EQ(at.parts, std::vector<std::string>{"\"t\""});
  EXPECT_EQ(std::tie(at.sealed_for, at.sealed_sha256, at.sealed_bytes),
            std::make_tuple(std::string("aa"), std::string("bb"), uint64_t{7}));
  EXPECT_EQ(read->files.at("7_a.mp4").is, file.is);
}

TEST(RemotePath, KeepsLogsOfMachinesThatRecordedOneCallApart) {
  const struct {
    std::vector<const char*> manifests;
    const char* file;
    const char* path;
  } rows[] = {
      {{"recording.json", "recording_2.json"}, "recording_engine.log", "c/recording_engine.log"},
      {{"recording_10.json", "recording_2.json"},
       "recording_engine.log",
       "c/recording_engine_2.log"},
      {{"recording_3.json"}, "recording_engine.log.1", "c/recording_engine_3.log.1"},
      {{"recording_3.json"}, "recording_3.json", "c/recording_3.json"},
      {{}, "recording_engine.log", "c/recording_engine.log"},
  };
  for (const auto& row : rows) {
    deliver::ledger of;
    of.remote = "c";
    for (const char* const name : row.manifests) of.files[name];
    EXPECT_EQ(deliver::remote_path(of, row.file), row.path);
  }
}

TEST(Ledger, ThatCannotBeUnderstoodIsNeverTakenForNone) {
  for (const char* const text : {"", "{", "[]", R"({"version": 2, "files": {}})",
                                 R"({"version": 1, "files": {"a": {"rank": "media", "targets":
                                    {"t": {"state": "perhaps"}}}}})"}) {
    const TempDir dir;
    dir.file("delivery.json", text);
    std::string error;
    EXPECT_FALSE(deliver::load_ledger(dir.path(), error)) << text;
    EXPECT_NE(error.find("delivery.json is no state"), std::string::npos) << error;
  }
}

TEST(Ledger, IsOnesAloneWhileItsLockIsHeld) {
  const TempDir dir;
  std::string error;
  {
    const auto first = deliver::lock_deliveries(dir.path(), error);
    EXPECT_TRUE(first.valid()) << error;
    EXPECT_FALSE(deliver::lock_deliveries(dir.path(), error).valid());
    EXPECT_EQ(error, "");
  }
  EXPECT_TRUE(deliver::lock_deliveries(dir.path(), error).valid()) << error;
  const std::string lock = dir.path() + ".delivery.lock";
  ASSERT_EQ(unlink(lock.c_str()), 0);
  ASSERT_EQ(symlink((dir.path() + "elsewhere").c_str(), lock.c_str()), 0);
  EXPECT_FALSE(deliver::lock_deliveries(dir.path(), error).valid());
  EXPECT_NE(error.find(".delivery.lock: Too many levels"), std::string::npos) << error;
  EXPECT_NE(access((dir.path() + "elsewhere").c_str(), F_OK), 0) << "made where a link leads";
}

TEST(Ledger, ThatNamesWhatIsNotOfTheRecordingIsRefused) {
  const auto file = [](const std::string& name, const std::string& more, const char* rank) {
    return R"("remote": "a", "files": {")" + name + R"(": {"sha256": "", "rank": ")" + rank +
           R"(", "targets": {"t": {"state": "pending")" + more + "}}}}";
  };
  const std::string rows[] = {
      file("../7_a.mp4", "", "media"),
      file("..", "", "beside"),
      file("", "", "beside"),
      file(".delivery.lock", "", "media"),
      file("delivery.json", "", "beside"),
      file("recording.json", "", "media"),
      file("journal.json", "", "media"),
      file("7_\\n.mp4", "", "media"),
      file("7_a.mp4", R"(, "upload_id": "u", "part_bytes": 0, "parts": ["x"])", "media"),
      file("7_a.mp4", R"(, "part_bytes": 18446744073709551615)", "media"),
      file("7_a.mp4", R"(, "sealed_sha256": "ab", "sealed_bytes": 9223372036854775808)", "media"),
      file("7_a.mp4", R"(, "sealed_bytes": 1)", "media"),
      file("7_a.mp4", R"(, "refusals": -1)", "media"),
      file("7_a.mp4", R"(, "sealed_sha256": "a\r\nx-amz-acl: public-read")", "media"),
      R"("files": {"7_a.mp4": {"rank": "media", "sha256": "a\r\nx-amz-acl: public-read"}})",
      R"("remote": "../others")",
      R"("remote": "/etc")",
      R"("remote": "a//b")",
      R"("notices": [{"id": "1\r\nHost: x", "kind": "file"}])",
      R"("notices": [{"id": "1", "kind": "x\r\nHost: x"}])",
  };
  const TempDir dir;
  std::string error;
  for (const std::string& row : rows) {
    dir.file("delivery.json", R"({"version": 1, "id": "i", )" + row + "}");
    EXPECT_FALSE(deliver::load_ledger(dir.path(), error)) << row;
  }
  dir.file("delivery.json", R"({"version": 1, "id": "i", )" + file("7_a.mp4", "", "media") + "}");
  EXPECT_TRUE(deliver::load_ledger(dir.path(), error)) << error;
}

TEST(Names, AreSoundAsUtf8WithoutControlCharacters) {
  for (const char* const name :
       {"a", "é.mp4", "7_\xF0\x9F\x8E\xA5.mp4", "a b", "\xC2\xA0", "\xDF\xBF", "\xE0\xA0\x80",
        "\xED\x9F\xBF", "\xEF\xBF\xBD", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(deliver::is_sound_name(name)) << name;
  }
  for (const char* const name :
       {"", ".", "..", "a/b", "a\n", "\x7f", "\xff", "\xC0\xAF", "\xE0\x9F\xBF", "\xED\xA0\x80",
        "\xF4\x90\x80\x80", "\xF0\x8F\xBF\xBF", "\xF5\x80\x80\x80", "\xC1\xBF", "\xC3", "\xC3(",
        "\xE2\x82", "\x1f"}) {
    EXPECT_FALSE(deliver::is_sound_name(name)) << deliver::shown_name(name);
  }
  EXPECT_TRUE(deliver::is_sound_path("2026/call"));
  for (const char* const path : {"", "/", "a/", "/a", "a//b", "a/../b", "."}) {
    EXPECT_FALSE(deliver::is_sound_path(path)) << path;
  }
}

// Of two targets and four connections.
TEST(TargetGates, HoldBackWhatCanNotBeReachedAndProbeItByOne) {
  using deliver::outcome;
  deliver::target_gates gates(2, 4, milliseconds(100), milliseconds(1000));
  const outcome gone{outcome::kLater, "", 0, true};
  EXPECT_EQ(gates.room(0, 0), 3U) << "one is the other's";
  for (int at = 0; at < 3; ++at) gates.began(0);
  EXPECT_EQ(gates.room(0, 0), 0U);
  EXPECT_FALSE(gates.wait_ms(0, 0));
  for (int at = 0; at < 3; ++at) gates.ended(0, gone, 0, 0);
  EXPECT_EQ(gates.room(0, 49), 0U);
  EXPECT_EQ(gates.wait_ms(0, 0), 50) << "all three are one failure";
  EXPECT_EQ(gates.room(0, 50), 1U);
  EXPECT_EQ(gates.room(1, 0), 3U);
  gates.began(0);
  EXPECT_EQ(gates.room(0, 60), 0U);
  gates.ended(0, gone, 60, 0);
  EXPECT_EQ(gates.wait_ms(0, 60), 100);
  gates.began(0);
  gates.ended(0, {outcome::kStopped, "", 0}, 160, 0);
  EXPECT_EQ(gates.room(0, 160), 1U) << "that told nothing of it";
  gates.began(0);
  gates.ended(0, {outcome::kRefused, "", 0}, 200, 0);
  EXPECT_EQ(gates.room(0, 200), 3U) << "it answers";
  gates.began(0);
  gates.ended(0, {outcome::kLater, "", 7000}, 200, 0);
  EXPECT_EQ(gates.wait_ms(0, 200), 7000) << "it asks for it";
  gates.began(0);
  gates.ended(0, {outcome::kLater, "", 100}, 200, 0);
  EXPECT_EQ(gates.wait_ms(0, 200), 7000) << "and for less beside it";
  EXPECT_EQ(deliver::target_gates(1, 4, milliseconds(1), milliseconds(1)).room(0, 0), 4U);
  EXPECT_EQ(deliver::target_gates(2, 1, milliseconds(1), milliseconds(1)).room(1, 0), 1U);
}

TEST(Outcome, TellsWhatPassesFromWhatStays) {
  using deliver::outcome;
  const std::tuple<long, const char*, outcome::kind> rows[] = {
      {200, "", outcome::kDone},
      {299, "", outcome::kDone},
      {300, "", outcome::kRefused},
      {399, "", outcome::kRefused},
      {400, "", outcome::kRefused},
      {401, "", outcome::kRefused},
      {404, "", outcome::kRefused},
      {408, "", outcome::kLater},
      {409, "", outcome::kLater},
      {412, "", outcome::kLater},
      {423, "", outcome::kLater},
      {425, "", outcome::kLater},
      {429, "", outcome::kLater},
      {499, "", outcome::kRefused},
      {500, "", outcome::kLater},
      {507, "", outcome::kLater},
      {400, "<Code>RequestTimeout</Code>", outcome::kLater},
  };
  deliver::http_answer answer;
  answer.carried = true;
  for (const auto& [status, body, is] : rows) {
    answer.status = status;
    answer.body = body;
    const outcome made = deliver::outcome_of(answer, "PUT");
    EXPECT_EQ(made.is, is) << status;
    EXPECT_EQ(made.occupied, status == 412) << status;
    EXPECT_FALSE(made.unreachable) << status << ": it answers";
  }
  answer.status = 302;
  answer.headers["location"] = "https://me:hunter2@h/x?token=hunter2";
  const std::string text = deliver::outcome_of(answer, "PUT").text;
  EXPECT_NE(text.find("go to https://h/x;"), std::string::npos) << text;

  answer = {};
  answer.error = "no route";
  EXPECT_EQ(deliver::outcome_of(answer, "PUT").is, outcome::kLater);
  EXPECT_TRUE(deliver::outcome_of(answer, "PUT").unreachable);
  answer.final = true;
  EXPECT_EQ(deliver::outcome_of(answer, "PUT").is, outcome::kRefused);
  EXPECT_FALSE(deliver::outcome_of(answer, "PUT").unreachable) << "it would hold all others back";
  answer.error = "stopped";
  EXPECT_EQ(deliver::outcome_of(answer, "PUT").is, outcome::kStopped);
}

TEST(Outcome, WaitsAsTheServerAsksAndADayAtMost) {
  constexpr int64_t kDayMs = int64_t{24} * 3600 * 1000;
  const std::pair<const char*, int64_t> rows[] = {{"7", 7000},
                                                  {"-5", 0},
                                                  {"86401", kDayMs},
                                                  {"99999999999999", kDayMs},
                                                  {"soon", 0},
                                                  {"Thu, 01 Jan 1970 00:00:09 GMT", 0},
                                                  {"Fri, 01 Jan 2100 00:00:00 GMT", kDayMs}};
  deliver::http_answer answer;
  answer.carried = true;
  answer.status = 503;
  for (const auto& [asked, wait_ms] : rows) {
    answer.headers["retry-after"] = asked;
    EXPECT_EQ(deliver::outcome_of(answer, "PUT").wait_ms, wait_ms) << asked;
  }
}

TEST(RecordingFolder, AwaitsTheNextRecorderWhileItsCallerLives) {
  const TempDir dir;
  const auto journal_of = [&dir](const std::string& caller) {
    dir.file("journal.json", R"({"session": ")" + caller + " 7 call\"}");
    return recordings::is_over(dir.path(), true);
  };
  EXPECT_FALSE(journal_of(base::process_name(getpid())));
  EXPECT_TRUE(journal_of(std::to_string(getpid()) + "@1")) << "another process had the number";
  EXPECT_TRUE(journal_of("nobody"));
  EXPECT_FALSE(recordings::is_over(dir.path(), false));
  for (const std::string& text : {std::string(5000, '['), std::string("[7]"), std::string("{")}) {
    dir.file("journal.json", text);
    EXPECT_TRUE(recordings::is_over(dir.path(), true)) << text.substr(0, 9);
  }
}

TEST(RecordingFolder, IsNotOverWhileAProcessHoldsAShareOfIt) {
  const TempDir dir;
  const TempDir elsewhere;
  const auto is_over_while_held = [&dir](const std::string& path) {
    const base::unique_fd lock(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(flock(lock.get(), LOCK_EX | LOCK_NB), 0) << path;
    return recordings::is_over(dir.path());
  };
  EXPECT_FALSE(is_over_while_held(dir.path()));
  for (const char* const name : {".recording.lock", ".recording_2.lock"}) {
    EXPECT_FALSE(is_over_while_held(dir.file(name, ""))) << name;
    EXPECT_TRUE(recordings::is_over(dir.path())) << name << ": nobody has it any more";
  }
  EXPECT_TRUE(is_over_while_held(dir.file(".recording_x.lock", ""))) << "it is no share";
  const std::string others = elsewhere.file("lock", "");
  ASSERT_EQ(symlink(others.c_str(), (dir.path() + ".recording_3.lock").c_str()), 0);
  EXPECT_TRUE(is_over_while_held(others)) << "a link's isn't of this folder";
}

TEST(RecordingFolder, HasAllThatItsManifestTells) {
  const TempDir dir;
  dir.file("7_a.mp4", "media");
  dir.file("recording.json", R"({"channel_id": "room", "files": [
    {"name": "7_a.mp4", "uid": 7, "kind": "audio_video", "video_codec": "h264", "audio_codec": "aac",
     "width": 640, "height": 360, "first_utc_ms": 11, "last_utc_ms": 14, "closed": "user left",
     "bytes": 5, "crc32": "0a1b2c3d"},
    {"name": "8_b.mp4", "channel_id": "hall", "bytes": 1, "crc32": "0a1b2c3"},
    {"name": "8_c.mp4", "bytes": 1, "crc32": "0a1b2c3g"},
    {"name": "8_d.mp4", "bytes": 1, "crc32": "0a1b2c3d4"},
    {"name": "8_e.mp4", "bytes": -1, "crc32": "0a1b2c3d"},
    {"name": "8_f.mp4", "crc32": "0a1b2c3d"}],
    "missing": [{"uid": 7, "medium": "video", "codec": "c", "reason": "r", "utc_ms": 15,
                 "until_utc_ms": 16}],
    "names": {"7": "alice", "-1": "x", "7a": "x"}, "pictures": {"7": 1}, "messages": {"7": 2},
    "lost_packets": {"7": 3}, "dropped_frames": {"pictures": 4, "coded": 5, "sound": 6},
    "sessions": [{"channel_id": "room", "began_utc_ms": 7, "ended_utc_ms": 8, "ended": "why"}],
    "lag": {"packets_ms": 9, "disk_ms": 10}})");
  std::vector<std::string> errors;
  const auto all = recordings::read_manifests(dir.path(), errors);
  ASSERT_EQ(all.size(), 1U) << testing::PrintToString(errors);
  const recordings::manifest& m = all[0];
  ASSERT_EQ(m.files.size(), 6U);
  const recordings::media_file& a = m.files[0];
  EXPECT_EQ(std::tie(a.channel_id, a.kind, a.video_codec, a.audio_codec, a.closed),
            std::make_tuple("room", "audio_video", "h264", "aac", "user left"));
  EXPECT_EQ(std::tie(a.uid, a.width, a.height, a.first_utc_ms, a.last_utc_ms, a.bytes, a.crc32),
            std::make_tuple(7U, 640, 360, 11, 14, 5U, 0x0a1b2c3dU));
  EXPECT_EQ(a.duration_ms(), 3);
  EXPECT_EQ(recordings::text_of_crc(*a.crc32), "0a1b2c3d");
  EXPECT_EQ(m.files[1].channel_id, "hall");
  for (size_t at = 1; at < 6; ++at) EXPECT_FALSE(m.files[at].crc32) << m.files[at].name;
  ASSERT_EQ(m.missing.size(), 1U);
  const recordings::gap& gap = m.missing[0];
  EXPECT_EQ(std::tie(gap.uid, gap.channel_id, gap.medium, gap.codec, gap.reason, gap.utc_ms,
                     gap.until_utc_ms),
            std::make_tuple(7U, "room", "video", "c", "r", 15, 16));
  EXPECT_EQ(m.names, (std::map<uint32_t, std::string>{{7, "alice"}}));
  EXPECT_EQ(std::tie(m.pictures.at(7), m.messages.at(7), m.lost_packets.at(7), m.dropped.pictures,
                     m.dropped.coded, m.dropped.sound, m.lag_of_packets_ms, m.lag_of_disk_ms),
            std::make_tuple(1U, 2U, 3U, 4U, 5U, 6U, 9, 10));
  ASSERT_EQ(m.sessions.size(), 1U);
  EXPECT_EQ(std::tie(m.sessions[0].channel_id, m.sessions[0].began_utc_ms,
                     m.sessions[0].ended_utc_ms, m.sessions[0].ended),
            std::make_tuple("room", 7, 8, "why"));
}

TEST(RecordingFolder, HasManifestsOfTheirNamesAlone) {
  for (const char* const name : {"recording.json", "recording_2.json", "recording_10.json"}) {
    EXPECT_TRUE(recordings::is_manifest_name(name)) << name;
  }
  for (const char* const name :
       {"", ".json", "recording", "recordin.json", "xrecording.json", "recording_.json",
        "recording2.json", "recording_a.json", "recording_2.json.new", "recording-2.json"}) {
    EXPECT_FALSE(recordings::is_manifest_name(name)) << name;
  }
  for (const char* const name : {"delivery.json.mp4", "7_a.new", "7_a.lock", "a/b.mp4", ".a.mp4"}) {
    EXPECT_FALSE(recordings::is_media_name(name)) << name;
  }
  EXPECT_FALSE(recordings::is_media_name(std::string("7_a\0.mp4", 8)));
}

TEST(RecordingFolder, IsLookedAtWithoutWaitingForAPipe) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir.path() + ".recording_2.lock").c_str(), 0600), 0);
  EXPECT_TRUE(recordings::is_over(dir.path()));
  ASSERT_EQ(mkfifo((dir.path() + "recording.json").c_str(), 0600), 0);
  std::vector<std::string> errors;
  EXPECT_TRUE(recordings::read_manifests(dir.path(), errors).empty());
  EXPECT_EQ(errors.size(), 1U);
}

TEST(RecordingFolder, HasMediaOfMediasNamesAlone) {
  const TempDir dir;
  for (const char* const name : {"7_a.mp4", "mix_b.webm", "12_c.m4a", "x_d.mp4", "7_e.jpg",
                                 "7_f.mp4.part", ".7_g.mp4", "7.mp4"}) {
    dir.file(name, "x");
  }
  EXPECT_EQ(recordings::media_names(dir.path()),
            (std::vector<std::string>{"12_c.m4a", "7_a.mp4", "mix_b.webm"}));
  dir.file("recording.json", R"({"files": [{"name": "7_a.mp4"}, {"name": "recording.json"},
      {"name": ".delivery.lock"}, {"name": "journal_2.json"}, {"name": "messages.jsonl"},
      {"name": "../7_a.mp4"}, {"name": "delivery.json.new"}, {"name": ""}]})");
  std::vector<std::string> errors;
  const auto manifests = recordings::read_manifests(dir.path(), errors);
  ASSERT_EQ(manifests.size(), 1U);
  ASSERT_EQ(manifests[0].files.size(), 1U);
  EXPECT_EQ(manifests[0].files[0].name, "7_a.mp4");
}

TEST(RecordingFolder, TellsWhatStandsBesideTheMedia) {
  const TempDir dir;
  for (const char* const name :
       {"7_20260101T000000000.jpg", "messages.jsonl", "messages_2.jsonl", "recording_engine.log",
        "messages_x.jsonl", "notes.txt", "volumes.jsonl", "x_1.jpg", "delivery.json", "7_a.mp4",
        "recording.json"}) {
    dir.file(name, "x");
  }
  EXPECT_EQ(
      recordings::companion_names(dir.path()),
      (std::vector<std::string>{"7_20260101T000000000.jpg", "messages.jsonl", "messages_2.jsonl",
                                "recording_engine.log", "volumes.jsonl"}));
  EXPECT_TRUE(recordings::is_over(dir.path()));
  dir.file("journal_2.json", "{}");
  EXPECT_FALSE(recordings::is_over(dir.path()));
  EXPECT_TRUE(recordings::is_over(dir.path(), true));
  EXPECT_FALSE(recordings::is_over(dir.path() + "nowhere"));
}

}  // namespace
}  // namespace zelta::test
