// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/rtp_source.h"

#include <algorithm>
#include <map>
#include <utility>

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include "core_service/media/format_caps.h"
#include "core_service/rtp/sender.h"
#include "core_service/rtp/session_description.h"

namespace zelta::core_service::rtp {
namespace {

using media::element_ptr;
using media::encoded_unit;
using media::media_time;
using media::pad_ptr;

// So many packets without one that could be decrypted are no accident.
constexpr uint64_t kUndecryptable = 20;

GstClockTime since(media_time base, media_time time) {
  return static_cast<GstClockTime>(std::max(time - base, media_time::zero()).count());
}

// The unit's own memory, which the buffer keeps.
GstBuffer* buffer_of(const encoded_unit& unit, media_time base) {
  using context = media::carried<media::shared_bytes>;
  auto kept = std::make_unique<context>(unit.bytes);
  GstBuffer* const buffer = gst_buffer_new_wrapped_full(
      GST_MEMORY_FLAG_READONLY, const_cast<uint8_t*>(unit.bytes.data()), unit.bytes.size(), 0,
      unit.bytes.size(), kept.release(), [](gpointer given) {
        const std::unique_ptr<context> owner(static_cast<context*>(given));
        owner->get() = {};
      });
  media::set_times(
      buffer, {since(base, unit.time), since(base, unit.decode_time),
               unit.duration > media_time::zero() ? static_cast<GstClockTime>(unit.duration.count())
                                                  : GST_CLOCK_TIME_NONE});
  media::set_key(buffer, unit.key);
  return buffer;
}

// Lives as long as the user; its sender and tracks are the packet thread's.
class appsrc_feed final : public media_feed {
 public:
  appsrc_feed(uint32_t uid, std::vector<media_line> lines, const settings& how,
              std::unique_ptr<srtp_session> ciphers, std::shared_ptr<packet_plane> plane,
              GstElement* bin)
      : plane_(std::move(plane)),
        bin_(GST_ELEMENT(gst_object_ref(bin))),
        sender_(std::make_shared<sender>(
            uid, std::move(lines), how, std::move(ciphers), plane_->thread, plane_->pool,
            sender::events{
                [this](int number, const payload&, encoded_unit&& unit) { take(number, unit); },
                [this](int number) { end_track(number); }})) {}
  appsrc_feed(const appsrc_feed&) = delete;
  appsrc_feed& operator=(const appsrc_feed&) = delete;

  ~appsrc_feed() override {
    plane_->thread.call([this] {
      sender_->stop();
      sender_.reset();
      tracks_.clear();
    });
  }

  void start() override {
    base_ = media_time(static_cast<int64_t>(gst_element_get_base_time(bin_.get())));
    plane_->thread.post([this] { sender_->start(); });
  }

  std::string fault() override {
    const bool decryptable = sender_->encrypted() < kUndecryptable || sender_->decrypted() > 0;
    if (decryptable || std::exchange(fault_told_, true)) return "";
    return "none of its packets can be decrypted: --encrypt_mode or --encrypt_secret is not the "
           "sender's";
  }

 private:
  struct track {
    GstElement* source = nullptr;  // borrowed from the bin
    pad_ptr shown;
    media::format_ptr format;
    media::caps_ptr caps;
  };

  void take(int number, const encoded_unit& unit) {
    const auto [at, is_new] = tracks_.try_emplace(number);
    track& to = at->second;
    if (to.format != unit.format) {
      to.format = unit.format;
      to.caps = media::caps_of(*unit.format);
    }
    if (is_new) show(number, to);
    GstBuffer* const buffer = buffer_of(unit, base_);
    const media::sample_ptr sample(gst_sample_new(buffer, to.caps.get(), nullptr, nullptr));
    gst_buffer_unref(buffer);
    media::say_pushed();
    gst_app_src_push_sample(GST_APP_SRC(to.source), sample.get());
  }

  // What is behind the pad is built before the first unit comes.
  void show(int number, track& made) {
    made.source = gst_element_factory_make("appsrc", nullptr);
    g_object_set(made.source, "format", GST_FORMAT_TIME, "is-live", TRUE, "max-bytes", guint64{0},
                 "caps", made.caps.get(), nullptr);
    media::add(bin_.get(), element_ptr(GST_ELEMENT(gst_object_ref_sink(made.source))));
    const pad_ptr out(gst_element_get_static_pad(made.source, "src"));
    ask_for_key_frames(out.get());
    // It says what it sends by its template: an appsrc says so only once it has sent.
    const std::string name = "stream_" + std::to_string(number);
    const std::unique_ptr<GstPadTemplate, media::object_unref> told(
        GST_PAD_TEMPLATE(gst_object_ref_sink(
            gst_pad_template_new(name.c_str(), GST_PAD_SRC, GST_PAD_SOMETIMES, made.caps.get()))));
    GstPad* const shown = gst_ghost_pad_new_from_template(name.c_str(), out.get(), told.get());
    made.shown.reset(GST_PAD(gst_object_ref(shown)));
    gst_pad_set_active(shown, TRUE);
    gst_element_add_pad(bin_.get(), shown);
    gst_element_sync_state_with_parent(made.source);
  }

  // Whoever wants one sends an event against the stream.
  void ask_for_key_frames(GstPad* out) {
    media::add_probe(
        out, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM,
        [plane = plane_, from = std::weak_ptr<sender>(sender_)](GstPadProbeInfo* info) {
          if (gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info)) == FALSE) {
            return GST_PAD_PROBE_OK;
          }
          plane->thread.post([from] {
            if (const auto alive = from.lock()) alive->request_key_frames();
          });
          return GST_PAD_PROBE_DROP;
        });
  }

  void end_track(int number) {
    const auto at = tracks_.find(number);
    if (at == tracks_.end()) return;
    const track ended = std::move(at->second);
    tracks_.erase(at);
    gst_element_remove_pad(bin_.get(), ended.shown.get());
    gst_element_set_state(ended.source, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(bin_.get()), ended.source);
  }

  const std::shared_ptr<packet_plane> plane_;
  const element_ptr bin_;
  media_time base_{};
  bool fault_told_ = false;
  std::map<int, track> tracks_;
  std::shared_ptr<sender> sender_;
};

bool open_lines(const std::vector<stream_description>& streams, const settings& how,
                std::vector<media_line>& lines, std::vector<int>& chosen, std::string& error) {
  for (const stream_description& stream : streams) {
    if (stream.srtp && !how.key) {
      error = "it is encrypted: --encrypt_mode and --encrypt_secret should be given";
      return false;
    }
    media_line line;
    line.sockets = open_sockets({stream.address, stream.port, stream.rtcp_port, stream.rtcp_mux,
                                 how.min_port, how.max_port},
                                error);
    if (!line.sockets.rtp.valid()) return false;
    if (stream.port == 0) chosen.push_back(line.sockets.port);
    for (const auto& [number, caps] : stream.caps) line.payloads[number] = payload_of(caps.get());
    lines.push_back(std::move(line));
  }
  return true;
}

}  // namespace

std::optional<rtp_source> make_rtp_source(uint32_t uid, const std::string& text,
                                          const settings& how, std::shared_ptr<packet_plane> plane,
                                          std::vector<missing_medium>& left_out,
                                          std::string& error) {
  const std::vector<stream_description> streams = parse_description(text, left_out, error);
  if (streams.empty()) return std::nullopt;
  std::vector<media_line> lines;
  std::vector<int> chosen;
  if (!open_lines(streams, how, lines, chosen, error)) return std::nullopt;
  std::unique_ptr<srtp_session> ciphers;
  if (how.key) ciphers = srtp_session::make(*how.key);
  if (how.key && !ciphers) {
    error = "libsrtp2 doesn't have the cipher of --encrypt_mode";
    return std::nullopt;
  }
  rtp_source made;
  for (const stream_description& stream : streams) {
    (stream.kind == media::media_kind::kVideo ? made.video : made.sound) = true;
  }
  if (!chosen.empty()) made.answer = answer_with_ports(text, chosen);
  made.bin.reset(GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr))));
  made.feed = std::make_shared<appsrc_feed>(uid, std::move(lines), how, std::move(ciphers),
                                            std::move(plane), made.bin.get());
  return made;
}

}  // namespace zelta::core_service::rtp
