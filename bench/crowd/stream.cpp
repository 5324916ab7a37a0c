// SPDX-License-Identifier: Apache-2.0
#include "crowd/stream.h"

#include <algorithm>

namespace zelta::crowd {
namespace {

constexpr int64_t kUsPerS = 1'000'000;
constexpr int64_t kMillion = 1'000'000;
// RFC 3550 section 4: NTP counts from 1900.
constexpr uint64_t kNtpOffsetS = 2'208'988'800;

constexpr uint8_t kVersion = 0x80;
constexpr uint8_t kMarker = 0x80;
constexpr uint8_t kSenderReport = 200;
constexpr uint8_t kSourceDescription = 202;
constexpr uint8_t kCname = 1;
constexpr size_t kSenderReportBytes = 28;
constexpr size_t kMaxCname = 16;

void put16(uint8_t* at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}
void put32(uint8_t* at, uint32_t value) {
  put16(at, value >> 16);
  put16(at + 2, value);
}

// The length of an RTCP packet is said in words, less one.
void put_rtcp_start(uint8_t* at, uint8_t count, uint8_t type, size_t size, uint32_t ssrc) {
  at[0] = static_cast<uint8_t>(kVersion | count);
  at[1] = type;
  put16(at + 2, static_cast<uint32_t>(size / 4 - 1));
  put32(at + 4, ssrc);
}

}  // namespace

rtp_header make_header(uint8_t payload_type, bool marker, uint16_t sequence, uint32_t time,
                       uint32_t ssrc) {
  rtp_header header{kVersion, static_cast<uint8_t>(payload_type | (marker ? kMarker : 0))};
  put16(&header[2], sequence);
  put32(&header[4], time);
  put32(&header[8], ssrc);
  return header;
}

size_t write_report(const report& of, std::array<uint8_t, kReportBytes>& out) {
  out.fill(0);
  put_rtcp_start(out.data(), 0, kSenderReport, kSenderReportBytes, of.ssrc);
  const auto us = static_cast<uint64_t>(of.utc_us);
  put32(&out[8], static_cast<uint32_t>(us / kUsPerS + kNtpOffsetS));
  put32(&out[12], static_cast<uint32_t>(((us % kUsPerS) << 32) / kUsPerS));
  put32(&out[16], of.rtp_time);
  put32(&out[20], of.packets);
  put32(&out[24], of.octets);
  uint8_t* const sdes = &out[kSenderReportBytes];
  const size_t name = std::min(of.cname.size(), kMaxCname);
  // Start, item, and at least one zero byte that ends the items, up to a whole word.
  const size_t size = (8 + 2 + name + 1 + 3) / 4 * 4;
  put_rtcp_start(sdes, 1, kSourceDescription, size, of.ssrc);
  sdes[8] = kCname;
  sdes[9] = static_cast<uint8_t>(name);
  std::copy_n(of.cname.begin(), name, sdes + 10);
  return kSenderReportBytes + size;
}

int64_t stream::due_us() const {
  const int64_t own = int64_t{sent_units} * media->unit_ticks * kUsPerS / media->clock_rate;
  return begin_us + own - own * clock_ppm / (kMillion + clock_ppm);
}

int64_t stream::own_us(int64_t now_us) const {
  return now_us + (now_us - begin_us) * clock_ppm / kMillion;
}

uint32_t stream::time_at(int64_t now_us) const {
  return first_time +
         static_cast<uint32_t>((own_us(now_us) - begin_us) * media->clock_rate / kUsPerS);
}

}  // namespace zelta::crowd
