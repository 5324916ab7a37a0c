// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/picture_formats.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>
#include <vector>

#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gstav1parser.h>
#include <gst/codecparsers/gstvp9parser.h>

#include "core_service/media/mp4/av1_config.h"
#include "core_service/media/picture_size.h"

namespace zelta::core_service::media {
namespace {

constexpr size_t kVp8KeyHeaderBytes = 10;
// More than any uncompressed header has.
constexpr size_t kVp9HeaderBytes = 256;
constexpr size_t kAv1FixedBytes = 4;  // of the box "av1C", up to the sequence header

template <class T, void (*Free)(T*)>
struct freed_with {
  void operator()(T* one) const { Free(one); }
};
using vp9_parser = std::unique_ptr<GstVp9Parser, freed_with<GstVp9Parser, gst_vp9_parser_free>>;
using av1_parser = std::unique_ptr<GstAV1Parser, freed_with<GstAV1Parser, gst_av1_parser_free>>;

format_ptr format_of(const codec& kind, int64_t width, int64_t height,
                     std::vector<uint8_t> config = {}) {
  if (!is_picture_size(width, height)) return nullptr;
  auto made = std::make_shared<stream_format>();
  made->kind = &kind;
  made->width = static_cast<int>(width);
  made->height = static_cast<int>(height);
  made->config = std::move(config);
  return made;
}

// A codec whose format is its size.
class sized_source : public format_source {
 public:
  explicit sized_source(const codec& kind) : kind_(kind) {}

 protected:
  void set_size(int64_t width, int64_t height) {
    if (format_ != nullptr && format_->width == width && format_->height == height) return;
    format_ = format_of(kind_, width, height);
  }
  format_ptr format_;

 private:
  const codec& kind_;
};

// RFC 6386, 9.1.
class vp8 : public sized_source {
 public:
  using sized_source::sized_source;
  format_ptr look(const uint8_t* unit, size_t bytes, bool key) override {
    if (!key || bytes == 0 || (unit[0] & 1U) != 0) return format_;
    const bool whole =
        bytes >= kVp8KeyHeaderBytes && unit[3] == 0x9D && unit[4] == 0x01 && unit[5] == 0x2A;
    // The two bits above a size ask for scaling when it is shown, which no decoder does.
    const auto pixels = [&](size_t at) { return unit[at] | (unit[at + 1] & 0x3F) << 8; };
    set_size(whole ? pixels(6) : 0, whole ? pixels(8) : 0);
    return format_;
  }
};

// The header of a superframe's first frame stands where a lone frame's does: the index is behind.
class vp9 : public sized_source {
 public:
  using sized_source::sized_source;
  format_ptr look(const uint8_t* unit, size_t bytes, bool key) override {
    if (!key || bytes == 0) return format_;
    GstVp9FrameHdr header{};
    // The library may look past what it is given, for which there are zeros here.
    std::array<uint8_t, kVp9HeaderBytes> head{};
    std::copy_n(unit, std::min(bytes, head.size()), head.begin());
    if (gst_vp9_parser_parse_frame_header(parser_.get(), &header, head.data(), head.size()) !=
            GST_VP9_PARSER_OK ||
        header.frame_header_length_in_bytes > bytes) {
      set_size(0, 0);
    } else if (header.show_existing_frame == 0 && header.frame_type == GST_VP9_KEY_FRAME) {
      set_size(header.width, header.height);
    }
    return format_;
  }

 private:
  const vp9_parser parser_{gst_vp9_parser_new()};
};

class av1 : public format_source {
 public:
  explicit av1(const codec& kind) : kind_(kind) {}

  format_ptr look(const uint8_t* unit, size_t bytes, bool key) override {
    if (!key || bytes > UINT32_MAX) return format_;
    for (size_t at = 0; at < bytes;) {
      GstAV1OBU obu{};
      guint32 whole = 0;
      const GstAV1ParserResult result = gst_av1_parser_identify_one_obu(
          parser_.get(), unit + at, static_cast<guint32>(bytes - at), &obu, &whole);
      if ((result != GST_AV1_PARSER_OK && result != GST_AV1_PARSER_DROP) || whole == 0 ||
          whole > bytes - at) {
        break;
      }
      if (result == GST_AV1_PARSER_OK && obu.obu_type == GST_AV1_OBU_SEQUENCE_HEADER) {
        if (!is_known(unit + at, whole)) format_ = read(obu, unit + at, whole);
        break;
      }
      at += whole;
    }
    return format_;
  }

 private:
  bool is_known(const uint8_t* obu, size_t bytes) const {
    return format_ != nullptr && format_->config.size() == kAv1FixedBytes + bytes &&
           std::memcmp(format_->config.data() + kAv1FixedBytes, obu, bytes) == 0;
  }
  format_ptr read(GstAV1OBU& obu, const uint8_t* from, size_t bytes) {
    GstAV1SequenceHeaderOBU sequence{};
    if (gst_av1_parser_parse_sequence_header_obu(parser_.get(), &obu, &sequence) !=
        GST_AV1_PARSER_OK) {
      return nullptr;
    }
    std::vector<uint8_t> config = mp4::av1_config_of({from, from + bytes});
    if (config.empty()) return nullptr;
    return format_of(kind_, int64_t{sequence.max_frame_width_minus_1} + 1,
                     int64_t{sequence.max_frame_height_minus_1} + 1, std::move(config));
  }

  const codec& kind_;
  const av1_parser parser_{gst_av1_parser_new()};
  format_ptr format_;
};

}  // namespace

std::unique_ptr<format_source> vp8_source(const codec& kind) {
  return std::make_unique<vp8>(kind);
}

std::unique_ptr<format_source> vp9_source(const codec& kind) {
  return std::make_unique<vp9>(kind);
}

std::unique_ptr<format_source> av1_source(const codec& kind) {
  return std::make_unique<av1>(kind);
}

}  // namespace zelta::core_service::media
