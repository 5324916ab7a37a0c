// SPDX-License-Identifier: Apache-2.0
// Users who send RTP: real senders on loopback, with what can go wrong on the way.
#include <filesystem>
#include <map>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <vector>

#include <arpa/inet.h>
#include <gio/gio.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "base/event_loop.h"
#include "base/scoped_timer.h"
#include "base/unique_fd.h"
#include "core_service/media/gst.h"
#include "support/hex.h"
#include "support/program.h"
#include "support/recording_test.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

// A command that runs until the end of the test.
struct Process : Program {
  explicit Process(const std::string& command)
      : Program({"/bin/sh", "-c", "exec " + command + " >/dev/null 2>&1"}) {}
};

// A sender in this process. Its reports go out and feedback comes in by one socket, as SFUs do it.
class Sender {
 public:
  explicit Sender(const std::string& description) {
    gst_init(nullptr, nullptr);
    std::string error;
    pipeline_ = core_service::media::make_pipeline(description, error);
    if (!pipeline_) throw std::runtime_error(error);
    GstElement* const in = core_service::media::child(pipeline_.get(), "reports_in");
    if (in != nullptr) {
      gst_element_set_state(in, GST_STATE_READY);
      GSocket* socket = nullptr;
      g_object_get(in, "used-socket", &socket, nullptr);
      g_object_set(core_service::media::child(pipeline_.get(), "reports_out"), "socket", socket,
                   "close-socket", FALSE, nullptr);
      g_object_unref(socket);
    }
    gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  }
  ~Sender() { end(); }
  void end() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }

 private:
  core_service::media::element_ptr pipeline_;
};

// A UDP socket of the test's own, whose port nobody else gets while it is open.
class Socket {
 public:
  explicit Socket(int port = 0) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address_.sin_port = htons(static_cast<uint16_t>(port));
    bound_ = bind(fd_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof address_) == 0;
    socklen_t size = sizeof address_;
    getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address_), &size);
  }
  bool bound() const { return bound_; }
  // Takes one packet; false when none has come for 10 s.
  bool wait_packet() const {
    pollfd readable{fd_.get(), POLLIN, 0};
    char packet[2048];
    return poll(&readable, 1, 10'000) == 1 && recv(fd_.get(), packet, sizeof packet, 0) > 0;
  }
  int port() const { return ntohs(address_.sin_port); }
  void send(int port, const std::vector<uint8_t>& bytes) {
    sockaddr_in to = address_;
    to.sin_port = htons(static_cast<uint16_t>(port));
    sendto(fd_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  }

 private:
  base::unique_fd fd_;
  sockaddr_in address_{};
  bool bound_;
};

// The first of six ports in a row that are free now: two streams of two each, and the sender's.
int six_free_ports() {
  for (;;) {
    const Socket first;
    const int port = first.port() & ~1;
    bool free = port > 1024 && port < 65530;
    for (int i = 0; free && i < 6; ++i) free = port + i == first.port() || Socket(port + i).bound();
    if (free) return port;
  }
}

constexpr const char* kOpenPort = "m=audio 9 RTP/AVP 0\n";

class RtpTest : public RecordingTest {
 protected:
  RtpTest() : port(six_free_ports()) {}

  void join_channel() { join_folder({{"joined"}}); }
  void put_user(const std::string& name, const std::string& media) const {
    std::filesystem::rename(
        dir.file(name, "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nt=0 0\n" + media),
        room() + name);
  }
  // User 1, of whom the recorder listens to H.264 (96), VP8 (98), Opus (97) and PCMU (0) from then
  // on.
  void describe(const std::string& profile = "RTP/AVPF") {
    put_user("1.sdp", "m=video " + std::to_string(port) + " " + profile +
                          " 96 98\na=rtpmap:96 H264/90000\na=rtpmap:98 VP8/90000\nm=audio " +
                          std::to_string(port + 2) + " " + profile +
                          " 97 0\na=rtpmap:97 opus/48000/2\n");
    ASSERT_TRUE(handler.wait_for("user in 1"));
  }
  void user_leaves() {
    std::filesystem::remove(room() + "1.sdp");
    ASSERT_TRUE(handler.wait_for("user out 1"));
  }
  void end_recording() {
    user_leaves();
    release();
  }
  // Video from a real RTP session that takes feedback: a key frame each 1000 pictures, unless one
  // is asked for.
  std::string video_sender(const std::string& ssrc, const std::string& size = "160x90",
                           const std::string& encrypt = "") const {
    const size_t cross = size.find('x');
    const std::string to = "udpsink host=127.0.0.1 sync=false async=false port=";
    std::string text =
        "rtpbin name=r rtp-profile=avpf videotestsrc is-live=true ! video/x-raw,width=" +
        size.substr(0, cross) + ",height=" + size.substr(cross + 1) +
        ",framerate=25/1 ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=1000 ! "
        "video/x-h264,profile=baseline ! rtph264pay pt=96 config-interval=-1 ssrc=" +
        ssrc + " ! application/x-rtp,rtcp-fb-nack-pli=true ! r.send_rtp_sink_0 r.send_rtp_src_0 ! ";
    if (!encrypt.empty()) return text + encrypt + " ! " + to + std::to_string(port);
    return text + to + std::to_string(port) +
           " udpsrc name=reports_in port=0 ! r.recv_rtcp_sink_0 "
           "r.send_rtcp_src_0 ! " +
           to + std::to_string(port + 1) + " name=reports_out";
  }
  std::string host_streams(const std::string& source, const std::string& host) const {
    const std::string to = " -c copy -f rtp rtp://" + host + ":";
    return " -i " + source + " -map 0:v" + to + std::to_string(port) + " -map 0:a" + to +
           std::to_string(port + 2);
  }
  // Sound, a beep of 0.1 s each second.
  std::string sound_sender(int buffers, const std::string& ssrc = "7") const {
    return "gst-launch-1.0 audiotestsrc is-live=true samplesperbuffer=960 wave=ticks num-buffers=" +
           std::to_string(buffers) +
           " ! audio/x-raw,rate=48000,channels=1 ! opusenc ! rtpopuspay pt=97 ssrc=" + ssrc +
           to_sound_port();
  }
  std::string to_sound_port() const {
    return " ! udpsink sync=false host=127.0.0.1 port=" + std::to_string(port + 2);
  }

  const int port;
};

TEST_F(RtpTest, FfmpegsStreamsArriveWholeAndInSync) {
  // The third is what the recorder's settings say of sound.
  const std::tuple<std::string, std::string, const char*, std::string, const char*> rows[] = {
      {"127.0.0.1", "libx264 -bf 0 -g 20", "as it comes", "h264 opus", ".mp4"},
      {"[::1]", "libvpx -deadline realtime -g 20", "as it comes", "vp8 opus", ".webm"},
      {"127.0.0.1", "libx264 -bf 0 -g 20", "aac", "h264 aac", ".mp4"},
  };
  for (const auto& [host, coding, sound, codecs, ending] : rows) {
    SCOPED_TRACE(codecs);
    const std::string source = dir.path() + "source.mkv";
    make_media(
        "testsrc=size=160x120:rate=20:duration=4 -f lavfi -i sine=duration=4 -c:a libopus -c:v " +
            coding,
        source);
    const std::string chosen =
        dir.file("settings.json", std::string(R"({"sound": ")") + sound + "\"}");
    setenv("ZELTA_RECORDER_SETTINGS", chosen.c_str(), 1);
    const std::string streams = host_streams(source, host);
    const auto send = [&streams](const char* how) {
      return std::string("ffmpeg -v error -re ").append(how).append(streams);
    };
    // A short run that nobody hears writes the description.
    const std::string made = dir.path() + "made.sdp";
    output_of(send("-t 0.1") + " -sdp_file " + made);
    join_channel();
    unsetenv("ZELTA_RECORDER_SETTINGS");
    std::filesystem::rename(made, room() + "1.sdp");
    ASSERT_TRUE(handler.wait_for("user in 1"));
    Process sender(send(""));
    sender.end();
    end_recording();
    expect_whole_files(1);
    const std::string path = path_of(0);
    EXPECT_EQ(codecs_of(path), codecs);
    EXPECT_EQ(fields(files()[0], {"video_codec", "audio_codec", "width"}), codecs + " 160");
    EXPECT_EQ(std::filesystem::path(path).extension(), ending);
    // The file's own times: ffmpeg would round them to 1/20 s, and two neighbours to the same.
    const auto times =
        lines_of(probed(path, "-select_streams v -show_entries frame=pts -of default=nk=1:nw=1"));
    EXPECT_EQ(times.size(), 80U);
    int64_t before = -1;
    for (const std::string& time : times) {
      EXPECT_GT(std::atoll(time.c_str()), before) << "pictures in the order of their times";
      before = std::atoll(time.c_str());
    }
  }
}

TEST_F(RtpTest, LateJoinerAsksForAKeyFrameAndANewSsrcOrSizeGoesOn) {
  config.isVideoOnly = true;
  join_channel();
  std::optional<Socket> listener(port);
  Sender first(video_sender("1111"));
  // Its only key frame has passed when the recorder listens.
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(listener->wait_packet());
  listener.reset();
  const auto start = std::chrono::steady_clock::now();
  describe();
  ASSERT_TRUE(handler.wait_for("first video 1 "));
  ASSERT_TRUE(wait_recorded(1500)) << "without the key frame there would be no file for 40 s";
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  first.end();
  Sender second(video_sender("2222", "320x180"));
  ASSERT_TRUE(wait_recorded(1000, 2));
  end_recording();
  expect_whole_files(2);
  EXPECT_EQ(fields(files()[0], {"width", "closed"}), "160 picture changed");
  EXPECT_EQ(files()[1]["width"], 320);
}

TEST_F(RtpTest, SoundThatStopsLeavesSilenceAndAnotherCodecGoesOnInAnotherFile) {
  join_channel();
  describe();
  Process first(sound_sender(75));
  first.end();
  // Goodbye, which is one source's alone.
  Socket().send(port + 3, {0x81, 203, 0, 1, 0, 0, 0, 7});
  ASSERT_TRUE(wait_recorded(6000)) << "silence goes on being recorded";
  Process second(sound_sender(75, "8"));
  second.end();
  Process pcmu(
      "gst-launch-1.0 audiotestsrc is-live=true num-buffers=75 samplesperbuffer=160 ! "
      "audio/x-raw,rate=8000,channels=1 ! mulawenc ! rtppcmupay pt=0 ssrc=9" +
      to_sound_port());
  pcmu.end();
  EXPECT_EQ(handler.count("user out"), 0);
  end_recording();
  expect_whole_files(2);
  EXPECT_EQ(fields(files()[0], {"kind", "audio_codec", "closed"}), "audio opus sound changed");
  expect_told_duration(files()[0]);
  EXPECT_GT(seconds_of(path_of(0)), 7.0);
  const std::string loudness =
      output_of("ffmpeg -v info -ss 6 -i " + path_of(0) + " -af volumedetect -f null -");
  EXPECT_EQ(loudness.find("max_volume: -91"), std::string::npos) << "the second is heard";
  EXPECT_EQ(files()[1]["audio_codec"], "aac");
  // A source counts once the one before has been silent for a fifth of a second.
  EXPECT_GT(files()[1]["duration_ms"].asInt(), 1250);
  expect_no_gaps(25);
}

TEST_F(RtpTest, PictureThatStopsGivesWayToSoundAndComesBack) {
  join_channel();
  describe();
  Process sound(sound_sender(100'000));
  {
    const Sender video(video_sender("5555"));
    ASSERT_TRUE(wait_recorded(1500));
  }
  ASSERT_TRUE(wait_recorded(1000, 2)) << "sound alone, on the disk";
  const Sender video(video_sender("6666"));
  ASSERT_TRUE(wait_recorded(1000, 3));
  end_recording();
  expect_whole_files(3);
  std::string kinds;
  for (const Json::Value& file : files()) kinds += file["kind"].asString() + " ";
  EXPECT_EQ(kinds, "audio_video audio audio_video ");
  expect_no_gaps(45);
}

TEST_F(RtpTest, HostilePacketsCostNothing) {
  join_channel();
  describe();
  Sender video(video_sender("3333"));
  ASSERT_TRUE(wait_recorded(500));
  Socket hostile;
  uint32_t random = 1;
  for (int i = 0; i < 4000; ++i) {
    std::vector<uint8_t> bytes((random >> 8U) % 200);
    for (uint8_t& byte : bytes)
      byte = static_cast<uint8_t>((random = random * 1664525 + 1013904223) >> 24U);
    // Every other one looks like RTP or RTCP.
    if (i % 2 == 0 && bytes.size() > 12) bytes[0] = 0x80;
    if (i % 4 == 0 && bytes.size() > 12) bytes[1] = 96;
    hostile.send(port + i % 4, bytes);
  }
  ASSERT_TRUE(wait_recorded(2500)) << "the recording goes on";
  end_recording();
  EXPECT_EQ(handler.count("error"), 0);
  EXPECT_EQ(handler.count("warning"), 0) << "no recovery";
  expect_whole_files(1);
}

// A recorder that can't keep up says so, and by how much.
TEST_F(RtpTest, PacketsWithoutRoomAreCountedAndTold) {
  join_channel();
  describe();
  const Sender video(video_sender("3333"));
  ASSERT_TRUE(wait_recorded(500));
  signal_recorder("STOP");
  Socket flood;
  const std::vector<uint8_t> packet(1200, 0x80);
  for (int i = 0; i < 20'000; ++i) flood.send(port, packet);
  signal_recorder("CONT");
  ASSERT_TRUE(handler.wait_for("error 2 1"));
  end_recording();
  const Json::Value written = manifest();
  EXPECT_GT(written["lost_packets"]["1"].asUInt(), 1000U);
  ASSERT_EQ(written["missing"].size(), 1U);
  EXPECT_EQ(written["missing"][0]["medium"], "packets");
  for (const Json::Value& entry : files()) EXPECT_NE(entry["closed"], "");
}

// As on a machine that has no time for it: of each second and a half the recorder gets the last
// moment. Whoever came last goes, and those who wait come in their order when there is room.
TEST_F(RtpTest, WhoHasNoRoomIsToldAndTakenUpWhenThereIsSome) {
  const std::string given = dir.file("recorder.json", R"({"most_users": 2})");
  setenv("ZELTA_RECORDER_SETTINGS", given.c_str(), 1);
  join_channel();
  unsetenv("ZELTA_RECORDER_SETTINGS");
  describe();
  const Process sound(sound_sender(100'000));
  for (const char* const user : {"2.sdp", "3.sdp"}) put_user(user, kOpenPort);
  ASSERT_TRUE(handler.wait_for("user in 2"));
  ASSERT_TRUE(handler.wait_for("error 2 1")) << "of user 3";
  ASSERT_TRUE(wait_recorded(500));
  const std::string recorder = " -P " + std::to_string(getpid()) + " ZeltaCoreServic";
  output_of("for i in 1 2 3 4 5 6; do pkill -STOP" + recorder + "; sleep 1.4; pkill -CONT" +
            recorder + "; sleep 0.1; done");
  ASSERT_TRUE(handler.wait_for("user out 2"));
  ASSERT_TRUE(handler.wait_for("user in 3"));
  EXPECT_EQ(handler.count("user in 2"), 1);
  user_leaves();
  ASSERT_TRUE(handler.wait_for("user in 2", 2));
  release();
  std::map<int, std::string> told;
  const Json::Value missing = manifest()["missing"];
  for (const Json::Value& one : missing) {
    EXPECT_EQ(one["medium"], "all");
    EXPECT_GE(one["until_utc_ms"].asInt64(), one["utc_ms"].asInt64()) << one["uid"];
    told[one["uid"].asInt()] += one["reason"].asString() + ";";
  }
  ASSERT_EQ(told.size(), 2U);
  EXPECT_EQ(told[3].find("2 users at a time is the most"), 0U) << told[3];
  EXPECT_EQ(told[2].find("let go, because the machine is too busy for all;"), 0U) << told[2];
  expect_whole_files(1);  // of the first user, who was recorded throughout
}

TEST_F(RtpTest, RightKeyIsRecordedAndAWrongOneIsAnErrorWithoutAFile) {
  config.decryptionMode = const_cast<char*>("aes-256-gcm");
  config.secret = const_cast<char*>("AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKis=");
  byte_list numbers(44);
  std::iota(numbers.begin(), numbers.end(), uint8_t{0});
  std::string key = to_hex(numbers.data(), numbers.size());
  for (const bool right : {true, false}) {
    join_channel();
    describe("RTP/SAVPF");
    if (!right) key[0] = '1';
    Sender video(video_sender("4444", "160x90",
                              "srtpenc key=" + key +
                                  " rtp-cipher=aes-256-gcm rtp-auth=null "
                                  "rtcp-cipher=aes-256-gcm rtcp-auth=null"));
    if (right) {
      EXPECT_TRUE(wait_recorded(1000));
    } else {
      EXPECT_TRUE(handler.wait_for("error 2 1"));
    }
    end_recording();
    EXPECT_EQ(files().size(), right ? 1U : 0U);
    EXPECT_EQ(log().find("can be decrypted") == std::string::npos, right);
  }
}

// The units of a raw stream of AV1, each as packets of 1,000 bytes at most: an OBU or a part of one
// a packet, without its size, behind the byte that says whether it continues and is continued.
std::vector<std::vector<std::string>> av1_packets(const std::string& stream) {
  std::vector<std::vector<std::string>> units;
  for (size_t at = 0; at < stream.size();) {
    const auto header = static_cast<uint8_t>(stream[at]);
    size_t bytes = 0;
    size_t content = at + 1;
    for (int shift = 0;; shift += 7) {
      const auto part = static_cast<uint8_t>(stream.at(content++));
      bytes |= size_t{part & 0x7fU} << shift;
      if (part < 0x80) break;
    }
    at = content + bytes;
    if (header >> 3U == 2) {
      units.emplace_back();  // begins with the delimiter, which isn't sent
      continue;
    }
    const std::string obu = static_cast<char>(header & ~2U) + stream.substr(content, bytes);
    for (size_t from = 0; from < obu.size(); from += 1000) {
      const bool continued = from + 1000 < obu.size();
      const int aggregation = 0x10 | (from > 0 ? 0x80 : 0) | (continued ? 0x40 : 0);
      units.back().push_back(static_cast<char>(aggregation) + obu.substr(from, 1000));
    }
  }
  return units;
}

TEST_F(RtpTest, Av1AndLevelsOfSoundNeedNoDecoder) {
  make_media(
      "testsrc2=size=320x180:rate=25:duration=2 -c:v libaom-av1 -usage realtime -cpu-used 8 "
      "-b:v 1M -g 25 -f obu",
      dir.path() + "pictures.obu");
  const auto units = av1_packets(read_file(dir.path() + "pictures.obu"));
  ASSERT_EQ(units.size(), 50U);
  config.audioIndicationInterval = 200;
  join_channel();
  put_user("1.sdp", "m=video " + std::to_string(port) +
                        " RTP/AVP 45\na=rtpmap:45 AV1/90000\nm=audio " + std::to_string(port + 2) +
                        " RTP/AVP 97\na=rtpmap:97 opus/48000/2\n"
                        "a=extmap:3 urn:ietf:params:rtp-hdrext:ssrc-audio-level\n");
  ASSERT_TRUE(handler.wait_for("user in 1"));
  const Process sound(
      "gst-launch-1.0 audiotestsrc is-live=true samplesperbuffer=960 volume=0.5 ! "
      "audio/x-raw,rate=48000,channels=1 ! level audio-level-meta=true ! opusenc ! "
      "rtpopuspay pt=97 ! 'application/x-rtp,extmap-3=(string)<\"\","
      "urn:ietf:params:rtp-hdrext:ssrc-audio-level,\"vad=on\">'" +
      to_sound_port());
  Socket pictures;
  base::event_loop loop;
  uint16_t sequence = 1;
  size_t next = 0;
  const base::scoped_timer clock(loop, 40, [&] {
    if (next == units.size()) return loop.stop();
    const auto at = static_cast<uint32_t>(next) * 3600;
    for (size_t i = 0; i < units[next].size(); ++i) {
      const bool last = i + 1 == units[next].size();
      std::vector<uint8_t> packet{0x80, static_cast<uint8_t>(45 | (last ? 0x80 : 0))};
      const uint64_t rest = uint64_t{sequence++} << 48U | uint64_t{at} << 16U;
      for (int shift = 56; shift >= 16; shift -= 8) {
        packet.push_back(static_cast<uint8_t>(rest >> static_cast<unsigned>(shift)));
      }
      packet.insert(packet.end(), {0, 0, 0, 9});
      packet.insert(packet.end(), units[next][i].begin(), units[next][i].end());
      pictures.send(port, packet);
    }
    ++next;
  });
  loop.run(false);
  ASSERT_TRUE(handler.wait_for("volumes 1=1", 3));
  EXPECT_EQ(output_of("cat /proc/" + lines_of(recorder_pid())[0] + "/task/*/comm | grep -c :src"),
            "0\n")
      << "a pipeline decodes";
  end_recording();
  expect_whole_files(static_cast<unsigned>(files().size()));
  EXPECT_EQ(codecs_of(path_of(0)), "av1 opus");
  EXPECT_EQ(stream_of(path_of(0), "v", "nb_frames"), "50");
}

TEST_F(RtpTest, OpenPortIsChosenInItsBoundsAndAnswered) {
  config.lowUdpPort = port;
  config.highUdpPort = port + 5;
  join_channel();
  put_user("4.sdp", kOpenPort);
  ASSERT_TRUE(handler.wait_for("user in 4"));
  const std::string answer = read_file(room() + "4.sdp.answer");
  const int chosen = std::atoi(answer.substr(answer.find("m=audio ") + 8).c_str());
  EXPECT_GE(chosen, port);
  EXPECT_LT(chosen, port + 5);
  EXPECT_FALSE(Socket(chosen).bound()) << "the recorder listens there";
  put_user("5.sdp", kOpenPort);
  std::filesystem::rename(dir.file("6.sdp", "v=0\n"), room() + "6.sdp");
  ASSERT_TRUE(handler.wait_for("user in 5"));
  release();
  EXPECT_NE(log().find("user 6: not recorded (all): 6.sdp: it describes no stream"),
            std::string::npos);
  EXPECT_EQ(handler.count("error 2 1"), 1);
}

}  // namespace
}  // namespace zelta::test
