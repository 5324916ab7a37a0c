// SPDX-License-Identifier: Apache-2.0
// A channel of generated users, for a first run and for tests:
//
//     test:users=3,video=h264,audio=opus,size=640x360,fps=25,join=2@3,leave=1@8
//
// Users have the uids 1, 2, … and a moving picture and a tone each, with syllables as speech has.
// "join=UID@SECONDS" and "leave=UID@SECONDS", joined by "+" where there are several, let users come
// late and go early, counted from the join.
#include <algorithm>
#include <charconv>
#include <list>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "base/poster.h"
#include "base/scoped_timer.h"
#include "core_service/channel/backends.h"
#include "core_service/media/bin_feed.h"
#include "core_service/media/codecs.h"

namespace zelta::core_service {
namespace {

constexpr int kMaxUsers = 1000;
constexpr int kVideoKbps = 600;

struct appearance {
  double join_s = 0;
  double leave_s = -1;  // negative: stays
};

struct test_script {
  int users = 2;
  std::string video = "h264";
  std::string audio = "opus";
  int width = 640;
  int height = 360;
  int fps = 25;
  std::map<uint32_t, appearance> appearances;
};

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

template <class T>
bool parse_number(const std::string& text, T lowest, T highest, T& out) {
  T value{};
  const char* const end = text.data() + text.size();
  const auto [stopped, failed] = std::from_chars(text.data(), end, value);
  if (failed != std::errc() || stopped != end || value < lowest || value > highest) return false;
  out = value;
  return true;
}

bool parse_size(const std::string& text, test_script& script) {
  const size_t cross = text.find('x');
  return cross != std::string::npos &&
         parse_number(text.substr(0, cross), 16, 7680, script.width) &&
         parse_number(text.substr(cross + 1), 16, 4320, script.height);
}

// "2@3+1@4.5" into the member `when` of the users' appearances.
bool parse_times(const std::string& text, double appearance::*when, test_script& script) {
  for (const std::string& item : split(text, '+')) {
    const size_t at = item.find('@');
    uint32_t uid = 0;
    double seconds = 0;
    if (at == std::string::npos || !parse_number<uint32_t>(item.substr(0, at), 1, kMaxUsers, uid) ||
        !parse_number(item.substr(at + 1), 0.0, 86400.0, seconds)) {
      return false;
    }
    script.appearances[uid].*when = seconds;
  }
  return true;
}

bool one_of(const std::string& value, std::initializer_list<const char*> allowed,
            std::string& out) {
  if (std::find(allowed.begin(), allowed.end(), value) == allowed.end()) return false;
  out = value;
  return true;
}

bool parse_setting(const std::string& name, const std::string& value, test_script& script) {
  if (name == "users") return parse_number(value, 0, kMaxUsers, script.users);
  if (name == "video") return one_of(value, {"h264", "vp8", "vp9", "none"}, script.video);
  if (name == "audio") return one_of(value, {"opus", "aac", "pcmu", "pcma", "none"}, script.audio);
  if (name == "size") return parse_size(value, script);
  if (name == "fps") return parse_number(value, 1, 120, script.fps);
  if (name == "join") return parse_times(value, &appearance::join_s, script);
  if (name == "leave") return parse_times(value, &appearance::leave_s, script);
  return false;
}

bool parse_script(const std::string& text, test_script& script, std::string& error) {
  for (const std::string& setting : split(text, ',')) {
    const size_t equals = setting.find('=');
    const std::string value = equals == std::string::npos ? "" : setting.substr(equals + 1);
    if (!parse_setting(setting.substr(0, equals), value, script)) {
      error = "test channel: can't use \"" + setting +
              "\"; it should be like "
              "users=3,video=h264|vp8|vp9|none,audio=opus|aac|pcmu|pcma|none,size=640x360,fps=25,"
              "join=2@3,leave=1@8";
      return false;
    }
  }
  return true;
}

std::string video_description(const test_script& script, uint32_t uid) {
  const int key_distance = script.fps * 2;
  std::string encoder;
  if (script.video == "h264") {
    encoder = media::h264_encoder({kVideoKbps, key_distance, false, "ultrafast"}) + " ! h264parse";
  } else {
    encoder = script.video + "enc deadline=1 cpu-used=8 lag-in-frames=0 target-bitrate=" +
              std::to_string(kVideoKbps * 1000) +
              " keyframe-max-dist=" + std::to_string(key_distance);
  }
  // A moving ball before a background of the user's own.
  const uint32_t background = 0xFF000000U | ((uid * 2654435761U) & 0x7F7F7FU);
  return "videotestsrc is-live=true pattern=ball background-color=" + std::to_string(background) +
         " ! video/x-raw,format=I420,width=" + std::to_string(script.width) +
         ",height=" + std::to_string(script.height) + ",framerate=" + std::to_string(script.fps) +
         "/1 ! " + encoder;
}

std::string audio_description(const test_script& script, uint32_t uid) {
  const std::map<std::string, std::string> encoders{
      // With the channels, so that they are known before the first packet.
      {"opus", "opusenc ! opusparse ! capsfilter caps=audio/x-opus,channels=1"},
      {"aac", "avenc_aac ! aacparse"},
      {"pcmu", "audioresample ! audio/x-raw,rate=8000 ! mulawenc"},
      {"pcma", "audioresample ! audio/x-raw,rate=8000 ! alawenc"}};
  // Bursts of 130 ms four times a second are about the rhythm of syllables.
  const int pitch = 180 + static_cast<int>(uid % 8) * 40;
  return "audiotestsrc is-live=true samplesperbuffer=960 wave=ticks tick-interval=250000000 "
         "apply-tick-ramp=true freq=" +
         std::to_string(pitch) + " sine-periods-per-tick=" + std::to_string(pitch * 13 / 100) +
         " ! audio/x-raw,rate=48000,channels=1 ! audioconvert ! " + encoders.at(script.audio);
}

class test_channel : public channel {
 public:
  test_channel(test_script script, base::logger log, base::event_loop& loop,
               channel_listener& listener)
      : script_(std::move(script)), log_(std::move(log)), poster_(loop), listener_(listener) {}
  ~test_channel() override { leave(); }

  void join() override {
    poster_.post([this] {
      listener_.on_channel_joined();
      plan();
    });
  }

  void leave() override {
    poster_.forget();
    planned_.clear();
  }

  bool offer_again(uint32_t uid) override {
    const bool here = here_.count(uid) != 0;
    if (here) user_in(uid);
    return here;
  }

 private:
  void plan() {
    for (uint32_t uid = 1; uid <= static_cast<uint32_t>(script_.users); ++uid) {
      const appearance& when = script_.appearances[uid];
      if (when.join_s > 0) {
        plan_one(uid, true, when.join_s);
      } else {
        user_in(uid);
      }
      if (when.leave_s >= 0) plan_one(uid, false, when.leave_s);
    }
  }

  void plan_one(uint32_t uid, bool joins, double seconds) {
    base::scoped_timer& timer = planned_.emplace_back();
    timer = {poster_.loop(), static_cast<int>(seconds * 1000), [this, uid, joins, &timer] {
               timer.stop();
               if (joins) return user_in(uid);
               here_.erase(uid);
               listener_.on_user_out(uid);
             }};
  }

  void user_in(uint32_t uid) {
    here_.insert(uid);
    listener_.on_user_in(uid, [this, uid] { return make(uid); });
  }

  std::shared_ptr<media::media_feed> make(uint32_t uid) {
    media::element_ptr bin(GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr))));
    std::string error;
    if (script_.video != "none")
      add_track(bin.get(), "video", video_description(script_, uid), error);
    if (script_.audio != "none")
      add_track(bin.get(), "audio", audio_description(script_, uid), error);
    if (error.empty()) {
      return std::make_shared<media::bin_feed>(uid, std::move(bin), true, poster_.loop(),
                                               log_.with("user " + std::to_string(uid)));
    }
    listener_.on_channel_failed("test channel: " + error);
    return nullptr;
  }

  static void add_track(GstElement* to, const char* name, const std::string& description,
                        std::string& error) {
    media::element_ptr made = media::make_bin(description, error);
    if (!made) return;
    GstElement* const track = media::add(to, std::move(made));
    const media::pad_ptr end(gst_element_get_static_pad(track, "src"));
    gst_element_add_pad(to, gst_ghost_pad_new(name, end.get()));
  }

  test_script script_;
  const base::logger log_;
  base::poster poster_;
  channel_listener& listener_;
  // What users will do. A list, because each knows where it stands.
  std::list<base::scoped_timer> planned_;
  std::set<uint32_t> here_;
};

}  // namespace

std::unique_ptr<channel> make_test_channel(const channel_place& place, base::event_loop& loop,
                                           channel_listener& listener, std::string& error) {
  test_script parsed;
  if (!parse_script(place.rest, parsed, error)) return nullptr;
  if (parsed.video == "h264" && media::h264_encoder({kVideoKbps, 1, false, "ultrafast"}).empty()) {
    error =
        "test channel: no H.264 encoder is installed: install gstreamer1.0-plugins-ugly (x264enc) "
        "or gstreamer1.0-plugins-bad (openh264enc)";
    return nullptr;
  }
  return std::make_unique<test_channel>(std::move(parsed), place.log, loop, listener);
}

}  // namespace zelta::core_service
