// SPDX-License-Identifier: Apache-2.0
// Recording of a real-time channel: everything that an application sees.
//
// One engine object records one session. It starts a recorder process, ZeltaCoreService, which
// joins the channel and writes the files; the engine tells the application what happens through its
// handler and, when asked to, hands it the media frames.
//
//     application thread                          engine thread
//     ------------------                          -------------
//     createZeltaRecordingEngine()
//     joinChannel()  -- starts the recorder -->   onJoinChannelSuccess
//                                                 onUserJoined, onFirstRemoteVideoDecoded, ...
//     setVideoMixingLayout(), ...                 audioFrameReceived, videoFrameReceived
//                                                 onUserOffline
//     leaveChannel()                              (no callback after it has returned)
//     release()      -- files are complete
//
// Threads: the functions of IRecordingEngine are for the application's threads. All callbacks come
// on the engine's own thread, one at a time, and none after leaveChannel() has returned to another
// thread. A callback should return quickly: while it runs, no frame is read. From inside a callback
// an application may call any function but joinChannel() and release(); leaveChannel() then takes
// effect when the callback returns.
//
// One engine object serves one recording: it joins once, and its first leaveChannel(), before the
// join or after it, is its only one. Make a new engine for the next recording. On one that was
// left, joinChannel() returns 0 and starts a recorder, which is told to leave within half a second;
// release() is safe then too. These end the process (SIGABRT), because there is no state to go on
// from:
//   - joinChannel() while the thread of an earlier successful one hasn't been waited for: a second
//     one without leaveChannel() in between, one after a leaveChannel() from inside a callback, and
//     a second one on an engine that was left;
//   - release() from inside a callback;
//   - an exception that leaves a callback.
// A joinChannel() that was refused counts as none, as long as the engine wasn't left.
//
// Recovery: a recorder that dies in mid-session is started again in the same folder, at most three
// times in the life of an engine; each time onWarning(WARN_RECOVERY_CORE_SERVICE_FAILURE) comes.
// After that, or when it can't be, onError(ERR_INTERNAL_FAILED, poll bits) comes and the session is
// over: the functions still return, packets for the recorder are dropped, and the application calls
// leaveChannel() and release().
//
// The process: creating an engine ignores SIGPIPE for the whole process. The application must not
// reap children that it didn't start (waitpid(-1)).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#define ZELTA_API __attribute__((visibility("default")))

namespace zelta {
namespace linuxsdk {

using uid_t = uint32_t;
using u64_t = uint64_t;
using uint_t = uint32_t;
using uchar_t = uint8_t;

// First argument of onError.
enum ERROR_CODE_TYPE : int32_t {
  ERR_OK = 0,                // no error
  ERR_FAILED = 1,            // the recorder could not do its work; the log says why
  ERR_INVALID_ARGUMENT = 2,  // something of one user's can't be recorded; the others' is
  ERR_INTERNAL_FAILED = 3,   // the recorder is gone and could not be started again
};

// Second argument of onError. The last three are bits and may be combined.
enum STAT_CODE_TYPE : int32_t {
  STAT_OK = 0,                              // nothing to add
  STAT_ERR_FROM_ENGINE = 1,                 // the recorder's media engine failed
  STAT_ERR_ZRS_JOIN_CHANNEL = 2,            // the channel could not be joined
  STAT_ERR_CREATE_PROCESS = 3,              // a process could not be started
  STAT_ERR_MIXED_INVALID_VIDEO_PARAM = 4,   // the mixed picture's parameters can't be used
  STAT_ERR_NULL_POINTER = 5,                // something needed was not given
  STAT_ERR_PROXY_SERVER_INVALID_PARAM = 6,  // the proxy server's text can't be used
  STAT_POLL_ERR = 8,                        // the recorder stopped reading, or sent nonsense
  STAT_POLL_HANG_UP = 16,                   // the recorder closed its side: it has ended
  STAT_POLL_NVAL = 32,                      // the link's descriptor is not open
};

// Why the recorder left; bits, which may be combined.
enum LEAVE_PATH_CODE : int32_t {
  LEAVE_CODE_INIT = 0,           // no reason yet
  LEAVE_CODE_SIG = 2,            // the recorder got SIGTERM or SIGINT
  LEAVE_CODE_NO_USERS = 4,       // nobody was in the channel for idleLimitSec
  LEAVE_CODE_TIMER_CATCH = 8,    // the recorder's own guard: no progress, no disk
  LEAVE_CODE_CLIENT_LEAVE = 16,  // the application left
};

enum WARN_CODE_TYPE : int32_t {
  WARN_NO_AVAILABLE_CHANNEL = 103,           // no server has room for the channel
  WARN_LOOKUP_CHANNEL_TIMEOUT = 104,         // looking the channel up took too long
  WARN_LOOKUP_CHANNEL_REJECTED = 105,        // the server refused to look the channel up
  WARN_OPEN_CHANNEL_TIMEOUT = 106,           // opening the channel took too long
  WARN_OPEN_CHANNEL_REJECTED = 107,          // the server refused to open the channel
  WARN_RECOVERY_CORE_SERVICE_FAILURE = 108,  // the recorder had died and was started again
};

enum CHANNEL_PROFILE_TYPE : int32_t {
  CHANNEL_PROFILE_COMMUNICATION = 0,      // everybody sends
  CHANNEL_PROFILE_LIVE_BROADCASTING = 1,  // hosts send, an audience listens
};

enum USER_OFFLINE_REASON_TYPE : int32_t {
  USER_OFFLINE_QUIT = 0,             // the user left; the only one that is reported today
  USER_OFFLINE_DROPPED = 1,          // the connection to the user was lost
  USER_OFFLINE_BECOME_AUDIENCE = 2,  // a host went to the audience
};

enum REMOTE_VIDEO_STREAM_TYPE : int32_t {
  REMOTE_VIDEO_STREAM_HIGH = 0,  // the large picture
  REMOTE_VIDEO_STREAM_LOW = 1,   // the small one
};

// What is done with video. "Frames" go to videoFrameReceived.
enum VIDEO_FORMAT_TYPE : int32_t {
  VIDEO_FORMAT_DEFAULT_TYPE = 0,         // recorded in files
  VIDEO_FORMAT_H264_FRAME_TYPE = 1,      // H.264 access units as frames
  VIDEO_FORMAT_YUV_FRAME_TYPE = 2,       // pictures as frames
  VIDEO_FORMAT_JPG_FRAME_TYPE = 3,       // a JPEG every captureInterval as a frame
  VIDEO_FORMAT_JPG_FILE_TYPE = 4,        // a JPEG every captureInterval as a file
  VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE = 5,  // JPEG files beside the recording
};

// What is done with audio. "Frames" go to audioFrameReceived.
enum AUDIO_FORMAT_TYPE : int32_t {
  AUDIO_FORMAT_DEFAULT_TYPE = 0,          // recorded in files
  AUDIO_FORMAT_AAC_FRAME_TYPE = 1,        // AAC of each user as frames
  AUDIO_FORMAT_PCM_FRAME_TYPE = 2,        // samples of each user as frames
  AUDIO_FORMAT_MIXED_PCM_FRAME_TYPE = 3,  // samples of all users mixed, uid 0
};

enum AUDIO_FRAME_TYPE : int32_t {
  AUDIO_FRAME_RAW_PCM = 0,  // frame.pcm
  AUDIO_FRAME_AAC = 1,      // frame.aac
};

// Who owns the buffers of a frame.
enum MEMORY_TYPE : int32_t {
  STACK_MEM_TYPE = 0,  // the engine, for the time of the callback; the only one that it makes
  HEAP_MEM_TYPE = 1,   // whoever allocated them
};

enum VIDEO_FRAME_TYPE : int32_t {
  VIDEO_FRAME_RAW_YUV = 0,  // frame.yuv
  VIDEO_FRAME_H264 = 1,     // frame.h264
  VIDEO_FRAME_JPG = 2,      // frame.jpg
};

enum SERVICE_MODE : int32_t {
  RECORDING_MODE = 0,  // records one channel
  SERVER_MODE = 1,     // serves many
  IOT_MODE = 2,        // runs on a device
};

enum TRIGGER_MODE_TYPE : int32_t {
  AUTOMATICALLY_MODE = 0,  // recording starts with the join
  MANUALLY_MODE = 1,       // recording starts with startService()
};

enum LANGUAGE_TYPE : int32_t {
  CPP_LANG = 0,   // the application is written in C++
  JAVA_LANG = 1,  // the application is written in Java
};

// Of the mixed sound.
enum AUDIO_PROFILE_TYPE : int32_t {
  AUDIO_PROFILE_DEFAULT = 0,              // 48 kHz, mono, 48 kbit/s
  AUDIO_PROFILE_HIGH_QUALITY = 1,         // 48 kHz, mono, 128 kbit/s
  AUDIO_PROFILE_HIGH_QUALITY_STEREO = 2,  // 48 kHz, stereo, 192 kbit/s
};

// Lower is more severe.
enum zelta_log_level : int32_t {
  ZELTA_LOG_LEVEL_FATAL = 1,   // the process can't go on
  ZELTA_LOG_LEVEL_ERROR = 2,   // something was refused or lost
  ZELTA_LOG_LEVEL_WARN = 3,    // something is not as it should be
  ZELTA_LOG_LEVEL_NOTICE = 4,  // the steps of a session; the default
  ZELTA_LOG_LEVEL_INFO = 5,    // details of it
  ZELTA_LOG_LEVEL_DEBUG = 6,   // for the developers
};

// Whether mixed sound and picture share a file.
enum MIXED_AV_CODEC_TYPE : int32_t {
  MIXED_AV_DEFAULT = 0,   // apart
  MIXED_AV_CODEC_V1 = 1,  // one file, H.264 constrained baseline
  MIXED_AV_CODEC_V2 = 2,  // one file, H.264 high profile
};

// ---- Frames. All pointers of a frame are valid during the callback only. ----

// Interleaved samples.
class ZELTA_API AudioPcmFrame {
 public:
  AudioPcmFrame(u64_t frame_ms, uint_t sample_rates, uint_t samples);
  ~AudioPcmFrame();

  u64_t frame_ms_;       // media time of the first sample, milliseconds
  uint_t channels_;      // 1 or 2
  uint_t sample_bits_;   // 16
  uint_t sample_rates_;  // samples a second and channel
  uint_t samples_;       // 16-bit samples in the buffer, all channels together
  const uchar_t* pcmBuf_;
  uint_t pcmBufSize_;  // bytes
};

// One ADTS frame.
class ZELTA_API AudioAacFrame {
 public:
  explicit AudioAacFrame(u64_t frame_ms);
  ~AudioAacFrame();

  const uchar_t* aacBuf_;
  u64_t frame_ms_;     // media time, milliseconds
  uint_t aacBufSize_;  // bytes
  uint_t channels_;
  uint_t bitrate_;  // bits a second
};

class ZELTA_API AudioFrame {
 public:
  AudioFrame();
  ~AudioFrame();

  AUDIO_FRAME_TYPE type;
  union {
    AudioPcmFrame* pcm;  // AUDIO_FRAME_RAW_PCM
    AudioAacFrame* aac;  // AUDIO_FRAME_AAC
  } frame;
  MEMORY_TYPE mType;  // STACK_MEM_TYPE: the frame owns nothing
};

// An I420 picture: the chroma planes have half the width and half the rows.
class ZELTA_API VideoYuvFrame {
 public:
  VideoYuvFrame(u64_t frame_ms, uint_t width, uint_t height, uint_t ystride, uint_t ustride,
                uint_t vstride);
  ~VideoYuvFrame();

  u64_t frame_ms_;       // media time, milliseconds
  const uchar_t* ybuf_;  // planes, inside buf_
  const uchar_t* ubuf_;
  const uchar_t* vbuf_;
  uint_t width_;  // pixels
  uint_t height_;
  uint_t ystride_;  // bytes a row
  uint_t ustride_;
  uint_t vstride_;
  const uchar_t* buf_;  // the whole picture
  uint_t bufSize_;      // bytes
};

// One access unit in byte-stream format, with the parameter sets in front of a key frame.
struct ZELTA_API VideoH264Frame {
  u64_t frame_ms_ = 0;    // media time, milliseconds
  uint_t frame_num_ = 0;  // counts the user's access units
  const uchar_t* buf_ = nullptr;
  uint_t bufSize_ = 0;  // bytes
};

// One JPEG image.
struct ZELTA_API VideoJpgFrame {
  u64_t frame_ms_ = 0;  // media time, milliseconds
  const uchar_t* buf_ = nullptr;
  uint_t bufSize_ = 0;  // bytes
};

class ZELTA_API VideoFrame {
 public:
  VideoFrame();
  ~VideoFrame();

  VIDEO_FRAME_TYPE type;
  union {
    VideoYuvFrame* yuv;    // VIDEO_FRAME_RAW_YUV
    VideoH264Frame* h264;  // VIDEO_FRAME_H264
    VideoJpgFrame* jpg;    // VIDEO_FRAME_JPG
  } frame;
  int rotation_;      // degrees clockwise by which to turn the picture for display
  MEMORY_TYPE mType;  // STACK_MEM_TYPE: the frame owns nothing
};

// Where the users stand on the mixed picture. Copied by setVideoMixingLayout(); no regions is a
// layout too: the background alone.
struct ZELTA_API VideoMixingLayout {
  struct ZELTA_API Region {
    uid_t uid = 0;
    double x = 0;        // left edge, 0 to 1 of the canvas width
    double y = 0;        // upper edge, 0 to 1 of the canvas height
    double width = 0;    // 0 to 1 of the canvas width
    double height = 0;   // 0 to 1 of the canvas height
    double alpha = 1;    // 0 (transparent) to 1
    int renderMode = 0;  // 0 fills the region and crops, 1 fits the picture into it

    Region() = default;
  };

  // Without effect: the picture has the size that mixResolution says.
  int canvasWidth = 0;
  int canvasHeight = 0;
  const char* backgroundColor = nullptr;  // "#rrggbb"; null is black
  uint32_t regionCount = 0;
  const Region* regions = nullptr;  // later ones lie on top
  const char* appData = nullptr;    // passed through
  int appDataLength = 0;            // bytes

  VideoMixingLayout() = default;
};

struct ZELTA_API UserJoinInfos {
  const char* storageDir = nullptr;  // the recording folder; valid during onUserJoined only

  UserJoinInfos() = default;
};

struct ZELTA_API AudioVolumeInfo {
  uid_t uid = 0;
  uint32_t volume = 0;  // 0 to 255
};

}  // namespace linuxsdk

namespace recording {

using namespace linuxsdk;  // NOLINT(google-build-using-namespace): the types are used by both names

// What the application implements. All functions are called on the engine thread. The object is
// borrowed from its engine's creation to its release.
class ZELTA_API IRecordingEngineEventHandler {
 public:
  virtual ~IRecordingEngineEventHandler() = default;

  // ERR_INVALID_ARGUMENT: something of one user's can't be recorded; the log and `missing` of
  // recording.json say whose and why. All else is recorded on, and nothing needs to be done.
  // Otherwise the session is broken: see Recovery above for ERR_INTERNAL_FAILED, whose `stat_code`
  // holds poll bits; with ERR_FAILED the recorder reports what it could not do. Call leaveChannel()
  // next.
  virtual void onError(int error, STAT_CODE_TYPE stat_code) = 0;
  // Something happened that needs no action: a WARN_CODE_TYPE.
  virtual void onWarning(int warn) = 0;
  // The recorder is in the channel. Comes again after a recovery. `channelId` is valid during the
  // call; `uid` is the recorder's own.
  virtual void onJoinChannelSuccess(const char* channelId, uid_t uid) = 0;
  // The recorder left by itself, its files are complete; `code` holds LEAVE_PATH_CODE bits. A
  // recorder that isn't left within 5 s ends, which shows as onError.
  virtual void onLeaveChannel(LEAVE_PATH_CODE code) = 0;
  virtual void onUserJoined(uid_t uid, UserJoinInfos& infos) = 0;
  virtual void onUserOffline(uid_t uid, USER_OFFLINE_REASON_TYPE reason) = 0;
  // A frame, if decodeAudio asks for frames. `frame` and all it points to are valid during the
  // call.
  virtual void audioFrameReceived(unsigned int uid, const AudioFrame* frame) = 0;
  // A frame, if decodeVideo asks for frames. `frame` and all it points to are valid during the
  // call.
  virtual void videoFrameReceived(unsigned int uid, const VideoFrame* frame) = 0;
  // The user who speaks loudest, when it is another one than before.
  virtual void onActiveSpeaker(uid_t uid) = 0;
  // Every audioIndicationInterval; `speakers` is an array of `speakerNum`, valid during the call.
  virtual void onAudioVolumeIndication(const AudioVolumeInfo* speakers,
                                       unsigned int speakerNum) = 0;
  // `elapsed`: milliseconds since the channel was joined.
  virtual void onFirstRemoteVideoDecoded(uid_t uid, int width, int height, int elapsed) = 0;
  virtual void onFirstRemoteAudioFrame(uid_t uid, int elapsed) = 0;
  // Whether any user's audio, and any user's video, is coming in.
  virtual void onReceivingStreamStatusChanged(bool receivingAudio, bool receivingVideo) = 0;
  // The connection to the channel is lost for good.
  virtual void onConnectionLost() = 0;
  // The connection to the channel is interrupted; the recorder tries again.
  virtual void onConnectionInterrupted() = 0;
};

// What to record and how. The application owns the object and every string that it points to;
// both must live until joinChannel() has returned. A string that is null is not set.
//
// Combinations that joinChannel() refuses with -2, and with -1 where it says so:
//   - isAudioOnly with isVideoOnly, or with any decodeVideo;
//   - isMixingEnabled with any decodeAudio, or with a decodeVideo other than
//     VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
//   - decodeAudio with isVideoOnly, or with JPG frames or JPG files alone;
//   - audioProfile other than the default without isMixingEnabled;
//   - mixedVideoAudio without isMixingEnabled, or with isAudioOnly or isVideoOnly (-1);
//   - mixResolution that isn't four positive numbers, when mixing pictures (-1); else it is ignored
//     with a line in the log;
//   - Chunk_Time_Span of the configuration file with isMixingEnabled, without live broadcasting, or
//     from 1 to 9;
//   - any number out of the range that stands beside it.
class ZELTA_API RecordingConfig {
 public:
  // No frames, no mixing, 300 s idle limit, 5 s capture interval, all else zero and null.
  RecordingConfig();
  RecordingConfig(const RecordingConfig& other);
  RecordingConfig& operator=(const RecordingConfig& other);
  virtual ~RecordingConfig();

  bool isAudioOnly;                     // record audio only
  bool isVideoOnly;                     // record video only; not together with isAudioOnly
  bool isMixingEnabled;                 // one stream of all users instead of one each
  MIXED_AV_CODEC_TYPE mixedVideoAudio;  // when mixing sound and picture: into one file?
  char* mixResolution;                  // "width,height,fps,kbps" of the mixed picture
  // Both or neither: how the channel's media is encrypted. For RTP "aes-128-cm-sha1-80",
  // "aes-128-gcm" or "aes-256-gcm"; the secret is base64 of key and salt (16+14, 16+12, 32+12
  // bytes). Another mode is an error of the join, told by onError.
  char* decryptionMode;
  char* secret;
  char* appliteDir;  // folder of ZeltaCoreService; null: see docs/lifecycle.md
  char*
      recordFileRootDir;  // an existing folder under which the recording's folder is made; null: .
  char* cfgFilePath;      // an optional JSON file: see docs/configuration.md
  VIDEO_FORMAT_TYPE decodeVideo;
  AUDIO_FORMAT_TYPE decodeAudio;
  int lowUdpPort;               // 0 to 65535; 0: not restricted
  int highUdpPort;              // 0: not restricted; else at least lowUdpPort + 3
  int idleLimitSec;             // at least 3: seconds without users after which the recorder leaves
  int captureInterval;          // at least 1 when capturing: seconds between JPEGs
  int audioIndicationInterval;  // milliseconds between volume reports; 0: none
  CHANNEL_PROFILE_TYPE channelProfile;
  REMOTE_VIDEO_STREAM_TYPE streamType;
  TRIGGER_MODE_TYPE triggerMode;
  LANGUAGE_TYPE lang;
  char* proxyServer;                // passed on; no channel server of this version takes one
  AUDIO_PROFILE_TYPE audioProfile;  // other than the default only when mixing
  char* defaultVideoBg;             // image behind the mixed picture
  char* defaultUserBg;              // image in the region of a user without video
};

// A configuration that owns its strings: the engine's copy, which outlives the application's.
class ZELTA_API RecordingConfigEx {
 public:
  RecordingConfigEx();
  ~RecordingConfigEx();
  RecordingConfigEx(const RecordingConfigEx&) = default;
  RecordingConfigEx& operator=(const RecordingConfigEx&) = default;
  // A null string becomes an empty one. What has no counterpart in `src`, and audioProfile, keeps
  // its value.
  RecordingConfigEx& operator=(const RecordingConfig& src);

  CHANNEL_PROFILE_TYPE channelProfile;
  bool isAudioOnly;
  bool isVideoOnly;
  bool isMixingEnabled;
  bool mixedVideoAudio;  // any of the muxed variants
  AUDIO_FORMAT_TYPE decodeAudio;
  VIDEO_FORMAT_TYPE decodeVideo;
  REMOTE_VIDEO_STREAM_TYPE streamType;
  int lowUdpPort;
  int highUdpPort;
  int idleLimitSec;
  int captureInterval;
  uid_t uid;
  std::string mixResolution;
  std::string decryptionMode;
  std::string secret;
  std::string appliteDir;
  std::string recordFileRootDir;
  std::string cfgFilePath;
  std::string channelKey;
  std::string channelId;
  std::string proxyServer;
  uint32_t triggerMode;
  uint32_t lang;
  uint32_t audioProfile;
  int chunkTimeSpan;  // seconds
};

struct ZELTA_API RecordingEngineProperties {
  char* storageDir = nullptr;  // the recording folder, with a slash at its end; null before a join
};

class ZELTA_API IRecordingEngine {
 public:
  // Makes an engine; nothing is started yet. Null, with a log line on standard error, when `appId`
  // is null or empty or `eventHandler` is null. `appId` is copied, the handler borrowed until
  // release(). Ignores SIGPIPE in the whole process. Any thread.
  static IRecordingEngine* createZeltaRecordingEngine(const char* appId,
                                                      IRecordingEngineEventHandler* eventHandler);

  // Use release().
  virtual ~IRecordingEngine() = default;

  // Checks the configuration, prepares the recording folder and starts the recorder; doesn't wait
  // for it to join: onJoinChannelSuccess or onError follows.
  // `channelKey`: the key for the channel; null or empty: the app id is used.
  // `channelId`: 1 to 64 bytes. It becomes a part of the folder's name as it stands.
  // `uid`: the recorder's own; 0: the recorder chooses.
  // 0, or with a line in the log and nothing started: -2 for a configuration that can't be
  // recorded, -1 for a mixResolution or mixedVideoAudio that can't be used, for a Recording_Dir of
  // the configuration file that can't be made or isn't a folder, and for a recorder, a thread or
  // memory that is not to be had. A folder below recordFileRootDir that can't be made or written is
  // found by the recorder: 0, and then onError(ERR_FAILED, STAT_ERR_ZRS_JOIN_CHANNEL).
  virtual int joinChannel(const char* channelKey, const char* channelId, uid_t uid,
                          const RecordingConfig& config) = 0;
  // Arranges the users on the mixed picture. 0, also when there is no recorder; -2 when `layout`
  // can't be encoded: a null array or text with a positive count, or a negative length. Copied.
  virtual int setVideoMixingLayout(const VideoMixingLayout& layout) = 0;
  // Stops the engine from inside onError. On any other thread than the engine's it does nothing:
  // use leaveChannel(). 0.
  virtual int stoppedOnError() = 0;
  // Ends the session: the recorder is told to leave and the engine thread has ended when this
  // returns (within half a second and the time of a running callback). From inside a callback it
  // returns at once, and the thread ends after the callback. A second call does nothing. 0.
  virtual int leaveChannel() = 0;
  // Leaves, waits for the recorder to complete its files (10 s at most, then it is ended by force)
  // and destroys the engine; the pointer is invalid afterwards. Not from inside a callback. 0.
  virtual int release() = 0;
  // Never null; valid until release(), like what it points to.
  virtual const RecordingEngineProperties* getProperties() = 0;
  // Starts and stops recording in MANUALLY_MODE. 0; -1, with a line in the log, when the channel
  // isn't joined, the mode is automatic, or it is started (stopped) already.
  virtual int startService() = 0;
  virtual int stopService() = 0;
  // Shows the image (png or jpeg) in place of a user's video; null or empty: none. 0.
  virtual int setUserBackground(uid_t uid, const char* imagePath) = 0;
  // Sets what is logged from here on, in all engines of the process and in this one's recorder. 0.
  virtual int setLogLevel(zelta_log_level level) = 0;
};

}  // namespace recording
}  // namespace zelta
