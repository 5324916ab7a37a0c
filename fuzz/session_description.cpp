// SPDX-License-Identifier: Apache-2.0
// UID.sdp, which any sender may have written.
#include "core_service/rtp/session_description.h"

#include "target.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  return {
      "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=call\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
      "m=video 5004 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1\r\n"
      "m=audio 5006 RTP/AVP 97 0\r\na=rtpmap:97 opus/48000/2\r\na=rtcp-mux\r\n",
      "v=0\nc=IN IP6 ::1\nm=audio 9 RTP/SAVPF 8 0\na=rtcp:5009 IN IP4 127.0.0.1\n"
      "m=video 0 RTP/AVP 97\na=rtpmap:97 VP8/90000\nm=video 9/2 RTP/AVP 98\na=rtpmap:98 "
      "VP9/90000\n",
  };
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  static const bool kReady = (gst_init(nullptr, nullptr), true);
  static_cast<void>(kReady);
  std::vector<core_service::missing_medium> left_out;
  std::string error;
  const std::string text = fuzz::text_of(data, size);
  const auto streams = core_service::rtp::parse_description(text, left_out, error);
  fuzz::require(streams.empty() == !error.empty(), "an error with streams, or none without");
  for (const auto& one : streams) {
    fuzz::require(one.port >= 0 && one.port <= 65535, "a port that can't be");
    fuzz::require(one.rtcp_port >= 0 && one.rtcp_port <= 65536, "an RTCP port that can't be");
    fuzz::require(!one.caps.empty(), "a stream that can't be received");
  }
  core_service::rtp::answer_with_ports(text, {5000, 5002, 5004});
  return 0;
}
