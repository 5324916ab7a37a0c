// SPDX-License-Identifier: Apache-2.0
#include "crowd/channel.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "support/folder_watch.h"

namespace zelta::crowd {
namespace {

// RFC 863: the port of discard, which stands for one that is still open.
constexpr uint16_t kOpen = 9;

std::string path_of(const std::string& folder, uint32_t uid) {
  return folder + "/" + std::to_string(uid) + ".sdp";
}

std::string text_of(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

std::string description(uint32_t uid, const std::vector<track>& tracks, bool srtp) {
  const char* const profile = srtp ? "RTP/SAVP" : "RTP/AVP";
  std::ostringstream text;
  text << "v=0\no=- " << uid << " 1 IN IP4 127.0.0.1\ns=crowd\nc=IN IP4 127.0.0.1\nt=0 0\n";
  for (const track& one : tracks) {
    const int type = one.payload_type;
    text << "m=" << one.kind << " " << kOpen << " " << profile << " " << type << "\n"
         << "a=rtpmap:" << type << " " << one.coding << "\n";
    if (*one.format != '\0') text << "a=fmtp:" << type << " " << one.format << "\n";
  }
  return text.str();
}

std::vector<uint16_t> answered_ports(const std::string& answer, size_t tracks) {
  std::vector<uint16_t> ports;
  std::istringstream lines(answer);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("m=", 0) != 0) continue;
    const size_t space = std::min(line.find(' '), line.size() - 1);
    uint16_t port = 0;
    const char* const end = line.data() + line.size();
    const auto read = std::from_chars(line.data() + space + 1, end, port);
    if (read.ec != std::errc() || read.ptr == end || *read.ptr != ' ' || port <= kOpen) return {};
    ports.push_back(port);
  }
  return ports.size() == tracks ? ports : std::vector<uint16_t>{};
}

std::vector<std::vector<uint16_t>> join(const std::string& folder, uint32_t users,
                                        const std::vector<track>& tracks, bool srtp,
                                        std::chrono::seconds limit) {
  for (uint32_t uid = 1; uid <= users; ++uid) {
    const std::string path = path_of(folder, uid);
    std::error_code failed;
    std::filesystem::remove(path + ".answer", failed);
    std::ofstream(path + ".part") << description(uid, tracks, srtp);
    std::filesystem::rename(path + ".part", path, failed);
    if (failed)
      std::fprintf(stderr, "crowd_sender: %s: %s\n", path.c_str(), failed.message().c_str());
  }
  std::vector<std::vector<uint16_t>> ports(users);
  // Answers come about in the order of the users: one look at the next of them a change will do.
  uint32_t next = 0;
  test::wait_in_folder(folder, limit, [&] {
    while (next < users) {
      ports[next] = answered_ports(text_of(path_of(folder, next + 1) + ".answer"), tracks.size());
      if (ports[next].empty()) return false;
      ++next;
    }
    return true;
  });
  for (; next < users; ++next) {
    ports[next] = answered_ports(text_of(path_of(folder, next + 1) + ".answer"), tracks.size());
  }
  return ports;
}

void leave(const std::string& folder, uint32_t users) {
  std::error_code ignored;
  for (uint32_t uid = 1; uid <= users; ++uid) {
    std::filesystem::remove(path_of(folder, uid), ignored);
  }
}

}  // namespace zelta::crowd
