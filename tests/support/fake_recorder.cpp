// SPDX-License-Identifier: Apache-2.0
// A recorder that does what the environment variable FAKE_RECORDER says, step by step:
//
//     hello join user:UID drop:UID pcm:COUNT h264:BYTES error leave:REASON garbage
//     bytes:FILE (sends what is in it)  drip:FILE (byte by byte)  flood:COUNT (of unknown packets)
//     grandchild (holds the descriptors for as long as the test runs)
//     await:URI (reads until that packet)  close-read  close-write  ignore-term  hang
//     gate:FIFO (reads nothing until the test opens it)
//     facts:FILE (writes its arguments, descriptors, signals, server)  exit:STATUS  kill
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "packets.h"

namespace {

using namespace zelta::protocol;
using zelta::test::bytes_with;

int read_fd = -1;
int write_fd = -1;

void put(const std::string& bytes, size_t a_call = 1 << 20) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t written =
        write(write_fd, bytes.data() + done, std::min(a_call, bytes.size() - done));
    if (written <= 0) std::exit(90);
    done += static_cast<size_t>(written);
  }
}

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The smallest packets there are, of a kind that nobody knows.
void flood(uint32_t count) {
  std::string packets;
  for (int i = 0; i < 1000; ++i) packets.append("\x06\0\0\0\xe7\x03", 6);
  for (uint32_t sent = 0; sent < count; sent += 1000) put(packets);
}

// Holds every descriptor that we have. It ends with the test, which holds the other end of the
// descriptor that the variable names.
void leave_a_grandchild() {
  if (fork() != 0) return;
  setsid();
  const char* const path = std::getenv("FAKE_GRANDCHILD_ENDS");
  std::ifstream until(path != nullptr ? path : "");
  until.get();
  std::_Exit(0);
}

bool read_whole(char* to, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t got = read(read_fd, to + done, size - done);
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

// False at the end of the stream.
bool await(int uri) {
  for (;;) {
    uint32_t total = 0;
    if (!read_whole(reinterpret_cast<char*>(&total), sizeof total)) return false;
    std::string body(total - sizeof total, '\0');
    if (!read_whole(body.data(), body.size())) return false;
    uint16_t got = 0;
    std::memcpy(&got, body.data(), sizeof got);
    if (got == uri) return true;
  }
}

// One line each: the arguments, the open descriptors, "clean" when no signal is blocked or ignored.
void write_facts(const std::string& path, const std::vector<std::string>& arguments) {
  std::set<int> open;
  for (int fd = 0; fd < 1024; ++fd) {
    if (::lseek(fd, 0, SEEK_CUR) >= 0 || errno != EBADF) open.insert(fd);
  }
  bool clean = getpgrp() == getpid();
  sigset_t blocked;
  sigprocmask(SIG_SETMASK, nullptr, &blocked);
  for (int number = 1; number < 32; ++number) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    clean = clean && sigismember(&blocked, number) == 0 && action.sa_handler != SIG_IGN;
  }
  std::ofstream file(path + ".new");
  for (const std::string& argument : arguments) file << argument << " ";
  file << "\n";
  for (const int fd : open) file << fd << " ";
  file << "\n" << (clean ? "clean" : "not clean") << "\n";
  const char* const server = std::getenv("ZELTA_CHANNEL_SERVER");
  file << (server != nullptr ? server : "no server") << "\n";
  file.close();
  std::filesystem::rename(path + ".new", path);
}

void run(const std::string& step, const std::string& value, const std::vector<std::string>& args) {
  const auto number = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
  if (step == "hello") put(bytes_with<hello_packet>(kProtocolVersion, "fake"));
  if (step == "join") put(bytes_with<join_channel_success_packet>(1U, "room"));
  if (step == "user") put(bytes_with<user_joined_packet>(number, "/folder/"));
  if (step == "drop") put(bytes_with<user_dropped_packet>(number));
  if (step == "error") put(bytes_with<recorder_error_packet>(1, 2U));
  if (step == "leave") put(bytes_with<recorder_leave_packet>(number));
  for (uint32_t i = 0; step == "pcm" && i < number; ++i) {
    put(bytes_with<pcm_frame>(5U, i, 1, 16, 48000U, std::string(1920, 'p'), 2));
  }
  if (step == "h264") put(bytes_with<h264_frame2>(0, 5U, 0, 0U, std::string(number, 'p'), 2));
  if (step == "garbage") {
    [[maybe_unused]] const ssize_t written = write(write_fd, "\0\0\0\0", 4);
  }
  if (step == "bytes") put(content_of(value));
  if (step == "drip") put(content_of(value), 1);
  if (step == "flood") flood(number);
  if (step == "grandchild") leave_a_grandchild();
  if (step == "await" && !await(static_cast<int>(number))) std::exit(0);
  if (step == "gate") content_of(value);
  if (step == "close-read") close(read_fd);
  if (step == "close-write") close(write_fd);
  if (step == "ignore-term") std::signal(SIGTERM, SIG_IGN);
  if (step == "facts") write_facts(value, args);
  if (step == "hang") {
    for (;;) pause();
  }
  if (step == "exit") std::exit(static_cast<int>(number));
  if (step == "kill") std::raise(SIGKILL);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv, argv + argc);
  const auto value_of = [&args](const char* name) {
    const auto found = std::find(args.begin(), args.end(), name);
    return found != args.end() ? std::atoi((found + 1)->c_str()) : -1;
  };
  read_fd = value_of("--read");
  write_fd = value_of("--write");
  const char* const script = std::getenv("FAKE_RECORDER");
  std::istringstream steps(script != nullptr ? script : "");
  for (std::string step; steps >> step;) {
    const size_t colon = step.find(':');
    run(step.substr(0, colon), colon == std::string::npos ? "" : step.substr(colon + 1), args);
  }
  return 0;
}
