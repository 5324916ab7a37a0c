// SPDX-License-Identifier: Apache-2.0
// Offers as publishers write them, what is wrong with others, and what they are answered.
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core_service/webrtc/answer.h"
#include "core_service/webrtc/ice_fragment.h"
#include "core_service/webrtc/offer.h"
#include "support/webrtc_offers.h"

namespace zelta::test {
namespace {

using namespace core_service::webrtc;

struct parsed {
  explicit parsed(const std::string& text) {
    gst_init(nullptr, nullptr);
    made = parse_offer(text, left_out, error);
  }

  std::string told() const {
    std::string text = error;
    for (const auto& one : left_out) text += "; " + one.medium + ": " + one.reason;
    return text;
  }

  std::vector<core_service::missing_medium> left_out;
  std::string error;
  std::optional<offer> made;
};

answer_terms terms() {
  answer_terms ours;
  ours.ufrag = "ours";
  ours.password = "ourpasswordof22letters";
  ours.fingerprint = kDigest256;
  ours.candidates = {{"192.0.2.1", 7000}, {"2001:db8::1", 7000}, {"192.0.2.1", 7001}};
  ours.session_id = 4611686018427387904;
  ours.version = 1;
  return ours;
}

// Line by line, what is to be received.
std::string text_of(const offered_line& line) {
  std::string text = line.mid + " " + line.media;
  if (!line.accepted) return text + " refused";
  if (line.sctp_port) return text + " data " + std::to_string(*line.sctp_port);
  for (const int type : line.preferred) {
    const auto& one = line.payloads.at(type);
    text += " " + std::to_string(type) + "=" + one.kind->name;
    for (const std::string& sets : one.described.parameter_sets) text += "," + sets;
    for (const auto& [again, repeated] : line.retransmissions) {
      if (repeated == type) text += "+" + std::to_string(again);
    }
  }
  for (const uint32_t source : line.sources) text += " ssrc " + std::to_string(source);
  for (const auto& [again, source] : line.repeats) {
    text += " " + std::to_string(again) + " repeats " + std::to_string(source);
  }
  for (const std::string& rid : line.rids) text += " rid " + rid;
  const std::pair<const char*, int> extensions[] = {{"level", line.level_extension},
                                                    {"mid", line.mid_extension},
                                                    {"rid", line.rid_extension},
                                                    {"repaired", line.repaired_rid_extension},
                                                    {"cc", line.transport_cc_extension}};
  for (const auto& [name, number] : extensions) {
    if (number != 0) text += std::string(" ") + name + ":" + std::to_string(number);
  }
  text += line.nack ? " nack" : "";
  text += line.transport_cc ? " transport-cc" : "";
  return text;
}

const std::string kSha256 = "a=fingerprint:sha-256 " + kDigest256 + "\n";
const std::string kIce = "a=ice-ufrag:EsAw\na=ice-pwd:P2uYro0UCOQ4zxjKXaWCBui1\n";
const std::string kHead = "v=0\no=- 1 1 IN IP4 127.0.0.1\ns=-\nt=0 0\n";
const std::string kTransport = kIce + kSha256 + "a=setup:actpass\n";
const std::string kAudio = "m=audio 9 UDP/TLS/RTP/SAVPF 0\na=mid:0\na=rtcp-mux\n";
const std::string kVideo =
    "m=video 9 UDP/TLS/RTP/SAVPF 96\na=mid:1\na=rtcp-mux\na=rtpmap:96 VP8/90000\n";
const std::string kOne = kHead + kTransport + kAudio;

TEST(OfferTest, PublishersAreUnderstood) {
  const std::tuple<std::string, const char*, std::vector<const char*>> rows[] = {
      {kChromiumOffer,
       "EsAw",
       {"0 audio 111=opus 0=pcmu 8=pcma ssrc 1499324412 level:1 mid:4 cc:3 transport-cc",
        "1 video 107=h264+108 103=h264+104 96=vp8+97 98=vp9+99 45=av1+46 35=hevc+36 rid h rid m "
        "rid l mid:4 rid:10 repaired:11 cc:3 nack transport-cc"}},
      // Its video's a=rtcp-fb knows no transport-cc.
      {kFirefoxOffer,
       "9a1c2b3d",
       {"0 audio 109=opus 0=pcmu 8=pcma ssrc 2655508255 level:1 mid:3",
        "1 video 126=h264+127 97=h264+98 120=vp8+124 ssrc 3742136402 1217893355 repeats 3742136402 "
        "mid:3 cc:7 nack",
        "2 application data 5000"}},
      {kObsOffer,
       "1FtB",
       {"0 audio 111=opus ssrc 1829301221", "1 video 96=h264 ssrc 1829301222 nack"}},
      // There is feedback of transport-cc and no extension for it.
      {kGstreamerOffer,
       "C2XiNMAvrLOOvK3kVqXbqyAM2W4BxpLo",
       {"video0 video 96=h264,Z0LAH9kAUAW7ARAAAAMAEAAAAwPA8YMkgA==,aMuDyyA=+97 ssrc 1434861044 "
        "2721953403 repeats 1434861044 mid:1 nack",
        "audio1 audio 98=opus ssrc 3160297712"}},
  };
  for (const auto& [text, ufrag, lines] : rows) {
    const parsed got(text);
    ASSERT_TRUE(got.made) << got.error;
    EXPECT_EQ(got.made->ufrag, ufrag);
    EXPECT_EQ(got.made->fingerprint_hash, "sha-256");
    EXPECT_EQ(got.made->fingerprint, kDigest256);
    ASSERT_EQ(got.made->lines.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(text_of(got.made->lines[i]), lines[i]);
    EXPECT_TRUE(got.left_out.empty()) << got.told();
  }
  const parsed chromium(kChromiumOffer);
  EXPECT_EQ(chromium.made->lines[0].payloads.at(111).level_extension, 1)
      << "who depayloads looks there";
  EXPECT_EQ(chromium.made->lines[0].payloads.at(111).clock_rate, 48000U);
}

// Each a line of a form that the publishers above don't write.
TEST(OfferTest, OneLineSaysWhatIsReceived) {
  const std::string video = "m=video 9 UDP/TLS/RTP/SAVPF ";
  const std::string named = "\na=mid:1\na=rtcp-mux\n";
  const std::string head = kHead + kTransport;
  const std::string vp8 = video + "96" + named + "a=rtpmap:96 VP8/90000\n";
  const std::pair<std::string, const char*> rows[] = {
      {video + "0 96 96 300 x" + named + "a=rtpmap:96 VP8/90000\n", "1 video 96=vp8"},
      {video + "96 97" + named +
           "a=rtpmap:96 VP9/90000\na=rtpmap:97 VP9/90000\na=fmtp:96 profile-id=1\n",
       "1 video 97=vp9"},
      {video + "96 97 98" + named +
           "a=rtpmap:96 H264/90000\na=fmtp:96 packetization-mode=2\na=rtpmap:97 H264/90000\n"
           "a=rtpmap:98 h264/90000\na=fmtp:98 Packetization-Mode = 1 ; x=2\n",
       "1 video 98=h264 97=h264"},
      // What repeats something that isn't received, nothing, or itself.
      {video + "96 97 98 99 100" + named +
           "a=rtpmap:96 VP8/90000\na=rtpmap:97 rtx/90000\na=fmtp:97 apt=101\na=rtpmap:98 "
           "rtx/90000\na=rtpmap:99 rtx/90000\na=fmtp:99 apt=99\na=rtpmap:100 RTX/90000\n"
           "a=fmtp:100 rtx-time=200; apt=96\n",
       "1 video 96=vp8+100"},
      {vp8 + "a=extmap:0 urn:ietf:params:rtp-hdrext:sdes:mid\n"
             "a=extmap:256 urn:ietf:params:rtp-hdrext:sdes:mid\n"
             "a=extmap:3/recvonly urn:ietf:params:rtp-hdrext:sdes:mid\n"
             "a=extmap:4/inactive urn:ietf:params:rtp-hdrext:sdes:mid\n"
             "a=extmap:5 urn:ietf:params:rtp-hdrext:sdes:mid2\n"
             "a=extmap:255/sendrecv urn:ietf:params:rtp-hdrext:sdes:mid with=more\n",
       "1 video 96=vp8 mid:255"},
      {vp8 + "a=rtcp-fb:* nack  pli\na=rtcp-fb:97 nack\n", "1 video 96=vp8"},
      {vp8 + "a=rtcp-fb:* nack\na=rtcp-fb:* goog-remb\n", "1 video 96=vp8 nack"},
      {vp8 + "a=ssrc:1 cname:a\na=ssrc:2 cname:a\na=ssrc:3 cname:a\na=ssrc:1 msid:b c\n"
             "a=ssrc:4294967295\na=ssrc:4294967296 x\na=ssrc: x\na=ssrc:-1 x\n"
             "a=ssrc-group:FEC-FR 1 2\na=ssrc-group:FID 1 3\na=ssrc-group:FID 5 5\n"
             "a=ssrc-group:SIM 1 4294967295\n",
       "1 video 96=vp8 ssrc 1 ssrc 4294967295 3 repeats 1"},
      {vp8 + "a=rid:a send pt=96\na=rid:b send\na=rid:c recv\na=rid:d send\n"
             "a=simulcast: recv c send e,b;c;~a;a\n",
       "1 video 96=vp8 rid b rid a"},
      {vp8 + "a=rid:a send\n", "1 video 96=vp8"},
      {vp8 + "a=msid:- t\n", "1 video 96=vp8"},
      {vp8 + "a=sendrecv\n", "1 video 96=vp8"},
      // A number that is none.
      {kAudio + "a=rtpmap::5 AV1/90000\n", "0 audio 0=pcmu"},
      {"m=video 9 TCP/TLS/RTP/SAVPF 96" + named + "a=rtpmap:96 VP8/90000\n", "1 video 96=vp8"},
  };
  for (const auto& [line, says] : rows) {
    const parsed got(head + line);
    ASSERT_TRUE(got.made) << got.error << "\n" << line;
    EXPECT_EQ(text_of(got.made->lines[0]), says) << line;
    EXPECT_EQ(got.told(), "");
  }
}

TEST(OfferTest, LinesThatAreNotReceivedAreTold) {
  const std::string head = kHead + kTransport;
  const std::pair<std::string, const char*> rows[] = {
      {"m=video 0 UDP/TLS/RTP/SAVPF 96\n", "; : m=video is turned off"},
      {"m=video 0 UDP/TLS/RTP/SAVPF 96\na=mid:7\n", "; : m=video (mid 7) is turned off"},
      {"m=video 9 UDP/TLS/RTP/SAVPF 96\na=mid:7\na=recvonly\n",
       "; : m=video (mid 7) is a=recvonly: it should be sendonly or sendrecv"},
      {"m=video 9 UDP/TLS/RTP/SAVPF 96\na=mid:7\na=inactive\n", "; : m=video (mid 7) is a=inact"},
      {"m=video 9 RTP/AVP 96\na=mid:7\na=rtpmap:96 VP8/90000\n",
       "; video: m=video (mid 7) is RTP/AVP: it should be UDP/TLS/RTP/SAVPF"},
      {"m=video 9 UDP/TLS/RTP/SAVPF 96\na=mid:7\na=rtpmap:96 H263/90000\n",
       "; video: m=video (mid 7) has no codec that can be received: H264"},
      {"m=video 9 UDP/TLS/RTP/SAVPF 96\na=mid:7\na=rtpmap:96 opus/48000/2\n", "; video: m=video"},
      {"m=text 9 UDP/TLS/RTP/SAVPF 96\na=mid:7\n", "; : m=text (mid 7) is neither audio nor video"},
      {"m=application 9 UDP/DTLS/SCTP webrtc-datachannel\na=mid:7\n",
       "; : m=application (mid 7) should have a=sctp-port"},
      {"m=application 9 UDP/DTLS/SCTP webrtc-datachannel\na=mid:7\na=sctp-port:65536\n",
       "; : m=application (mid 7) should have a=sctp-port"},
      {"m=application 9 DTLS/SCTP 5000\na=mid:7\na=sctpmap:5000 webrtc-datachannel 1024\n",
       "; : m=application (mid 7) should be UDP/DTLS/SCTP webrtc-datachannel"},
  };
  for (const auto& [line, told] : rows) {
    const parsed got(kOne + line);
    ASSERT_TRUE(got.made) << got.error;
    EXPECT_EQ(got.told().rfind(told, 0), 0U) << got.told();
    EXPECT_FALSE(got.made->lines[1].accepted);
    const parsed alone(head + line);
    EXPECT_EQ(alone.error, "it offers no stream that can be received");
    EXPECT_EQ(alone.left_out.size(), 1U);
  }
  const std::string data =
      "m=application 9 UDP/DTLS/SCTP webrtc-datachannel\na=mid:7\na=sctp-port:5000\n";
  EXPECT_EQ(parsed(kOne + data).told(),
            "; : m=application (mid 7) isn't in the a=group:BUNDLE of the media");
  EXPECT_EQ(parsed(kHead + "a=group:BUNDLE 0 7\n" + kTransport + kAudio + data).told(), "");
  const parsed two(kHead + "a=group:BUNDLE 0 7\n" + kTransport + kAudio +
                   "m=audio 9 UDP/TLS/RTP/SAVPF 8\na=mid:7\na=rtcp-mux\n");
  EXPECT_EQ(two.told().rfind("; audio: m=audio (mid 7) is a second one of its kind", 0), 0U)
      << two.told();
  // What is said for the whole session is a line's that says nothing.
  EXPECT_EQ(parsed(kHead + "a=recvonly\n" + kTransport + kAudio + kVideo + "a=sendonly\n").told(),
            "; : m=audio (mid 0) is a=recvonly: it should be sendonly or sendrecv");
}

std::string repeated(const std::string& text, int times, const std::string& rest = "\n") {
  std::string all;
  for (int i = 1; i <= times; ++i) all.append(text).append(std::to_string(i)).append(rest);
  return all;
}

std::string layers(int count) {
  std::string names = "1";
  for (int i = 2; i <= count; ++i) names += ";" + std::to_string(i);
  return repeated("a=rid:", count, " send\n") + "a=simulcast:send " + names + "\n";
}

TEST(OfferTest, WhatCannotBeAnsweredIsNamed) {
  const std::string bundle = "a=group:BUNDLE 0 1\n";
  const auto with = [](const std::string& transport) { return kHead + transport + kAudio; };
  const std::pair<std::string, std::string> rows[] = {
      {"", "64 KiB"},
      {"{\"sdp\": \"v=0\"}", "0 media lines"},
      {kHead + kTransport, "it has 0 media lines (m=): it should have 1 to 32"},
      {kOne + repeated("m=video 0 UDP/TLS/RTP/SAVPF 96\na=mid:v", 31), ""},
      {kOne + repeated("m=video 0 UDP/TLS/RTP/SAVPF 96\na=mid:v", 32), "it has 33 media lines"},
      {kOne + "m=video\n", "m=video should be m=KIND PORT PROTOCOL FORMAT…"},
      {kHead + kTransport + "m=audio 9 UDP/TLS/RTP/SAVPF 0\na=rtcp-mux\n",
       "m=audio has no a=mid: each media line should have one of its own"},
      {kHead + kTransport + "m=audio 9 UDP/TLS/RTP/SAVPF 0\na=mid:a b\n",
       "a=mid:a b should be one word"},
      {kOne + "m=video 0 UDP/TLS/RTP/SAVPF 96\na=mid:0\n",
       "a=mid:0 stands on two media lines: each should have one of its own"},
      // Transports.
      {kOne + kVideo, "m=audio (mid 0) is in no a=group:BUNDLE: all media should be in one"},
      {kHead + "a=group:BUNDLE 0\na=group:BUNDLE 1\n" + kTransport + kAudio + kVideo,
       "m=video (mid 1) isn't in the a=group:BUNDLE of m=audio (mid 0): all media should be in "
       "one"},
      {kHead + "a=group:LS 0 1\n" + kTransport + kAudio + kVideo,
       "m=audio (mid 0) is in no a=group:BUNDLE"},
      {kHead + "a=group:BUNDLE 2 3\n" + bundle + kTransport + kAudio + kVideo, ""},
      {kHead + bundle + kTransport + kAudio + "m=video 9 UDP/TLS/RTP/SAVPF 31\na=mid:9\n", ""},
      {kHead + kTransport + "m=audio 9 UDP/TLS/RTP/SAVPF 0\na=mid:0\n",
       "m=audio (mid 0) should have a=rtcp-mux"},
      {kHead + bundle + kTransport + kAudio + "m=video 9 UDP/TLS/RTP/SAVPF 96\na=mid:1\n" +
           "a=rtpmap:96 VP8/90000\n",
       "m=video (mid 1) should have a=rtcp-mux"},
      {kHead + bundle + kTransport + kAudio + "m=video 0 UDP/TLS/RTP/SAVPF 96\na=mid:1\n" +
           "a=rtpmap:96 VP8/90000\na=bundle-only\n",
       ""},
      // ICE.
      {with(kSha256), "it has no a=ice-ufrag: it should have 4 to 256 characters"},
      {with("a=ice-ufrag:abc\n" + kSha256), "a=ice-ufrag has 3: it should have 4 to 256"},
      {with("a=ice-ufrag:" + std::string(257, 'a') + "\n" + kSha256), "a=ice-ufrag has 257"},
      {with("a=ice-ufrag:abcd\n" + kSha256), "it has no a=ice-pwd: it should have 22 to 256"},
      {with("a=ice-ufrag:abcd\na=ice-pwd:" + std::string(21, 'a') + "\n" + kSha256),
       "a=ice-pwd has 21: it should have 22 to 256 characters"},
      {with("a=ice-ufrag:abcd\na=ice-pwd:" + std::string(257, 'a') + "\n" + kSha256), "has 257"},
      {with("a=ice-ufrag:" + std::string(256, 'a') + "\na=ice-pwd:" + std::string(256, 'a') + "\n" +
            kSha256),
       ""},
      {with("a=ice-lite\n" + kTransport), "it is a=ice-lite, as the answer is"},
      // Certificates.
      {with(kIce), "it has no a=fingerprint: it should have one by sha-256, sha-384 or sha-512"},
      {with(kIce + "a=fingerprint:sha-1 AA:BB\n"),
       "a=fingerprint:sha-1 AA:BB should be by sha-256, sha-384 or sha-512"},
      {with(kIce + "a=fingerprint:sha-256 AA:BB\n"),
       "a=fingerprint:sha-256 AA:BB should have 32 bytes in hexadecimal with colons between"},
      {with(kIce + "a=fingerprint:sha-256 " + kDigest256.substr(1) + "0\n"), "should have 32"},
      {with(kIce + "a=fingerprint:sha-256 " + kDigest256.substr(2) + "GG\n"), "should have 32"},
      {with(kIce + "a=fingerprint:sha-512 " + kDigest256 + "\n"), "should have 64 bytes"},
      // DTLS.
      {with(kIce + kSha256 + "a=setup:passive\n"),
       "a=setup:passive should be actpass or active: nobody connects from here"},
      {with(kIce + kSha256 + "a=setup:holdconn\n"), "a=setup:holdconn should be"},
      {with(kIce + kSha256 + "a=setup:active\n"), ""},
      {with(kIce + kSha256), ""},
      // Bounds.
      {kOne + repeated("a=ssrc:", 64, " cname:a\n"), ""},
      {kOne + repeated("a=ssrc:", 65, " cname:a\n"), "names more than 64 sources by a=ssrc"},
      {kOne + repeated("a=ssrc-group:FID 70 ", 64), "m=audio (mid 0) names more than 64 sources"},
      {kOne + layers(16), ""},
      {kOne + layers(17), "m=audio (mid 0) sends 17 layers by a=simulcast: it should be no more"},
  };
  for (const auto& [text, says] : rows) {
    const parsed got(text);
    EXPECT_EQ(got.made.has_value(), says.empty()) << text << got.error;
    EXPECT_EQ(got.error.empty(), says.empty()) << text;
    EXPECT_NE(got.error.find(says), std::string::npos) << got.error;
    EXPECT_LT(got.error.size(), 200U) << "a long value makes no long error";
  }
  // Cut where a character ends.
  std::string umlauts = "a";
  for (int i = 0; i < 40; ++i) umlauts += "ä";
  const parsed cut(with(kIce + kSha256 + "a=setup:" + umlauts + "\n"));
  EXPECT_TRUE(g_utf8_validate(cut.error.c_str(), -1, nullptr)) << cut.error;
}

TEST(OfferTest, StrongestFingerprintCountsWithTheLinesOwnBeforeTheSessions) {
  std::string digest384 = kDigest256 + ":" + kDigest256.substr(0, 47);
  std::string lower = kDigest256;
  for (char& one : lower) one = static_cast<char>(g_ascii_tolower(one));
  const std::tuple<std::string, const char*, std::string> rows[] = {
      {"a=fingerprint:sha-1 AA\n" + kSha256, "sha-256", kDigest256},
      {"a=fingerprint:SHA-256 " + lower + "\n", "sha-256", kDigest256},
      {kSha256 + "a=fingerprint:sha-384 " + digest384 + "\n", "sha-384", digest384},
      {"a=fingerprint:sha-384 x\na=fingerprint:sha-512 " + kDigest256 + ":" + kDigest256 + "\n",
       "sha-512", kDigest256 + ":" + kDigest256},
  };
  const std::string line =
      kHead + "a=fingerprint:sha-512 x\na=ice-ufrag:other\na=setup:passive\n" + kAudio + kIce;
  for (const auto& [lines, hash, digest] : rows) {
    const parsed got(std::string(line).append(lines).append("a=setup:active\n"));
    ASSERT_TRUE(got.made) << got.error;
    EXPECT_EQ(got.made->fingerprint_hash, hash);
    EXPECT_EQ(got.made->fingerprint, digest);
    EXPECT_EQ(got.made->ufrag, "EsAw");
    EXPECT_EQ(got.made->password, "P2uYro0UCOQ4zxjKXaWCBui1");
  }
}

// RFC 9143, section 7.2.2: the transport may stand on a line that isn't received.
TEST(OfferTest, TransportOfARefusedLineCountsForWhatIsBundledWithIt) {
  const parsed got(kHead + "a=group:BUNDLE 0 1\nm=audio 9 UDP/TLS/RTP/SAVPF 9\na=mid:0\n" +
                   kTransport + "a=rtcp-mux\na=rtcp-rsize\nm=video 0 UDP/TLS/RTP/SAVPF 96\n" +
                   "a=mid:1\na=bundle-only\na=rtpmap:96 VP8/90000\n");
  ASSERT_TRUE(got.made) << got.error;
  EXPECT_EQ(got.made->ufrag, "EsAw");
  EXPECT_TRUE(got.made->lines[1].rtcp_rsize);
}

TEST(AnswerTest, SaysWhatIsReceivedAndWhere) {
  const std::string transport =
      "a=setup:passive\r\na=ice-ufrag:ours\r\na=ice-pwd:ourpasswordof22letters\r\n"
      "a=fingerprint:sha-256 " +
      kDigest256 + "\r\n";
  const std::string expected =
      "v=0\r\no=- 4611686018427387904 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n"
      "a=ice-lite\r\na=ice-options:trickle\r\na=group:BUNDLE 0 1 2\r\n"
      "m=audio 9 UDP/TLS/RTP/SAVPF 109 0 8\r\nc=IN IP4 0.0.0.0\r\na=mid:0\r\na=recvonly\r\n"
      "a=rtcp-mux\r\n" +
      transport +
      "a=candidate:1 1 udp 2130706431 192.0.2.1 7000 typ host\r\n"
      "a=candidate:2 1 udp 2130706175 2001:db8::1 7000 typ host\r\n"
      "a=candidate:1 1 udp 2130705919 192.0.2.1 7001 typ host\r\n"
      "a=end-of-candidates\r\n"
      "a=extmap:1 urn:ietf:params:rtp-hdrext:ssrc-audio-level\r\n"
      "a=extmap:3 urn:ietf:params:rtp-hdrext:sdes:mid\r\n"
      "a=rtpmap:109 opus/48000/2\r\na=fmtp:109 minptime=10;useinbandfec=1;stereo=1\r\n"
      "a=rtpmap:0 PCMU/8000\r\na=rtpmap:8 PCMA/8000\r\n"
      "m=video 9 UDP/TLS/RTP/SAVPF 126 127 97 98 120 124\r\nc=IN IP4 0.0.0.0\r\na=mid:1\r\n"
      "a=recvonly\r\na=rtcp-mux\r\n" +
      transport +
      "a=extmap:3 urn:ietf:params:rtp-hdrext:sdes:mid\r\n"
      "a=extmap:7 http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01\r\n"
      "a=rtpmap:126 H264/90000\r\n"
      "a=fmtp:126 profile-level-id=42e01f;level-asymmetry-allowed=1;packetization-mode=1\r\n"
      "a=rtcp-fb:126 nack\r\na=rtcp-fb:126 nack pli\r\n"
      "a=rtpmap:127 rtx/90000\r\na=fmtp:127 apt=126\r\n"
      "a=rtpmap:97 H264/90000\r\na=fmtp:97 profile-level-id=42e01f;level-asymmetry-allowed=1\r\n"
      "a=rtcp-fb:97 nack\r\na=rtpmap:98 rtx/90000\r\na=fmtp:98 apt=97\r\n"
      "a=rtpmap:120 VP8/90000\r\na=fmtp:120 max-fs=12288;max-fr=60\r\na=rtcp-fb:120 nack\r\n"
      "a=rtcp-fb:120 nack pli\r\n"
      "a=rtpmap:124 rtx/90000\r\na=fmtp:124 apt=120\r\n"
      "m=application 9 UDP/DTLS/SCTP webrtc-datachannel\r\nc=IN IP4 0.0.0.0\r\na=mid:2\r\n" +
      transport + "a=sctp-port:5000\r\na=max-message-size:65536\r\n";
  EXPECT_EQ(make_answer(*parsed(kFirefoxOffer).made, terms()), expected);
}

TEST(AnswerTest, SaysNoMoreThanWasOffered) {
  // What stands in the answer, and what doesn't.
  const std::tuple<std::string, std::vector<const char*>, std::vector<const char*>> rows[] = {
      {kChromiumOffer,
       {"a=rtcp-rsize", "a=rtcp-fb:111 transport-cc", "a=rtcp-fb:107 nack pli", "a=rid:h recv",
        "a=rid:l recv", "a=simulcast:recv h;m;l", "a=fmtp:98 profile-id=0",
        "a=fmtp:45 level-idx=5;profile=0;tier=0",
        "a=extmap:11 urn:ietf:params:rtp-hdrext:sdes:repaired-rtp-stream-id"},
       {"a=rtpmap:63", "a=rtpmap:100", "a=rtpmap:114", "a=rtpmap:115", "toffset", "orientation",
        "a=rtcp-fb:35", "a=rtcp-fb:97", "rid:h send", "sendonly"}},
      {kObsOffer,
       {"a=fmtp:111 minptime=10;useinbandfec=1;stereo=1", "a=group:BUNDLE 0 1"},
       {"a=rtcp-rsize", "transport-cc", "a=simulcast", "ccm fir", "extmap"}},
      {kGstreamerOffer,
       {"a=fmtp:96 packetization-mode=1;profile-level-id=42c01f",
        "a=extmap:1/recvonly urn:ietf:params:rtp-hdrext:sdes:mid", "a=group:BUNDLE video0 audio1",
        "m=audio 9 UDP/TLS/RTP/SAVPF 98", "a=rtpmap:98 OPUS/48000/2"},
       {"sprop", "a=fmtp:98", "transport-cc", "bundle-only"}},
      {kOne, {"m=audio 9 UDP/TLS/RTP/SAVPF 0"}, {"BUNDLE", "rtpmap", "fmtp"}},
      {kHead + "a=group:BUNDLE 0 7\n" + kTransport + kAudio +
           "m=video 0 UDP/TLS/RTP/SAVPF 96 97\na=mid:7\n",
       {"a=group:BUNDLE 0", "m=video 0 UDP/TLS/RTP/SAVPF 96 97", "a=mid:7"},
       {"BUNDLE 0 7"}},
  };
  for (const auto& [text, says, silent] : rows) {
    const parsed got(text);
    ASSERT_TRUE(got.made) << got.error;
    const std::string answer = make_answer(*got.made, terms());
    for (const char* const line : says) {
      EXPECT_NE(answer.find("\r\n" + std::string(line) + "\r\n"), std::string::npos) << line << "\n"
                                                                                     << answer;
    }
    for (const char* const part : silent) {
      EXPECT_EQ(answer.find(part), std::string::npos) << part << "\n" << answer;
    }
    EXPECT_EQ(answer.find("a=candidate"), answer.rfind("a=candidate:1 1 udp 2130706431"));

    std::string error;
    const auto again = core_service::rtp::parse_sdp(answer, error);
    ASSERT_TRUE(again);
    ASSERT_EQ(gst_sdp_message_medias_len(again.get()), got.made->lines.size());
    for (guint i = 0; i < got.made->lines.size(); ++i) {
      const GstSDPMedia* const media = gst_sdp_message_get_media(again.get(), i);
      const offered_line& line = got.made->lines[i];
      EXPECT_EQ(gst_sdp_media_get_port(media), line.accepted ? 9U : 0U);
      if (!line.accepted) continue;
      EXPECT_EQ(core_service::rtp::receivable_payloads(media, line.kind).size(),
                line.payloads.size());
      EXPECT_EQ(core_service::rtp::payload_types_of(media).front(), line.preferred.front());
    }
  }
}

TEST(FragmentTest, CandidatesAndRestartsAreUnderstoodOrTheFaultIsNamed) {
  const std::string ice = "a=ice-ufrag:EsAw\r\na=ice-pwd:P2uYro0UCOQ4zxjKXaWCBui1\r\n";
  const std::string media = "m=audio 9 UDP/TLS/RTP/SAVPF 111\r\na=mid:0\r\n";
  const std::string candidate =
      "a=candidate:1387637174 1 udp 2122260223 192.0.2.1 61764 typ host generation 0\r\n";
  const std::pair<std::string, std::string> rows[] = {
      {ice + media + candidate + "a=end-of-candidates\r\n", "EsAw candidates end"},
      {ice + media + candidate, "EsAw candidates"},
      {"a=ice-ufrag:EsAw\n\na=ice-pwd:P2uYro0UCOQ4zxjKXaWCBui1\n" + ice, "EsAw"},
      {media + ice + "a=end-of-candidates", "EsAw end"},
      {"", "it has 0 bytes: a fragment of a session description should have up to 64 KiB"},
      {ice + "a=" + std::string(65536, 'x'), "it has 65"},
      {candidate, "it has no a=ice-ufrag: it should have 4 to 256 characters"},
      {"a=ice-ufrag:EsAw\r\n", "it has no a=ice-pwd: it should have 22 to 256 characters"},
      {ice + "a=ice-ufrag:Other\r\n",
       "a=ice-ufrag stands there with two values: all media share one transport"},
      {ice + "a=ice-pwd:P2uYro0UCOQ4zxjKXaWCBui2\r\n", "a=ice-pwd stands there with two values"},
      {ice + "{\"candidate\": \"\"}\r\n",
       "\"{\"candidate\": \"\"}\" should be a line of a session"},
      {ice + "a\r\n", "\"a\" should be a line"},
  };
  for (const auto& [text, says] : rows) {
    std::string error;
    const auto got = parse_fragment(text, error);
    EXPECT_EQ(got.has_value(), error.empty());
    std::string told = error;
    if (got) {
      told = got->ufrag + (got->has_candidates ? " candidates" : "") + (got->end ? " end" : "");
      EXPECT_EQ(got->password, "P2uYro0UCOQ4zxjKXaWCBui1");
    }
    if (got) {
      EXPECT_EQ(told, says);
    } else {
      EXPECT_EQ(told.rfind(says, 0), 0U) << told;
    }
  }
}

TEST(FragmentTest, RestartIsAnsweredForTheFirstLineThatIsReceived) {
  const parsed got(kHead + kTransport + "m=audio 0 UDP/TLS/RTP/SAVPF 0\na=mid:0\n" + kVideo);
  ASSERT_TRUE(got.made) << got.error;
  EXPECT_EQ(make_fragment(terms(), *got.made),
            "a=ice-lite\r\na=ice-ufrag:ours\r\na=ice-pwd:ourpasswordof22letters\r\n"
            "m=video 9 UDP/TLS/RTP/SAVPF 96\r\na=mid:1\r\n"
            "a=candidate:1 1 udp 2130706431 192.0.2.1 7000 typ host\r\n"
            "a=candidate:2 1 udp 2130706175 2001:db8::1 7000 typ host\r\n"
            "a=candidate:1 1 udp 2130705919 192.0.2.1 7001 typ host\r\n"
            "a=end-of-candidates\r\n");
}

}  // namespace
}  // namespace zelta::test
