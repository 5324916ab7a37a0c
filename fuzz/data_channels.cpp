// SPDX-License-Identifier: Apache-2.0
// What a peer may send by data channels: messages of any stream and kind, and packets that are none
// of SCTP's.
#include <glib.h>

#include "support/webrtc/channel_writer.h"
#include "target.h"

namespace zelta::fuzz {
namespace {

constexpr size_t kLongestLabel = 128 + 2;  // what replaces half a letter is longer

bool is_utf8(const std::string& text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
}

// Each part: how, stream, length, bytes.
void play(const std::string& input) {
  test::channel_writer by;
  require(by.ours && by.user, "no memory");
  by.on_text = [](const std::string& label, const std::string& text) {
    require(is_utf8(label) && is_utf8(text), "text that is none");
    require(label.size() <= 3 * kLongestLabel, "a label that is too long");
  };
  by.on_missing = [](const std::string&, const std::string& why) {
    require(is_utf8(why), "a reason that is none");
  };
  for (size_t at = 0; at + 3 <= input.size();) {
    const auto how = static_cast<uint8_t>(input[at]);
    const auto stream = static_cast<uint8_t>(input[at + 1]);
    const std::string bytes = input.substr(at + 3, static_cast<uint8_t>(input[at + 2]));
    at += 3 + bytes.size();
    if (how < 64) {
      const auto* const packet = reinterpret_cast<const uint8_t*>(bytes.data());
      by.ours->take(packet, bytes.size());
    } else if (how == 64) {
      by.user->end_stream(stream);
    } else if (!bytes.empty()) {
      by.send(stream, how - 64U, bytes);
    }
    by.carry();
  }
}

std::string part(int how, int stream, const std::string& bytes) {
  return std::string{static_cast<char>(how), static_cast<char>(stream),
                     static_cast<char>(bytes.size())} +
         bytes;
}

}  // namespace

std::vector<std::string> seeds() {
  const int control = 64 + 50;
  const int text = 64 + 51;
  return {
      part(control, 0, test::channel_writer::opening("chat")) + part(text, 0, "hello"),
      part(control, 0, "\x03") + part(text + 2, 7, "binary") + part(64, 0, ""),
      part(0, 0, std::string("\x13\x88\x13\x88\0\0\0\0\0\0\0\0\0\1\0\4", 16)) +
          part(text, 3, "\xff"),
  };
}

}  // namespace zelta::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zelta::fuzz::play(zelta::fuzz::text_of(data, size));
  return 0;
}
