// SPDX-License-Identifier: Apache-2.0
// The out-of-line parts of the public types, so that applications need not be compiled again when a
// default changes.
#include "IZeltaRecordingEngine.h"

namespace zelta::linuxsdk {

AudioPcmFrame::AudioPcmFrame(u64_t frame_ms, uint_t sample_rates, uint_t samples)
    : frame_ms_(frame_ms),
      channels_(1),
      sample_bits_(16),
      sample_rates_(sample_rates),
      samples_(samples),
      pcmBuf_(nullptr),
      pcmBufSize_(0) {}
AudioPcmFrame::~AudioPcmFrame() = default;

AudioAacFrame::AudioAacFrame(u64_t frame_ms)
    : aacBuf_(nullptr), frame_ms_(frame_ms), aacBufSize_(0), channels_(1), bitrate_(0) {}
AudioAacFrame::~AudioAacFrame() = default;

AudioFrame::AudioFrame() : type(AUDIO_FRAME_RAW_PCM), frame{nullptr}, mType(STACK_MEM_TYPE) {}
AudioFrame::~AudioFrame() = default;

VideoYuvFrame::VideoYuvFrame(u64_t frame_ms, uint_t width, uint_t height, uint_t ystride,
                             uint_t ustride, uint_t vstride)
    : frame_ms_(frame_ms),
      ybuf_(nullptr),
      ubuf_(nullptr),
      vbuf_(nullptr),
      width_(width),
      height_(height),
      ystride_(ystride),
      ustride_(ustride),
      vstride_(vstride),
      buf_(nullptr),
      bufSize_(0) {}
VideoYuvFrame::~VideoYuvFrame() = default;

VideoFrame::VideoFrame()
    : type(VIDEO_FRAME_RAW_YUV), frame{nullptr}, rotation_(0), mType(STACK_MEM_TYPE) {}
VideoFrame::~VideoFrame() = default;

}  // namespace zelta::linuxsdk

namespace zelta::recording {
namespace {

constexpr int kDefaultIdleLimitSec = 300;
constexpr int kDefaultCaptureIntervalSec = 5;

std::string text_or_empty(const char* text) {
  return text != nullptr ? text : "";
}

}  // namespace

RecordingConfig::RecordingConfig()
    : isAudioOnly(false),
      isVideoOnly(false),
      isMixingEnabled(false),
      mixedVideoAudio(MIXED_AV_DEFAULT),
      mixResolution(nullptr),
      decryptionMode(nullptr),
      secret(nullptr),
      appliteDir(nullptr),
      recordFileRootDir(nullptr),
      cfgFilePath(nullptr),
      decodeVideo(VIDEO_FORMAT_DEFAULT_TYPE),
      decodeAudio(AUDIO_FORMAT_DEFAULT_TYPE),
      lowUdpPort(0),
      highUdpPort(0),
      idleLimitSec(kDefaultIdleLimitSec),
      captureInterval(kDefaultCaptureIntervalSec),
      audioIndicationInterval(0),
      channelProfile(CHANNEL_PROFILE_COMMUNICATION),
      streamType(REMOTE_VIDEO_STREAM_HIGH),
      triggerMode(AUTOMATICALLY_MODE),
      lang(CPP_LANG),
      proxyServer(nullptr),
      audioProfile(AUDIO_PROFILE_DEFAULT),
      defaultVideoBg(nullptr),
      defaultUserBg(nullptr) {}
RecordingConfig::RecordingConfig(const RecordingConfig& other) = default;
RecordingConfig& RecordingConfig::operator=(const RecordingConfig& other) = default;
RecordingConfig::~RecordingConfig() = default;

RecordingConfigEx::RecordingConfigEx()
    : channelProfile(CHANNEL_PROFILE_COMMUNICATION),
      isAudioOnly(false),
      isVideoOnly(false),
      isMixingEnabled(false),
      mixedVideoAudio(false),
      decodeAudio(AUDIO_FORMAT_DEFAULT_TYPE),
      decodeVideo(VIDEO_FORMAT_DEFAULT_TYPE),
      streamType(REMOTE_VIDEO_STREAM_HIGH),
      lowUdpPort(0),
      highUdpPort(0),
      idleLimitSec(kDefaultIdleLimitSec),
      captureInterval(kDefaultCaptureIntervalSec),
      uid(0),
      triggerMode(0),
      lang(0),
      audioProfile(0),
      chunkTimeSpan(0) {}
RecordingConfigEx::~RecordingConfigEx() = default;

RecordingConfigEx& RecordingConfigEx::operator=(const RecordingConfig& src) {
  channelProfile = src.channelProfile;
  isAudioOnly = src.isAudioOnly;
  isVideoOnly = src.isVideoOnly;
  isMixingEnabled = src.isMixingEnabled;
  mixedVideoAudio = src.mixedVideoAudio != MIXED_AV_DEFAULT;
  decodeAudio = src.decodeAudio;
  decodeVideo = src.decodeVideo;
  streamType = src.streamType;
  lowUdpPort = src.lowUdpPort;
  highUdpPort = src.highUdpPort;
  idleLimitSec = src.idleLimitSec;
  captureInterval = src.captureInterval;
  mixResolution = text_or_empty(src.mixResolution);
  decryptionMode = text_or_empty(src.decryptionMode);
  secret = text_or_empty(src.secret);
  appliteDir = text_or_empty(src.appliteDir);
  recordFileRootDir = text_or_empty(src.recordFileRootDir);
  cfgFilePath = text_or_empty(src.cfgFilePath);
  triggerMode = static_cast<uint32_t>(src.triggerMode);
  lang = static_cast<uint32_t>(src.lang);
  proxyServer = text_or_empty(src.proxyServer);
  // audioProfile and what joins don't carry keep their values: the command line takes the profile
  // from the application's record, and chunkTimeSpan was read from the file just before.
  return *this;
}

}  // namespace zelta::recording
