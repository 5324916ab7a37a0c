// SPDX-License-Identifier: Apache-2.0
// What anybody may post as an offer, and as a fragment after it: what parses is answered by a valid
// description.
#include "core_service/webrtc/answer.h"
#include "core_service/webrtc/ice_fragment.h"
#include "core_service/webrtc/offer.h"
#include "support/webrtc_offers.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

using namespace core_service::webrtc;

answer_terms terms() {
  answer_terms ours;
  ours.ufrag = "ours";
  ours.password = "twentytwocharactersand";
  ours.fingerprint = "AB";
  ours.candidates = {{"127.0.0.1", 5000}, {"::1", 5000}};
  return ours;
}

void check(const offer& one) {
  require(one.ufrag.size() >= 4 && one.password.size() >= 22, "credentials too short");
  require(!one.fingerprint.empty(), "no fingerprint");
  size_t accepted = 0;
  for (const offered_line& line : one.lines) {
    if (!line.accepted) continue;
    ++accepted;
    require(!line.mid.empty() && line.rtcp_mux, "a line that has no place in a bundle");
    require(!line.preferred.empty() && line.preferred.size() == line.payloads.size(),
            "an order of other payload types");
    for (const auto& [again, repeated] : line.retransmissions) {
      require(line.payloads.count(repeated) == 1 && line.payloads.count(again) == 0,
              "what repeats nothing");
    }
    for (const uint32_t source : line.sources) {
      require(line.repeats.count(source) == 0, "a source that repeats another");
    }
    require(line.rids.size() <= 16 && line.sources.size() <= 64, "more than is allowed");
  }
  require(accepted > 0, "an offer of nothing");
}

void check_answer(const offer& one) {
  const std::string text = make_answer(one, terms());
  std::string error;
  const auto answer = core_service::rtp::parse_sdp(text, error);
  require(answer != nullptr, "an answer that is no description");
  require(gst_sdp_message_medias_len(answer.get()) == one.lines.size(), "another number of lines");
  for (guint i = 0; i < one.lines.size(); ++i) {
    const GstSDPMedia* const media = gst_sdp_message_get_media(answer.get(), i);
    const offered_line& line = one.lines[i];
    require(line.media == gst_sdp_media_get_media(media), "another kind of line");
    require((gst_sdp_media_get_port(media) != 0) == line.accepted, "another line is received");
    if (!line.accepted) continue;
    const auto kind = line.kind;
    require(core_service::rtp::receivable_payloads(media, kind).size() == line.payloads.size(),
            "other payload types");
    require(core_service::rtp::values_of(media, "rid").size() == line.rids.size(), "other layers");
  }
  require(parse_fragment(make_fragment(terms(), one), error).has_value(), "a fragment of ours");
}

}  // namespace

std::vector<std::string> seeds() {
  const std::string transport =
      "a=ice-ufrag:EsAw\r\na=ice-pwd:bP+XJMM09aR8AiX1jdukzR6Y\r\n"
      "a=fingerprint:sha-256 "
      "01:02:03:04:05:06:07:08:09:0A:0B:0C:0D:0E:0F:10:"
      "11:12:13:14:15:16:17:18:19:1A:1B:1C:1D:1E:1F:20\r\na=setup:actpass\r\n";
  const std::string head = "v=0\r\no=- 1 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n";
  return {
      // The longer ones of browsers would take the replay minutes, with whole stacks as it runs.
      test::kGstreamerOffer,
      head + "a=group:BUNDLE 0 1\r\n" + transport +
          "m=audio 9 UDP/TLS/RTP/SAVPF 111 0\r\na=mid:0\r\na=sendonly\r\na=rtcp-mux\r\n"
          "a=extmap:1 urn:ietf:params:rtp-hdrext:ssrc-audio-level\r\n"
          "a=extmap:4/sendonly urn:ietf:params:rtp-hdrext:sdes:mid\r\n"
          "a=rtpmap:111 opus/48000/2\r\na=rtcp-fb:111 transport-cc\r\n"
          "a=fmtp:111 minptime=10;useinbandfec=1\r\na=ssrc:1 cname:a\r\na=msid:s t\r\n"
          "m=video 0 UDP/TLS/RTP/SAVPF 96 97 98\r\na=mid:1\r\na=bundle-only\r\na=rtpmap:96 "
          "H264/90000\r\n"
          "a=fmtp:96 packetization-mode=1\r\na=rtpmap:97 rtx/90000\r\na=fmtp:97 apt=96\r\n"
          "a=rtcp-fb:* nack pli\r\na=rtpmap:98 VP9/90000\r\na=fmtp:98 profile-id=0\r\n"
          "a=ssrc-group:FID 2 3\r\na=ssrc:2 cname:a\r\na=ssrc:3 cname:a\r\n",
      head + "m=video 9 UDP/TLS/RTP/SAVPF 45\r\n" + transport +
          "a=mid:v\r\na=rtcp-mux\r\na=rtcp-rsize\r\na=rtpmap:45 AV1/90000\r\n"
          "a=rid:h send\r\na=rid:l send\r\na=simulcast:send h;~l\r\n"
          "m=application 9 UDP/DTLS/SCTP webrtc-datachannel\r\na=mid:d\r\n",
      transport +
          "m=audio 9 RTP/AVP 0\r\na=mid:0\r\na=candidate:1 1 udp 1 10.0.0.1 1 typ host\r\n"
          "a=end-of-candidates\r\n",
  };
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  static const bool kReady = (gst_init(nullptr, nullptr), true);
  static_cast<void>(kReady);
  const std::string text = fuzz::text_of(data, size);
  std::vector<core_service::missing_medium> left_out;
  std::string error;
  const auto offer = core_service::webrtc::parse_offer(text, left_out, error);
  fuzz::require(offer.has_value() == error.empty(), "an error with an offer, or none without");
  if (offer) {
    fuzz::check(*offer);
    fuzz::check_answer(*offer);
  }
  error.clear();
  const auto fragment = core_service::webrtc::parse_fragment(text, error);
  fuzz::require(fragment.has_value() == error.empty(), "an error with a fragment, or none without");
  return 0;
}
