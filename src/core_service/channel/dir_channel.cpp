// SPDX-License-Identifier: Apache-2.0
// A folder as a channel: PATH/CHANNEL/UID.mp4 (or with another ending of media) is a user whose
// media is that file, played in real time; UID.sdp is one who sends RTP as that session description
// says. A file that appears is a user who joins, one that is removed or ends a user who leaves. A
// description that leaves a port open, with 9 for it, is answered by UID.sdp.answer, which has the
// port.
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include <dirent.h>
#include <strings.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/poster.h"
#include "base/scoped_watch.h"
#include "base/unique_fd.h"
#include "core_service/channel/backends.h"
#include "core_service/folder/atomic_file.h"
#include "core_service/media/bin_feed.h"
#include "core_service/media/codecs.h"
#include "core_service/rtp/rtp_source.h"

namespace zelta::core_service {
namespace {

// What is in a file its content says; these tell media from notes, pictures and files on their way.
constexpr std::array<const char*, 25> kMediaEndings{
    "mp4", "m4v", "m4a",  "mov", "3gp", "mkv", "mka", "webm", "ogg", "ogv", "oga", "opus", "wav",
    "mp3", "aac", "flac", "avi", "flv", "ts",  "mpg", "mpeg", "wmv", "wma", "asf", "mxf"};
constexpr const char* kDescriptionEnding = "sdp";
// No description is longer; whatever else has the name is not read into memory.
constexpr std::streamsize kMaxDescriptionBytes = 64 << 10;

struct user_file {
  uint32_t uid;  // 0: the name is no user's: "alice.mp4", "12a.mp4"
  bool description;
};

// None for a name that isn't of media: "notes.txt", "7.sdp.answer", ".7.mp4".
std::optional<user_file> parse_name(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || name.front() == '.') return std::nullopt;
  const std::string ending = name.substr(dot + 1);
  const auto is_ending = [&ending](const char* known) {
    return strcasecmp(known, ending.c_str()) == 0;
  };
  const bool description = is_ending(kDescriptionEnding);
  if (!description && std::none_of(kMediaEndings.begin(), kMediaEndings.end(), is_ending)) {
    return std::nullopt;
  }
  const char* const end = name.data() + dot;
  uint32_t uid = 0;
  const auto [stopped, failed] = std::from_chars(name.data(), end, uid);
  if (failed != std::errc() || stopped != end) uid = 0;
  return user_file{uid, description};
}

// Each track that the file turns out to have is paced by a clock of its own and shown at the bin.
void on_track(GstElement* /*parser*/, GstPad* track, gpointer bin) {
  GstElement* const pace = gst_element_factory_make("clocksync", nullptr);
  gst_bin_add(GST_BIN(bin), pace);
  gst_element_sync_state_with_parent(pace);
  const media::pad_ptr in(gst_element_get_static_pad(pace, "sink"));
  gst_pad_link(track, in.get());
  const media::pad_ptr out(gst_element_get_static_pad(pace, "src"));
  GstPad* const shown = gst_ghost_pad_new(nullptr, out.get());
  gst_pad_set_active(shown, TRUE);
  gst_element_add_pad(GST_ELEMENT(bin), shown);
}

// FALSE shows the track as it is: coded media. Not straight out of a file, where frames have no
// times before they are parsed, and all would come at once.
gboolean on_media(GstElement* /*parser*/, GstPad* track, GstCaps* caps, gpointer /*unused*/) {
  const media::element_ptr from(gst_pad_get_parent_element(track));
  GstElementFactory* const made_by = from ? gst_element_get_factory(from.get()) : nullptr;
  const char* const name = made_by != nullptr ? GST_OBJECT_NAME(made_by) : "";
  const bool whole_file = std::strcmp(name, "typefind") == 0;
  return whole_file || media::find_codec(caps) == nullptr ? TRUE : FALSE;
}

// GstAutoplugSelectResult of the plugin, which has no header.
constexpr int kTry = 0;
constexpr int kExpose = 1;

// A codec that isn't known here is shown as it is, to be told as missing: no decoder that nobody
// has chosen sees it.
int on_factory(GstElement* /*parser*/, GstPad* /*track*/, GstCaps* /*caps*/,
               GstElementFactory* factory, gpointer /*unused*/) {
  return gst_element_factory_list_is_type(factory, GST_ELEMENT_FACTORY_TYPE_DECODER) != FALSE
             ? kExpose
             : kTry;
}

void on_all_tracks(GstElement* /*parser*/, gpointer bin) {
  gst_element_no_more_pads(GST_ELEMENT(bin));
}

media::element_ptr make_file_bin(const std::string& path) {
  media::element_ptr bin(GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr))));
  GstElement* const file = gst_element_factory_make("filesrc", nullptr);
  // Stops at encoded media; it tells when all tracks are known, which parsebin doesn't.
  GstElement* const parser = gst_element_factory_make("decodebin", nullptr);
  g_signal_connect(parser, "autoplug-continue", G_CALLBACK(on_media), nullptr);
  g_signal_connect(parser, "autoplug-select", G_CALLBACK(on_factory), nullptr);
  g_object_set(file, "location", path.c_str(), nullptr);
  gst_bin_add_many(GST_BIN(bin.get()), file, parser, nullptr);
  gst_element_link(file, parser);
  g_signal_connect(parser, "pad-added", G_CALLBACK(on_track), bin.get());
  g_signal_connect(parser, "no-more-pads", G_CALLBACK(on_all_tracks), bin.get());
  return bin;
}

std::string read_description(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kMaxDescriptionBytes, '\0');
  file.read(text.data(), kMaxDescriptionBytes);
  text.resize(static_cast<size_t>(file.gcount()));
  return text;
}

class dir_channel : public channel {
 public:
  dir_channel(std::string folder, const channel_place& place, base::event_loop& loop,
              channel_listener& listener)
      : folder_(std::move(folder)),
        log_(place.log),
        rtp_(place.rtp),
        poster_(loop),
        listener_(listener) {}
  ~dir_channel() override { leave(); }

  void join() override {
    poster_.post([this] { open(); });
  }

  void leave() override {
    poster_.forget();
    watch_.stop();
    changes_.reset();
  }

  bool offer_again(uint32_t uid) override {
    const auto found = present_.find(uid);
    if (found == present_.end()) return false;
    // A copy: it may be found to be of no use.
    offer(uid, std::string(found->second));
    return true;
  }

  media::media_time take_behind() override {
    return plane_ ? plane_->take_behind() : media::media_time{};
  }

 private:
  // Watches before it looks, so that a file which appears in between isn't missed.
  void open() {
    changes_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    constexpr uint32_t kEvents =
        IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_ONLYDIR;
    if (!changes_.valid() || inotify_add_watch(changes_.get(), folder_.c_str(), kEvents) < 0) {
      return listener_.on_channel_failed("can't watch the channel's folder " + folder_ + ": " +
                                         std::strerror(errno));
    }
    watch_ = {poster_.loop(), changes_.get(), {[this] { on_changes(); }}};
    listener_.on_channel_joined();
    for (const std::string& name : present_files()) appeared(name);
  }

  std::vector<std::string> present_files() const {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(folder_.c_str()), closedir);
    if (!dir) return names;
    while (const dirent* const entry = readdir(dir.get())) names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
  }

  void on_changes() {
    alignas(inotify_event) std::array<char, 16384> buffer{};
    const std::weak_ptr<int> alive = poster_.life();
    for (;;) {
      const ssize_t got = read(changes_.get(), buffer.data(), buffer.size());
      if (got <= 0) return;
      for (ssize_t at = 0; at < got;) {
        const auto* const event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        on_change(*event);
        // A callback may have left the channel.
        if (alive.expired()) return;
      }
    }
  }

  void on_change(const inotify_event& event) {
    if ((event.mask & IN_DELETE_SELF) != 0) return listener_.on_channel_lost();
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      for (const std::string& name : present_files()) appeared(name);
      return;
    }
    if (event.len == 0) return;
    if ((event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0) return appeared(event.name);
    disappeared(event.name);
  }

  void appeared(const std::string& name) {
    const auto file = parse_name(name);
    if (!file) return;
    if (file->uid == 0) {
      return listener_.on_missing(
          0, {"all", "", name + " is no user: its name should be a number of 1 to 4294967295"});
    }
    const auto present = present_.find(file->uid);
    // One that was only written again changes nothing.
    if (present != present_.end() && present->second == name) return;
    if (present != present_.end()) {
      return listener_.on_missing(file->uid,
                                  {"all", "", name + ": the uid is taken by " + present->second});
    }
    present_.emplace(file->uid, name);
    offer(file->uid, name);
  }

  void offer(uint32_t uid, const std::string& name) {
    listener_.on_user_in(uid, [this, uid, name]() -> std::shared_ptr<media::media_feed> {
      if (!parse_name(name)->description) {
        return std::make_shared<media::bin_feed>(uid, make_file_bin(folder_ + name), false,
                                                 poster_.loop(),
                                                 log_.with("user " + std::to_string(uid)));
      }
      auto from = make_sender(name, uid);
      // It may be written again.
      if (!from) present_.erase(uid);
      return from;
    });
  }

  // Null when the description can't be used.
  std::shared_ptr<media::media_feed> make_sender(const std::string& name, uint32_t uid) {
    std::vector<missing_medium> left_out;
    std::string error;
    if (!plane_ || !plane_->thread.runs())
      plane_ = std::make_shared<rtp::packet_plane>(poster_.loop());
    if (!plane_->thread.runs()) {
      listener_.on_missing(uid,
                           {"all", "", name + ": no thread or descriptor is left to receive it"});
      return nullptr;
    }
    auto made =
        rtp::make_rtp_source(uid, read_description(folder_ + name), rtp_, plane_, left_out, error);
    for (const missing_medium& one : left_out) {
      if (one.medium.empty()) {
        log_.warn(name + ": " + one.reason);
      } else {
        listener_.on_missing(uid, one);
      }
    }
    if (!made) {
      listener_.on_missing(uid, {"all", "", name + ": " + error});
      return nullptr;
    }
    if (!made->answer.empty() &&
        !replace_file(folder_ + name + ".answer", made->answer, sync::kNo)) {
      log_.warn(name + ".answer can't be written: " + std::strerror(errno));
    }
    return std::move(made->feed);
  }

  void disappeared(const std::string& name) {
    const auto file = parse_name(name);
    if (!file) return;
    const auto found = present_.find(file->uid);
    if (found == present_.end() || found->second != name) return;
    present_.erase(found);
    listener_.on_user_out(file->uid);
  }

  const std::string folder_;
  const base::logger log_;
  const rtp::settings rtp_;
  base::poster poster_;
  channel_listener& listener_;
  base::unique_fd changes_;
  base::scoped_watch watch_;
  std::map<uint32_t, std::string> present_;
  std::shared_ptr<rtp::packet_plane> plane_;
};

}  // namespace

std::unique_ptr<channel> make_dir_channel(const channel_place& place, base::event_loop& loop,
                                          channel_listener& listener, std::string& error) {
  const std::string& id = place.channel_id;
  // The name comes from the application's users; it must not lead out of the folder.
  if (id.find('/') != std::string::npos || id == "." || id == "..") {
    error = "channel name \"" + id + "\" can't be a folder's name";
    return nullptr;
  }
  const std::string folder = place.rest + "/" + id + "/";
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) {
    error = "the channel's folder " + folder + " can't be used: " + std::strerror(errno) +
            "; it should hold a file UID.mp4 or UID.sdp a user";
    return nullptr;
  }
  return std::make_unique<dir_channel>(folder, place, loop, listener);
}

}  // namespace zelta::core_service
