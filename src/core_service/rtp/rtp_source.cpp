// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/rtp_source.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include <gst/net/gstnetaddressmeta.h>

#include "core_service/rtp/reordered_times.h"
#include "core_service/rtp/rtcp_cname.h"
#include "core_service/rtp/session_description.h"
#include "core_service/rtp/sockets.h"

namespace zelta::core_service::rtp {
namespace {

// A foreign sender may invent sources; each costs memory until it times out.
constexpr unsigned kMaxSources = 16;
// So many packets without one that could be decrypted are no accident.
constexpr uint64_t kUndecryptable = 20;
constexpr int kAvpfProfile = 3;

// What the elements' signals and probes need; lives as long as the bin.
struct source_state {
  std::string cname;
  std::vector<stream_description> streams;
  std::vector<socket_pair> sockets;
  std::optional<srtp_key> key;
  std::atomic<uint64_t> encrypted{0};
  std::atomic<uint64_t> decrypted{0};
  std::atomic<bool> fault_told{false};
  std::mutex lock;
  // The ghost pad of each pad of the RTP session.
  std::map<GstPad*, GstPad*> pads;
  std::string feedback_to;
  int next_pad = 0;
};

const char* cipher_name(cipher mode) {
  switch (mode) {
    case cipher::kAes128CmSha1_80:
      return "aes-128-icm";
    case cipher::kAes128Gcm:
      return "aes-128-gcm";
    case cipher::kAes256Gcm:
      return "aes-256-gcm";
  }
  return "";
}

// For each SSRC that is new.
GstCaps* on_request_key(GstElement* /*decoder*/, guint /*ssrc*/, gpointer context) {
  const auto& key = static_cast<source_state*>(context)->key;
  const char* const name = cipher_name(key->mode);
  // GCM authenticates by itself.
  const char* const auth = key->mode == cipher::kAes128CmSha1_80 ? "hmac-sha1-80" : "null";
  const media::buffer_ptr bytes(
      gst_buffer_new_memdup(key->key_and_salt.data(), key->key_and_salt.size()));
  return gst_caps_new_simple("application/x-srtp", "srtp-key", GST_TYPE_BUFFER, bytes.get(),
                             "srtp-cipher", G_TYPE_STRING, name, "srtp-auth", G_TYPE_STRING, auth,
                             "srtcp-cipher", G_TYPE_STRING, name, "srtcp-auth", G_TYPE_STRING, auth,
                             nullptr);
}

GstCaps* on_request_pt_map(GstElement* /*rtpbin*/, guint session, guint payload, gpointer context) {
  const auto* const state = static_cast<source_state*>(context);
  if (session >= state->streams.size()) return nullptr;
  const auto& known = state->streams[session].caps;
  const auto found = known.find(static_cast<int>(payload));
  return found != known.end() ? gst_caps_ref(found->second.get()) : nullptr;
}

// ---- Streams -------------------------------------------------------------------------------

// The depayloader runs, and what is behind it is built, before the first packet can come.
void on_stream(GstElement* rtpbin, GstPad* stream, gpointer context) {
  auto* const state = static_cast<source_state*>(context);
  unsigned session = 0;
  unsigned ssrc = 0;
  unsigned payload = 0;
  const std::unique_ptr<char, void (*)(void*)> name(gst_pad_get_name(stream), g_free);
  if (std::sscanf(name.get(), "recv_rtp_src_%u_%u_%u", &session, &ssrc, &payload) != 3) return;
  const media::caps_ptr caps(on_request_pt_map(rtpbin, session, payload, context));
  if (!caps) return;
  const char* const encoding =
      gst_structure_get_string(gst_caps_get_structure(caps.get(), 0), "encoding-name");
  const media::codec* const c = encoding != nullptr ? media::find_rtp_codec(encoding) : nullptr;
  std::string error;
  media::element_ptr made = c != nullptr ? media::make_bin(c->depay, error) : nullptr;
  if (!made) return;
  GstElement* const bin = GST_ELEMENT(GST_OBJECT_PARENT(rtpbin));
  GstElement* const depay = media::add(bin, std::move(made));
  gst_element_set_state(depay, GST_STATE_PLAYING);
  const media::pad_ptr in(gst_element_get_static_pad(depay, "sink"));
  const media::pad_ptr out(gst_element_get_static_pad(depay, "src"));
  GstPad* shown = nullptr;
  {
    const std::lock_guard<std::mutex> guard(state->lock);
    shown = gst_ghost_pad_new(("stream_" + std::to_string(state->next_pad++)).c_str(), out.get());
    state->pads[stream] = shown;
  }
  int clock_rate = 90'000;
  gst_structure_get_int(gst_caps_get_structure(caps.get(), 0), "clock-rate", &clock_rate);
  if (c->kind == media::media_kind::kVideo) restore_times(stream, clock_rate);
  gst_pad_set_active(shown, TRUE);
  gst_element_add_pad(bin, shown);
  gst_pad_link(stream, in.get());
}

// The sender has said goodbye, or its source has timed out.
void on_stream_gone(GstElement* rtpbin, GstPad* stream, gpointer context) {
  auto* const state = static_cast<source_state*>(context);
  GstPad* shown = nullptr;
  {
    const std::lock_guard<std::mutex> guard(state->lock);
    const auto found = state->pads.find(stream);
    if (found == state->pads.end()) return;
    shown = found->second;
    state->pads.erase(found);
  }
  GstElement* const bin = GST_ELEMENT(GST_OBJECT_PARENT(rtpbin));
  const media::pad_ptr out(gst_ghost_pad_get_target(GST_GHOST_PAD(shown)));
  const media::element_ptr depay(out ? gst_pad_get_parent_element(out.get()) : nullptr);
  gst_element_remove_pad(bin, shown);
  if (!depay) return;
  gst_element_set_state(depay.get(), GST_STATE_NULL);
  gst_bin_remove(GST_BIN(bin), depay.get());
}

// ---- RTCP ----------------------------------------------------------------------------------

// Feedback goes where reports come from.
GstPadProbeReturn learn_address(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer sink) {
  const GstNetAddressMeta* const meta =
      gst_buffer_get_net_address_meta(GST_PAD_PROBE_INFO_BUFFER(info));
  if (meta == nullptr || !G_IS_INET_SOCKET_ADDRESS(meta->addr)) return GST_PAD_PROBE_OK;
  auto* const from = G_INET_SOCKET_ADDRESS(meta->addr);
  const std::unique_ptr<char, void (*)(void*)> host(
      g_inet_address_to_string(g_inet_socket_address_get_address(from)), g_free);
  const int port = g_inet_socket_address_get_port(from);
  auto* const known = static_cast<std::string*>(g_object_get_data(G_OBJECT(sink), "feedback-to"));
  const std::string address = std::string(host.get()) + " " + std::to_string(port);
  if (*known == address) return GST_PAD_PROBE_OK;
  *known = address;
  g_signal_emit_by_name(sink, "clear");
  g_signal_emit_by_name(sink, "add", host.get(), port);
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn unify_names(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer context) {
  const auto* const state = static_cast<source_state*>(context);
  GstBuffer* const buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  GstMapInfo map{};
  if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE) return GST_PAD_PROBE_DROP;
  const std::vector<uint8_t> named = with_cname(map.data, map.size, state->cname);
  gst_buffer_unmap(buffer, &map);
  if (named.empty()) return GST_PAD_PROBE_DROP;
  GstBuffer* const replaced = gst_buffer_new_memdup(named.data(), named.size());
  gst_buffer_copy_into(
      replaced, buffer,
      static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS |
                                      GST_BUFFER_COPY_META),
      0, static_cast<gsize>(-1));
  gst_buffer_unref(buffer);
  GST_PAD_PROBE_INFO_DATA(info) = replaced;
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn count(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer counter) {
  ++*static_cast<std::atomic<uint64_t>*>(counter);
  return GST_PAD_PROBE_OK;
}

// ---- The bin -------------------------------------------------------------------------------

void probe(GstElement* element, const char* pad, GstPadProbeCallback look, gpointer context) {
  const media::pad_ptr at(gst_element_get_static_pad(element, pad));
  gst_pad_add_probe(at.get(), GST_PAD_PROBE_TYPE_BUFFER, look, context, nullptr);
}

GstElement* add_element(GstElement* bin, const char* kind) {
  GstElement* const made = gst_element_factory_make(kind, nullptr);
  if (made != nullptr) gst_bin_add(GST_BIN(bin), made);
  return made;
}

GstElement* add_socket_source(GstElement* bin, GSocket* socket, const char* media_type) {
  GstElement* const source = add_element(bin, "udpsrc");
  const media::caps_ptr caps(gst_caps_new_empty_simple(media_type));
  g_object_set(source, "socket", socket, "close-socket", FALSE, "caps", caps.get(), nullptr);
  return source;
}

void link(GstElement* from, const char* out, GstElement* to, const char* in) {
  gst_element_link_pads(from, out, to, in);
}

// Where the packets of a session come out, still of its two kinds.
struct outlet {
  GstElement* element;
  const char* pad;
};

// RFC 5761: these payload types are RTCP's.
bool is_rtcp(GstBuffer* buffer) {
  uint8_t start[2] = {};
  return gst_buffer_extract(buffer, 0, start, 2) == 2 && start[1] >= 192 && start[1] <= 223;
}

GstPadProbeReturn only_rtp(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer /*unused*/) {
  return is_rtcp(GST_PAD_PROBE_INFO_BUFFER(info)) ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}
GstPadProbeReturn only_rtcp(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer /*unused*/) {
  return is_rtcp(GST_PAD_PROBE_INFO_BUFFER(info)) ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

// One socket for both kinds.
void split(GstElement* bin, outlet& rtp, outlet& rtcp) {
  GstElement* const tee = add_element(bin, "tee");
  GstElement* const rtp_out = add_element(bin, "identity");
  GstElement* const rtcp_out = add_element(bin, "capssetter");
  const media::caps_ptr caps(gst_caps_new_empty_simple("application/x-rtcp"));
  g_object_set(rtcp_out, "caps", caps.get(), "replace", TRUE, "join", FALSE, nullptr);
  link(rtp.element, rtp.pad, tee, "sink");
  link(tee, "src_0", rtp_out, "sink");
  link(tee, "src_1", rtcp_out, "sink");
  probe(rtp_out, "sink", only_rtp, nullptr);
  probe(rtcp_out, "sink", only_rtcp, nullptr);
  rtp = {rtp_out, "src"};
  rtcp = {rtcp_out, "src"};
}

void decrypt(GstElement* bin, source_state& state, outlet& rtp, outlet& rtcp) {
  GstElement* const decoder = add_element(bin, "srtpdec");
  g_signal_connect(decoder, "request-key", G_CALLBACK(on_request_key), &state);
  link(rtp.element, rtp.pad, decoder, "rtp_sink");
  if (rtcp.element != nullptr) link(rtcp.element, rtcp.pad, decoder, "rtcp_sink");
  probe(rtp.element, rtp.pad, count, &state.encrypted);
  probe(decoder, "rtp_src", count, &state.decrypted);
  // It tells the two kinds apart by itself.
  rtp = {decoder, "rtp_src"};
  rtcp = {decoder, "rtcp_src"};
}

outlet encrypt(GstElement* bin, const srtp_key& key, const outlet& rtcp) {
  GstElement* const encoder = add_element(bin, "srtpenc");
  const char* const name = cipher_name(key.mode);
  const char* const auth = key.mode == cipher::kAes128CmSha1_80 ? "hmac-sha1-80" : "null";
  const media::buffer_ptr bytes(
      gst_buffer_new_memdup(key.key_and_salt.data(), key.key_and_salt.size()));
  g_object_set(encoder, "key", bytes.get(), nullptr);
  gst_util_set_object_arg(G_OBJECT(encoder), "rtp-cipher", name);
  gst_util_set_object_arg(G_OBJECT(encoder), "rtcp-cipher", name);
  gst_util_set_object_arg(G_OBJECT(encoder), "rtp-auth", auth);
  gst_util_set_object_arg(G_OBJECT(encoder), "rtcp-auth", auth);
  link(rtcp.element, rtcp.pad, encoder, "rtcp_sink_0");
  return {encoder, "rtcp_src_0"};
}

// Reports and key frame requests, to where the sender's own reports come from.
void add_feedback(GstElement* bin, const source_state& state, GSocket* reply, const outlet& rtcp,
                  const outlet& learn_from) {
  const outlet out = state.key ? encrypt(bin, *state.key, rtcp) : rtcp;
  GstElement* const sink = add_element(bin, "multiudpsink");
  const bool v6 = g_socket_get_family(reply) == G_SOCKET_FAMILY_IPV6;
  g_object_set(sink, v6 ? "socket-v6" : "socket", reply, "close-socket", FALSE, "sync", FALSE,
               "async", FALSE, nullptr);
  g_object_set_data_full(
      G_OBJECT(sink), "feedback-to", std::make_unique<std::string>().release(), [](gpointer text) {
        const std::unique_ptr<std::string> owner(static_cast<std::string*>(text));
      });
  link(out.element, out.pad, sink, "sink");
  probe(learn_from.element, learn_from.pad, learn_address, sink);
}

// One media line: its sockets, its decryption, and its session of `rtpbin`.
void add_session(GstElement* bin, GstElement* rtpbin, source_state& state, size_t number) {
  const socket_pair& sockets = state.sockets[number];
  const std::string session = std::to_string(number);
  const bool encrypted = state.key.has_value();
  outlet rtp{add_socket_source(bin, sockets.rtp.get(),
                               encrypted ? "application/x-srtp" : "application/x-rtp"),
             "src"};
  outlet rtcp{nullptr, "src"};
  if (sockets.rtcp) {
    rtcp.element = add_socket_source(bin, sockets.rtcp.get(),
                                     encrypted ? "application/x-srtcp" : "application/x-rtcp");
  }
  const outlet reports_from = sockets.rtcp ? rtcp : rtp;
  if (encrypted) {
    decrypt(bin, state, rtp, rtcp);
  } else if (!sockets.rtcp) {
    split(bin, rtp, rtcp);
  }
  link(rtp.element, rtp.pad, rtpbin, ("recv_rtp_sink_" + session).c_str());
  link(rtcp.element, rtcp.pad, rtpbin, ("recv_rtcp_sink_" + session).c_str());
  probe(rtcp.element, rtcp.pad, unify_names, &state);
  const std::string out = "send_rtcp_src_" + session;
  add_feedback(bin, state, sockets.rtcp ? sockets.rtcp.get() : sockets.rtp.get(),
               {rtpbin, out.c_str()}, reports_from);
}

bool open_all(source_state& state, const settings& how, std::vector<int>& chosen,
              std::string& error) {
  for (const stream_description& stream : state.streams) {
    socket_pair sockets = open_sockets({stream.address, stream.port, stream.rtcp_port,
                                        stream.rtcp_mux, how.min_port, how.max_port},
                                       error);
    if (!sockets.rtp) return false;
    if (stream.port == 0) chosen.push_back(sockets.port);
    state.sockets.push_back(std::move(sockets));
  }
  return true;
}

GstElement* add_rtpbin(GstElement* bin, source_state& state, const settings& how) {
  GstElement* const rtpbin = add_element(bin, "rtpbin");
  if (rtpbin == nullptr) return nullptr;
  const auto latency_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(how.jitter_latency).count();
  g_object_set(rtpbin, "latency", static_cast<guint>(latency_ms), "do-lost", TRUE, "autoremove",
               TRUE, "max-streams", kMaxSources, "rtp-profile", kAvpfProfile, nullptr);
  g_signal_connect(rtpbin, "request-pt-map", G_CALLBACK(on_request_pt_map), &state);
  g_signal_connect(rtpbin, "pad-added", G_CALLBACK(on_stream), &state);
  g_signal_connect(rtpbin, "pad-removed", G_CALLBACK(on_stream_gone), &state);
  return rtpbin;
}

std::string undecryptable(source_state& state) {
  if (state.encrypted < kUndecryptable || state.decrypted > 0 || state.fault_told.exchange(true)) {
    return "";
  }
  return "none of its packets can be decrypted: --encrypt_mode or --encrypt_secret is not the "
         "sender's";
}

}  // namespace

std::optional<rtp_source> make_rtp_source(const std::string& text, const settings& how,
                                          std::vector<missing_medium>& left_out,
                                          std::string& error) {
  auto state = std::make_unique<source_state>();
  state->streams = parse_description(text, left_out, error);
  if (state->streams.empty()) return std::nullopt;
  state->key = how.key;
  state->cname = how.use_sender_reports ? "sender" : "";
  std::vector<int> chosen;
  if (!open_all(*state, how, chosen, error)) return std::nullopt;
  rtp_source made;
  made.bin.reset(GST_ELEMENT(gst_object_ref_sink(gst_bin_new(nullptr))));
  GstElement* const rtpbin = add_rtpbin(made.bin.get(), *state, how);
  if (rtpbin == nullptr || (how.key && !media::have_element("srtpdec"))) {
    error =
        "rtpbin is in the package gstreamer1.0-plugins-good, srtpdec in "
        "gstreamer1.0-plugins-bad";
    return std::nullopt;
  }
  for (size_t number = 0; number < state->streams.size(); ++number) {
    const stream_description& stream = state->streams[number];
    if (stream.srtp && !how.key) {
      error = "it is encrypted: --encrypt_mode and --encrypt_secret should be given";
      return std::nullopt;
    }
    add_session(made.bin.get(), rtpbin, *state, number);
    (stream.kind == media::media_kind::kVideo ? made.video : made.sound) = true;
  }
  if (!chosen.empty()) made.answer = answer_with_ports(text, chosen);
  source_state* const borrowed = state.release();
  made.fault = [borrowed] { return undecryptable(*borrowed); };
  // The bin's elements use it until they are gone.
  g_object_weak_ref(
      G_OBJECT(made.bin.get()),
      [](gpointer context, GObject*) {
        const std::unique_ptr<source_state> owner(static_cast<source_state*>(context));
      },
      borrowed);
  return made;
}

}  // namespace zelta::core_service::rtp
