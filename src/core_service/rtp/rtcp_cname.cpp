// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/rtcp_cname.h"

namespace zelta::core_service::rtp {
namespace {

constexpr size_t kHeaderBytes = 8;  // up to the sender's SSRC
constexpr uint8_t kSenderReport = 200;
constexpr uint8_t kReceiverReport = 201;
constexpr uint8_t kSourceDescription = 202;
constexpr uint8_t kGoodbye = 203;
constexpr uint8_t kCnameItem = 1;

void append_description(std::vector<uint8_t>& out, const uint8_t* ssrc, const std::string& cname) {
  std::vector<uint8_t> chunk(ssrc, ssrc + 4);
  chunk.push_back(kCnameItem);
  chunk.push_back(static_cast<uint8_t>(cname.size()));
  chunk.insert(chunk.end(), cname.begin(), cname.end());
  // At least one zero ends the list, and the chunk ends on a word.
  do chunk.push_back(0);
  while (chunk.size() % 4 != 0);
  const size_t words = chunk.size() / 4;
  const uint8_t header[] = {0x81, kSourceDescription, static_cast<uint8_t>(words >> 8U),
                            static_cast<uint8_t>(words)};
  out.insert(out.end(), std::begin(header), std::end(header));
  out.insert(out.end(), chunk.begin(), chunk.end());
}

}  // namespace

std::vector<uint8_t> with_cname(const uint8_t* bytes, size_t size, const std::string& cname) {
  std::vector<uint8_t> reports;
  std::vector<uint8_t> rest;
  const uint8_t* sender = nullptr;
  for (size_t at = 0; at < size;) {
    const uint8_t* const packet = bytes + at;
    if (size - at < 4 || packet[0] >> 6U != 2) return {};
    const size_t length = 4 * ((static_cast<size_t>(packet[2]) << 8U | packet[3]) + 1);
    if (length > size - at) return {};
    const uint8_t kind = packet[1];
    if (at == 0) {
      const bool report = kind == kSenderReport || kind == kReceiverReport;
      if (!report || length < kHeaderBytes) return {};
      sender = packet + 4;
    }
    // A goodbye stands last.
    std::vector<uint8_t>& to = kind == kGoodbye ? rest : reports;
    if (kind != kSourceDescription) to.insert(to.end(), packet, packet + length);
    at += length;
  }
  if (sender == nullptr) return {};
  if (!cname.empty() && cname.size() < 256) append_description(reports, sender, cname);
  reports.insert(reports.end(), rest.begin(), rest.end());
  return reports;
}

}  // namespace zelta::core_service::rtp
