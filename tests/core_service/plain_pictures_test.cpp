// SPDX-License-Identifier: Apache-2.0
// Whatever a decoder puts out, what is composed and delivered of it is plain.
#include <tuple>

#include <gst/video/video.h>
#include <gtest/gtest.h>

#include "core_service/media/gst.h"
#include "core_service/media/plain_pictures.h"

namespace zelta::core_service::media {
namespace {

// Beside a canvas, as in a mix.
TEST(PlainPictures, AreProgressiveSquareAndComposable) {
  gst_init(nullptr, nullptr);
  const std::tuple<const char*, int, int> rows[] = {
      {"format=I420,width=64,height=48", 64, 48},
      {"format=I420,width=64,height=48,interlace-mode=interleaved,field-order=top-field-first", 64,
       48},
      {"format=I420,width=64,height=48,interlace-mode=mixed", 64, 48},
      {"format=I422_10LE,width=64,height=48,interlace-mode=interleaved", 64, 48},
      {"format=NV12,width=65,height=47,colorimetry=bt2100-pq", 65, 47},
      {"format=AYUV,width=64,height=48,multiview-mode=left", 64, 48},
      {"format=Y444_12LE,width=64,height=48,pixel-aspect-ratio=16/11", 93, 48},
      {"format=GRAY8,width=1,height=1", 1, 1},
      {"format=I420,width=16,height=4096", 16, 4096},
      {"format=I420,width=16,height=16000", 8, 8192},
      {"format=I420,width=4096,height=16,pixel-aspect-ratio=100/1", 4096, 1},
  };
  for (const auto& [sent, width, height] : rows) {
    SCOPED_TRACE(sent);
    std::string error;
    const element_ptr pipeline = make_pipeline(
        std::string("videotestsrc num-buffers=3 ! video/x-raw,framerate=25/1,") + sent + " ! " +
            plain_pictures() +
            " ! tee name=t ! queue ! appsink name=out sync=false t. ! queue ! aspectratiocrop "
            "aspect-ratio=16/9 ! c.sink_1 videotestsrc num-buffers=3 ! "
            "video/x-raw,format=I420,width=64,height=36 ! compositor name=c ! "
            "video/x-raw,format=I420,width=64,height=36 ! appsink name=mix sync=false",
        error);
    ASSERT_TRUE(pipeline) << error;
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    for (const char* const end : {"out", "mix"}) {
      const sample_ptr got(
          gst_app_sink_try_pull_sample(GST_APP_SINK(child(pipeline.get(), end)), 10 * GST_SECOND));
      GstVideoInfo info{};
      ASSERT_TRUE(got && gst_video_info_from_caps(&info, gst_sample_get_caps(got.get())) != FALSE)
          << end;
      if (std::string(end) == "mix") continue;
      EXPECT_EQ(info.finfo->format, GST_VIDEO_FORMAT_I420);
      EXPECT_EQ(info.interlace_mode, GST_VIDEO_INTERLACE_MODE_PROGRESSIVE);
      EXPECT_EQ(info.par_n, info.par_d);
      EXPECT_EQ(info.width, width);
      EXPECT_EQ(info.height, height);
    }
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
  }
}

TEST(PlainPictures, HugeOnesAreNotDecoded) {
  gst_init(nullptr, nullptr);
  using answer = std::optional<bool>;
  for (const auto& [caps, decoded] :
       {std::pair("video/x-h264,width=8192,height=4352", answer(true)),
        std::pair("video/x-h264,width=4320,height=8192", answer(true)),
        std::pair("video/x-vp8", answer()),
        std::pair("video/x-h264,width=8192,height=4353", answer(false)),
        std::pair("video/x-vp9,width=2147483647,height=2147483647", answer(false))}) {
    const caps_ptr coded(gst_caps_from_string(caps));
    EXPECT_EQ(is_decodable(coded.get()), decoded) << caps;
  }
  using bytes = std::vector<uint8_t>;
  const bytes theora{0x80, 't', 'h', 'e', 'o', 'r', 'a', 3, 2, 1, 2, 0, 1, 0x10};
  for (const auto& [coded, vp8, decoded] :
       {std::tuple(bytes{0x10, 0, 0, 0x9d, 1, 0x2a, 0, 0xe0, 0, 0x51}, true, answer(true)),
        std::tuple(bytes{0x10, 0, 0, 0x9d, 1, 0x2a, 0, 0x20, 1, 0x51}, true, answer(false)),
        std::tuple(bytes{0x11, 0, 0, 0x9d, 1, 0x2a, 0, 0x20, 1, 0x51}, true, answer()),
        std::tuple(bytes{0x10, 0, 0, 0x9d, 1, 0x2a, 0, 0x20, 1}, true, answer()),
        std::tuple(theora, false, answer(true)),
        std::tuple(bytes(theora.begin(), theora.end() - 1), false, answer()),
        std::tuple(bytes{0x80, 't', 'h', 'e', 'o', 'r', 'a', 3, 2, 1, 2, 0, 1, 0x11}, false,
                   answer(false)),
        std::tuple(bytes{0x81, 't', 'h', 'e', 'o', 'r', 'a', 3, 2, 1, 2, 0, 1, 0x11}, false,
                   answer())}) {
    EXPECT_EQ(is_decodable(coded.data(), coded.size(), vp8), decoded) << coded.size();
  }
}

}  // namespace
}  // namespace zelta::core_service::media
