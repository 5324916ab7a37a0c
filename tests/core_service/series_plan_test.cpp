// SPDX-License-Identifier: Apache-2.0
// What becomes of what happens to a series, row by row, and the words of what ends its files.
#include <string>

#include <gtest/gtest.h>

#include "support/played_series.h"

namespace zelta::test {
namespace {

using namespace core_service::files;
using std::chrono::milliseconds;

constexpr series_plan::rules kAll{true, true, {}, {}};
constexpr series_plan::rules kLate{true, true, {}, milliseconds(200)};

void play(const series_plan::rules& rules, const std::string& rows) {
  PlayedSeries(rules).play(rows);
}

TEST(SeriesPlan, AFileBeginsWithTheSoundBeforeItsFirstKeyFrame) {
  const struct {
    const char* before;
    const char* opened;
  } rows[] = {
      {"1 expect 1 1", "open 1 mp4 va 1200 aac#1, picture 1"},
      {"1 expect 1 0", "open 1 mp4 v 1200, picture 1"},
      {"1 kept 500 1320", "open 1 mp4 va 1000 aac#1, picture 1"},
      {"1 kept 1100 1320", "open 1 mp4 va 1100 aac#1, picture 1"},
      {"1 kept 1300 1320", "open 1 mp4 va 1200 aac#1, picture 1"},
  };
  for (const auto& row : rows) {
    play(kAll, std::string(row.before) + R"( >
         900 key 900         >
         900 tick            >
        1000 start           > key
        1300 key 999         >
        1300 delta 1160      > key
        1300 state           > recording
        1300 key 1200        > )" +
                   row.opened + R"(
        1300 delta 1240      > picture 1
        1300 state           > recording, pictures to 1280)");
  }
}

TEST(SeriesPlan, WhatIsNotRecordedOpensNothing) {
  play({false, true, {}, {}}, R"(
      1000 start             >
      1000 key 1000          >
      1000 kept 1000 1990    >
      2000 tick              > open 1 m4a a 1000 aac#1, fill 1000
      2000 stop 2000 300     > end 2000, cut 1 2000 user left
      2000 heard 2000        >
      2000 tick              > fill 2000)");
  play({true, false, {}, {}}, R"(
      1000 kept 1000 5900    >
      1000 start             > key
      6000 tick              > fill 5000
      6000 opus 5900         >
      6000 key 5900          > open 1 mp4 v 5900, picture 1
      9000 tick              > fill 8000
      9000 stop 6000 100     > end 6000, cut 1 6000 user left
      9000 tick              >
      9000 delta 5960        > picture 1
      9000 tick              > fill 6000, finish 1)");
}

TEST(SeriesPlan, ANewFileBeginsAtAKeyFrameAlone) {
  play({true, true, milliseconds(10'000), {}}, R"(
      1000 start             > key
      1000 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      1000 key 10999         > picture 1
      1000 delta 11000       > picture 1
      1000 sound 11005       > sound 1 11005
      1000 key 11000         > cut 1 11000 chunk full, open 2 mp4 va 11000 aac, picture 2
      1000 delta 11080 2     > key
      1000 delta 11120       > picture 2
      1000 key 11160 2       > cut 2 11160 picture changed, open 3 mp4 va 11160 aac, picture 3
      1000 key 11200 2       > picture 3
      1000 sound 10999       > sound 1 10999
      1000 sound 11000       > sound 2 11000, finish 1
      1000 sound 11161       > sound 3 11161, finish 2
      1000 webm 11240 3      > cut 3 11240 picture changed, open 4 webm va 11240 opus#2, picture 4
      1000 sound 11241 2     > sound 4 11241
      1000 sound 11245 1     > sound 3 11245
      1000 sound 11300 2     >
      1000 sound 11330 1     >
      1000 last 1            > sound 3 11330, finish 3
      1000 delta 11280 3     > picture 4, sound 4 11300)");
}

TEST(SeriesPlan, SoundWaitsUntilThePictureHasComeAsFar) {
  play(kLate, R"(
      1000 start             > key
      1300 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      1300 sound 1039        > sound 1 1039
      1300 sound 1040        >
      1300 delta 1040        > picture 1, sound 1 1040
      1300 delta 1000        > picture 1
      1300 sound 1079        > sound 1 1079
      1300 sound 1100        >
      2300 tick              > fill 1100
      2301 tick              > fill 1101, sound 1 1100)");
}

TEST(SeriesPlan, SoundGoesOnAloneWhereNoPictureComesAndGivesWayToOne) {
  play(kLate, R"(
      1000 start             > key
      4500 tick              > fill 3300
      4500 kept 500 1000     >
      9000 tick              > fill 7800
      4200 kept 500 4000     >
      4200 tick              > fill 3000
      4201 tick              > open 1 m4a a 1000 aac#1, fill 3001
      4201 sound 3901        >
      4202 tick              > fill 3002, sound 1 3901
      4202 sound 4005        >
      4202 delta 4010        > key
      4202 key 4010          > cut 1 4010 picture came, open 2 mp4 va 4010 aac,
                               picture 2, sound 1 4005
      4202 sound 4011        > sound 2 4011, finish 1
      4202 heard 4100        >
      6250 tick              > fill 5050
      6251 tick              > fill 5051, cut 2 5051 picture stopped, open 3 m4a a 5051 aac
      9000 tick              > fill 7800
      9000 sound 5050        > sound 2 5050
      9000 sound 5051        > sound 3 5051, finish 2)");
  play({true, true, milliseconds(1000), {}}, R"(
         1 expect 0 1        >
      1000 start             > key
      1100 kept 1010 1030    >
      1100 tick              > open 1 m4a a 1010 aac#1, fill 100
      1100 sound 2009        > sound 1 2009
      1100 sound 2010        > cut 1 2010 chunk full, open 2 m4a a 2010 aac,
                               sound 2 2010, finish 1
      1100 stop 3020 500     > end 3020, cut 2 3020 user left
      1100 sound 3015        > sound 2 3015)");
  // Opus that was kept is more than a chunk.
  play({true, true, milliseconds(1000), {}}, R"(
         1 expect 0 1        >
      1000 start             > key
      1000 opus 1000         > change
      2100 kept 1000 2100    >
      2100 tick              > open 1 m4a a 1000 as is#1, sound 1 1000,
                               cut 1 2080 chunk full, open 2 m4a a 2080 as is,
                               sound 2 2080, finish 1, fill 1100)");
}

TEST(SeriesPlan, AStopWaitsForWhatWasCapturedBeforeIt) {
  play(kAll, R"(
      1000 start             > key
      1000 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      2000 stop 2000 300     > end 2000, cut 1 2000 user left
      2000 stop 1500 0       >
      2000 done 7            >
      2000 key 2000          >
      2000 key 1500 2        >
      2000 heard 2010        >
      2100 tick              >
      2100 key 1980          > picture 1
      2100 tick              > fill 2000
      2100 sound 1990        > sound 1 1990
      2100 sound 2000        > sound - 2000, finish 1
      2100 last 1            >
      2100 done 1            > stopped
      2100 done 1            >
      2100 key 1990          >)");
  play(kAll, R"(
      1000 start             > key
      1000 key 1970          > open 1 mp4 va 1970 aac#1, picture 1
      2000 stop 2000 300     > end 2000, cut 1 2000 user left
      2299 tick              >
      2300 tick              > fill 2000
      2300 last 1            > finish 1)");
  PlayedSeries faulty(kAll);
  faulty.why = "error: x";
  faulty.play(R"(
      1000 start             > key
      1000 kept 500 1000     >
      1000 stop 2000 0       > end 2000, fill 2000
      1000 done 0            > stopped
      1000 start             > key
      1000 kept 1010 1990    >
      1000 stop 2000 0       > open 1 m4a a 1010 aac#1, end 2000, cut 1 2000 error: x, fill 2000
      1000 last 1            > finish 1)");
}

TEST(SeriesPlan, AStartDuringAStopEndsTheFileAtTheStop) {
  play(kAll, R"(
      1000 start             > key
      1000 start             >
      1000 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      2000 stop 2000 300     > end 2000, cut 1 2000 user left
      2100 start             > fill 2000, key
      2100 state             > recording
      2100 key 2099          >
      2110 key 2110          > open 2 mp4 va 2110 aac#2, picture 2
      2110 sound 1999        > sound 1 1999
      2110 sound 2000        > sound - 2000, finish 1
      2110 done 1            >)");
}

TEST(SeriesPlan, SoundOfAnotherFormGoesIntoAnotherFile) {
  play(kAll, R"(
      1000 start             > key
      1000 opus 1000         > change
      1000 kept 1010 1050    >
      1000 key 1020          > open 1 mp4 va 1010 as is#1, picture 1, sound 1 1010, sound 1 1030
      1000 samples 990       > end 1010, fill 1010, change, cut 1 1010 sound changed,
                               open 2 m4a a 1010 aac#2, key
      1000 sound 1000        >
      1000 last 1            > sound 1 1000, finish 1
      1000 opus 1500         > end 1500, fill 1500, change, cut 2 1500 sound changed,
                               open 3 m4a a 1500 as is#3
      1000 stop 2000 100     > end 2000, cut 3 2000 user left
      1000 samples 1900      > end 2000, fill 2000, change)");
  play(kAll, R"(
      1000 start             > key
      1000 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      1000 expect 1 0        >
      1000 key 1040 2        > cut 1 1040 picture changed, open 2 mp4 v 1040, picture 2
      1000 opus 1050         > end 1050, fill 1050, change)");
  play(kAll, R"(
      1000 start             > key
      1000 kept 1010 1500    >
      1000 opus 1500         > open 1 m4a a 1010 aac#1, end 1500, fill 1500,
                               change, cut 1 1500 sound changed,
                               open 2 m4a a 1500 as is#2)");
}

TEST(SeriesPlan, FailuresEndTheRecording) {
  play(kAll, R"(
      1000 start             > key
      1000 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      1000 failed 1          >
      1000 done 0            >
      1000 delta 1040        > key
      1000 key 1080          > open 2 mp4 va 1080 aac, picture 2
      1000 failed 2          >
      1000 key 1080          > open 3 mp4 va 1080 aac, picture 3
      1000 failed 3          >
      1000 state             > not recording, pictures to 1120
      1000 key 1120          >)");
  PlayedSeries mute(kAll);
  mute.opens = false;
  mute.play(R"(
      1000 start             > key
      1000 key 1000          > no 1 mp4 va 1000 aac#1
      1000 state             > not recording
      1000 key 1040          >
      1000 stop 2000 0       > end 2000, fill 2000
      1000 done 0            > stopped)");
  play(kAll, R"(
      1000 start             > key
      1000 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      1000 abandon           > abandon
      1000 abandon           >
      1000 key 1040          >
      1000 stop 2000 0       > end 2000, cut 1 2000 user left, fill 2000
      1000 last 1            >
      1000 failed 0          >
      1000 failed 0          >
      1000 failed 1          > stopped)");
}

TEST(SeriesPlan, SoundGoesOnWhereAFileHasFailed) {
  play({false, true, {}, {}}, R"(
      1000 start             >
      1000 kept 1010 1030    >
      1100 tick              > open 1 m4a a 1010 aac#1, fill 100
      1100 heard 1100        >
      1100 failed 1          >
      1200 tick              > open 2 m4a a 1100 aac, fill 200
      1200 sound 1190        > sound 2 1190)");
  play(kAll, R"(
      1000 start             > key
      1000 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      1000 heard 1090        >
      1000 failed 1          >
      3040 tick              > fill 2040
      3041 tick              > open 2 m4a a 2040 aac, fill 2041)");
  PlayedSeries again(kAll);
  again.begins_anew = true;
  again.play(R"(
      1000 start             > key
      1000 stop 1000 0       > end 1000, fill 1000
      1000 done 0            > stopped, key
      1000 state             > recording)");
  // Whose end was planned already, and whose wasn't.
  play(kAll, R"(
      1000 start             > key
      1000 key 1000          > open 1 mp4 va 1000 aac#1, picture 1
      1000 heard 1090        >
      1000 failed 1          >
      1000 stop 1100 300     > end 1100
      1100 done 0            > stopped
      1200 start             > end 1090, fill 1100, key
      1200 key 1210          > open 2 mp4 va 1210 aac#2, picture 2)");
}

TEST(EndReason, HasTheWordsOfManifestAndLog) {
  std::string words;
  for (int i = 0; i <= static_cast<int>(end_reason::kFailed); ++i) {
    words += text_of(static_cast<end_reason>(i)) + ", ";
  }
  EXPECT_EQ(words,
            "chunk full, picture changed, picture came, picture stopped, sound changed, "
            "service stopped, user left, let go, end of media, recording ended, error, ");
  EXPECT_EQ(text_of("error: x"), "error: x");
}

}  // namespace
}  // namespace zelta::test
