// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/format_caps.h"

#include <cstring>
#include <utility>

#include "core_service/media/mp4/av1_config.h"
#include "core_service/media/nal_formats.h"
#include "core_service/media/picture_size.h"

namespace zelta::core_service::media {
namespace {

constexpr int kOpusRate = 48'000;
constexpr size_t kOpusGain = 16;  // place of the output gain in an OpusHead (RFC 7845, section 5.1)
constexpr size_t kAv1FixedBytes = 4;  // of the box "av1C", up to the sequence header

struct caps_row {
  const char* codec;
  const char* caps;
  const nal_rules* rules;  // of a codec whose config is needed
};
// A muxer wants to be told of a frame rate, and be it that it varies.
const caps_row kRows[] = {
    {"h264", "video/x-h264,stream-format=avc,alignment=au", &kH264Rules},
    {"hevc", "video/x-h265,stream-format=hvc1,alignment=au", &kHevcRules},
    {"av1", "video/x-av1,stream-format=obu-stream,alignment=tu", nullptr},
    {"vp8", "video/x-vp8,framerate=0/1", nullptr},
    {"vp9", "video/x-vp9,framerate=0/1", nullptr},
    {"opus", "audio/x-opus,channel-mapping-family=0", nullptr},
    {"aac", "audio/mpeg,mpegversion=4,framed=true,stream-format=raw", nullptr},
    {"pcmu", "audio/x-mulaw", nullptr},
    {"pcma", "audio/x-alaw", nullptr},
};

const caps_row* row_of(const codec& kind) {
  for (const caps_row& row : kRows) {
    if (std::strcmp(row.codec, kind.name) == 0) return &row;
  }
  return nullptr;
}

std::vector<uint8_t> codec_data_of(const GstStructure* fields) {
  const GValue* const value = gst_structure_get_value(fields, "codec_data");
  if (value == nullptr || !GST_VALUE_HOLDS_BUFFER(value)) return {};
  GstBuffer* const data = gst_value_get_buffer(value);
  return data != nullptr ? bytes_of(data) : std::vector<uint8_t>();
}

// Some demuxers cut it short: it is made anew from the sequence header in it.
std::vector<uint8_t> av1_config(const std::vector<uint8_t>& codec_data) {
  if (codec_data.size() <= kAv1FixedBytes) return {};
  return mp4::av1_config_of({codec_data.begin() + kAv1FixedBytes, codec_data.end()});
}

bool read_picture(const GstStructure* fields, stream_format& out) {
  out.width = int_of(fields, "width");
  out.height = int_of(fields, "height");
  int across = 1;
  int down = 1;
  gst_structure_get_fraction(fields, "pixel-aspect-ratio", &across, &down);
  if (across > 0 && down > 0) {
    out.aspect_across = across;
    out.aspect_down = down;
  }
  return is_picture_size(out.width, out.height);
}

// Where packets are all that counts, nothing is left of what their encoder's own file said: how
// much of its beginning to skip is another matter in ours.
void read_opus(const GstStructure* fields, stream_format& out) {
  // Its clock has one rate (RFC 7587, section 4.1), whatever was recorded once.
  out.sample_rate = kOpusRate;
  const GValue* const headers = gst_structure_get_value(fields, "streamheader");
  const GValue* const first =
      headers != nullptr && GST_VALUE_HOLDS_ARRAY(headers) && gst_value_array_get_size(headers) > 0
          ? gst_value_array_get_value(headers, 0)
          : nullptr;
  const std::vector<uint8_t> head = first != nullptr && GST_VALUE_HOLDS_BUFFER(first)
                                        ? bytes_of(gst_value_get_buffer(first))
                                        : std::vector<uint8_t>();
  const bool has_gain =
      head.size() >= kOpusGain + 2 && (head[kOpusGain] | head[kOpusGain + 1]) != 0;
  const bool plain = (out.channels == 1 || out.channels == 2) && !has_gain &&
                     int_of(fields, "channel-mapping-family") == 0;
  if (plain) out.caps.reset();
}

}  // namespace

caps_ptr caps_of(const stream_format& format) {
  if (format.caps) return caps_ptr(gst_caps_copy(format.caps.get()));
  const caps_row* const row = format.kind != nullptr ? row_of(*format.kind) : nullptr;
  if (row == nullptr) return nullptr;
  caps_ptr caps(gst_caps_from_string(row->caps));
  if (format.kind->kind == media_kind::kVideo) {
    gst_caps_set_simple(caps.get(), "width", G_TYPE_INT, format.width, "height", G_TYPE_INT,
                        format.height, "pixel-aspect-ratio", GST_TYPE_FRACTION,
                        format.aspect_across, format.aspect_down, nullptr);
  } else {
    gst_caps_set_simple(caps.get(), "rate", G_TYPE_INT, format.sample_rate, "channels", G_TYPE_INT,
                        format.channels, nullptr);
  }
  if (!format.config.empty()) {
    const buffer_ptr data(gst_buffer_new_allocate(nullptr, format.config.size(), nullptr));
    gst_buffer_fill(data.get(), 0, format.config.data(), format.config.size());
    gst_caps_set_simple(caps.get(), "codec_data", GST_TYPE_BUFFER, data.get(), nullptr);
  }
  return caps;
}

format_ptr format_of(const GstCaps* caps) {
  if (caps == nullptr || gst_caps_is_fixed(caps) == FALSE) return nullptr;
  const codec* const kind = find_codec(caps);
  if (kind == nullptr) return nullptr;
  const GstStructure* const fields = gst_caps_get_structure(caps, 0);
  auto made = std::make_shared<stream_format>();
  made->kind = kind;
  made->config = codec_data_of(fields);
  made->caps = {gst_caps_copy(caps), caps_unref()};
  if (kind->kind == media_kind::kAudio) {
    made->sample_rate = int_of(fields, "rate");
    made->channels = int_of(fields, "channels");
    if (std::strcmp(kind->name, "opus") == 0) read_opus(fields, *made);
    return made;
  }
  if (!read_picture(fields, *made)) return nullptr;
  if (std::strcmp(kind->name, "av1") == 0) made->config = av1_config(made->config);
  const caps_row* const row = row_of(*kind);
  if (row != nullptr && row->rules != nullptr) {
    if (made->config.empty()) return nullptr;
    made->reordered = reordered_by(*row->rules, made->config);
  }
  return made;
}

media_sample unit_samples::of(const encoded_unit& unit) {
  if (format_ != unit.format) {
    format_ = unit.format;
    caps_ = caps_of(*unit.format);
  }
  using context = handed_over<shared_bytes>;
  auto kept = std::make_unique<context>(unit.bytes);
  media_sample made;
  made.buffer.reset(gst_buffer_new_wrapped_full(
      GST_MEMORY_FLAG_READONLY, const_cast<uint8_t*>(unit.bytes.data()), unit.bytes.size(), 0,
      unit.bytes.size(), kept.release(), [](gpointer given) {
        const std::unique_ptr<context> owner(static_cast<context*>(given));
        owner->get() = {};
      }));
  set_key(made.buffer.get(), unit.key);
  if (caps_) made.caps.reset(gst_caps_ref(caps_.get()));
  made.time = unit.time;
  made.decode_time = unit.decode_time;
  made.duration = unit.duration;
  made.key = unit.key;
  return made;
}

}  // namespace zelta::core_service::media
