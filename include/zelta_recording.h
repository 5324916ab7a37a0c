// SPDX-License-Identifier: Apache-2.0
// Recording of a real-time channel, for C and for every language that calls C: the same engine as
// IZeltaRecordingEngine.h, whose comments say what is recorded and when which event comes.
//
//     zelta_recording_create()   a recording, and how its events are to come
//     zelta_recording_join()     starts the recorder; JOINED or ERROR follows as an event
//     zelta_next_event() ...     or the callback
//     zelta_recording_leave()    no event is made any more
//     zelta_recording_finish()   the files are complete
//     zelta_recording_release()  destroys the recording; finishes it, too, if that wasn't done
//
// A recording joins once and leaves once; make a new one for the next.
//
// Results: each function returns ZELTA_OK, for some a positive code that is no failure, or a
// negative one. What was asked for in vain has had no effect, and what a pointer of the caller's
// points to is as it was, but for `*event`, `*copy` and `*recording`, which are null then.
// zelta_error_detail() says more of the last failure. No exception leaves a function.
//
// Threads: each function may be called from any thread at any time, also from the callback where it
// doesn't say otherwise. Calls of one recording wait for a join, leave, finish or release of it
// that runs on another thread; those that are about events wait for nobody.
//
// Structs that the caller fills begin with their `size`: set all to zero, then it, as in
//     zelta_config config = {0};
//     config.size = sizeof config;
// Zero is the default of each member that doesn't say otherwise, and will be of each that is added,
// which is always at the end. So a struct of an older header is read as if it ended in zeros. One
// of a newer header is taken as long as all that this library doesn't know is zero, else it is
// ZELTA_ERROR_UNKNOWN_FIELD and not ignored. No size is below the end of the members that are said
// to be needed, above 4096, or not a multiple of 8: ZELTA_ERROR_STRUCT_SIZE.
// Structs that the library fills are lent as pointers, and their `size` says what the library
// knows: see ZELTA_HAS. Ignore kinds of events that you don't know.
//
// Strings are null-terminated and, like structs, read during the call alone: nothing that is given
// to a function has to live any longer, but for `context` of the options.
//
// A thread that is cancelled (pthread_cancel) leaves a function first, also one that waits.
//
// A child of fork() has none of its parent's recordings: for it they are invalid, and what it does
// with them is ZELTA_ERROR_HANDLE and reaches no recorder. To record it calls exec() first, because
// another thread may have held a lock when it was made. As long as it lives without that, recorders
// don't notice their application's death.
//
// The process: as with the C++ interface, a recording ignores SIGPIPE for the whole process, and
// the application must not reap children that it didn't start.
#ifndef ZELTA_RECORDING_H_
#define ZELTA_RECORDING_H_

#include <stddef.h>
#include <stdint.h>

#define ZELTA_C_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

// One recording. Not a pointer to anything: a released one is known as such, and stays invalid.
typedef struct zelta_recording zelta_recording;

// ---- Results -------------------------------------------------------------------------------

enum zelta_result {
  ZELTA_OK = 0,
  ZELTA_NO_EVENT = 1,               // none came in the time that was given
  ZELTA_END = 2,                    // none will come: the recording was left, and all were taken
  ZELTA_ERROR_HANDLE = -1,          // no recording: null, or released
  ZELTA_ERROR_ARGUMENT = -2,        // an argument, or a member of a struct, can't be
  ZELTA_ERROR_STRUCT_SIZE = -3,     // `size` of a struct can't be
  ZELTA_ERROR_UNKNOWN_FIELD = -4,   // of a newer header, and set
  ZELTA_ERROR_CONFIGURATION = -5,   // members that don't go together; the log says which
  ZELTA_ERROR_REFUSED = -6,         // the engine could not do it; the log says why
  ZELTA_ERROR_NOT_JOINED = -7,      // needs a channel
  ZELTA_ERROR_JOINED = -8,          // joined already
  ZELTA_ERROR_LEFT = -9,            // left already
  ZELTA_ERROR_IN_CALLBACK = -10,    // not from inside a callback
  ZELTA_ERROR_NO_QUEUE = -11,       // the events of this recording come by callback
  ZELTA_ERROR_FULL = -12,           // copies hold as much as queue_bytes allows
  ZELTA_ERROR_UNKNOWN_EVENT = -13,  // none that this recording has lent, or released already
  ZELTA_ERROR_MEMORY = -14,         // no memory
  ZELTA_ERROR_SYSTEM = -15          // the system has refused something; the detail says what
};

// The version of the library, as "1.2.3". Static.
ZELTA_C_API const char* zelta_version(void);

// What a code of zelta_result means, in a few words. Static, and never null.
ZELTA_C_API const char* zelta_error_text(int code);

// Copies into `buffer`, whose `size` is in bytes, what is known of the last failed call of
// `recording`, or with a null `recording` of this thread's last call that failed without one, as a
// create does: which value was wrong and what would be right. Empty when nothing has failed; cut
// off where the buffer ends, with a null in any case.
// ZELTA_ERROR_ARGUMENT: `buffer` is null or `size` 0. ZELTA_ERROR_HANDLE.
ZELTA_C_API int zelta_error_detail(zelta_recording* recording, char* buffer, size_t size);

// ---- Events --------------------------------------------------------------------------------

// Which member of `as` holds more; those without one have `uid` alone, or nothing.
enum zelta_event_kind {
  ZELTA_EVENT_ERROR = 1,         // error
  ZELTA_EVENT_WARNING = 2,       // warning
  ZELTA_EVENT_JOINED = 3,        // joined; `uid` is the recorder's own; again after a recovery
  ZELTA_EVENT_LEFT = 4,          // left: the recorder, by itself; its files are complete
  ZELTA_EVENT_USER_JOINED = 5,   // user_joined
  ZELTA_EVENT_USER_OFFLINE = 6,  // user_offline
  ZELTA_EVENT_AUDIO_FRAME = 7,   // audio, if decode_audio asks for frames
  ZELTA_EVENT_VIDEO_FRAME = 8,   // video, if decode_video asks for frames
  ZELTA_EVENT_SPEAKER = 9,       // another user, `uid`, speaks loudest
  ZELTA_EVENT_VOLUMES = 10,      // volumes, every audio_indication_interval
  ZELTA_EVENT_FIRST_VIDEO = 11,  // first_video
  ZELTA_EVENT_FIRST_AUDIO = 12,  // first_audio
  ZELTA_EVENT_RECEIVING = 13,    // receiving
  ZELTA_EVENT_LOST = 14,         // the connection to the channel is lost for good
  ZELTA_EVENT_INTERRUPTED = 15,  // the connection is interrupted; the recorder tries again
  ZELTA_EVENT_DROPPED = 16       // dropped, in a queue alone, at the place of what is missing
};

// Of ZELTA_EVENT_ERROR.
enum zelta_session_error {
  ZELTA_SESSION_FAILED = 1,         // the recorder could not do its work; leave
  ZELTA_SESSION_USER_FAILED = 2,    // something of one user's can't be recorded; all else is
  ZELTA_SESSION_RECORDER_GONE = 3,  // and could not be started again; leave
};

// What is added to it; the last three are bits.
enum zelta_stat {
  ZELTA_STAT_NONE = 0,
  ZELTA_STAT_MEDIA_ENGINE = 1,   // the recorder's media engine failed
  ZELTA_STAT_JOIN = 2,           // the channel could not be joined
  ZELTA_STAT_PROCESS = 3,        // a process could not be started
  ZELTA_STAT_MIXED_VIDEO = 4,    // the mixed picture's parameters can't be used
  ZELTA_STAT_NOT_GIVEN = 5,      // something needed was not given
  ZELTA_STAT_PROXY = 6,          // the proxy server's text can't be used
  ZELTA_STAT_POLL_ERROR = 8,     // the recorder stopped reading, or sent nonsense
  ZELTA_STAT_POLL_HANG_UP = 16,  // the recorder has ended
  ZELTA_STAT_POLL_INVALID = 32,  // the link's descriptor is not open
};

enum zelta_warning {
  ZELTA_WARNING_NO_AVAILABLE_CHANNEL = 103,  // no server has room for the channel
  ZELTA_WARNING_LOOKUP_TIMEOUT = 104,        // looking the channel up took too long
  ZELTA_WARNING_LOOKUP_REJECTED = 105,       // the server refused to look the channel up
  ZELTA_WARNING_OPEN_TIMEOUT = 106,          // opening the channel took too long
  ZELTA_WARNING_OPEN_REJECTED = 107,         // the server refused to open the channel
  ZELTA_WARNING_RECOVERED = 108,             // the recorder had died and was started again
};

// Of ZELTA_EVENT_LEFT; bits.
enum zelta_leave_reason {
  ZELTA_LEAVE_SIGNAL = 2,        // the recorder got SIGTERM or SIGINT
  ZELTA_LEAVE_NO_USERS = 4,      // nobody was in the channel for idle_limit_sec
  ZELTA_LEAVE_GUARD = 8,         // the recorder's own guard: no progress, no disk
  ZELTA_LEAVE_APPLICATION = 16,  // the application left
};

enum zelta_offline_reason {
  ZELTA_OFFLINE_QUIT = 0,             // the user left; the only one that is reported today
  ZELTA_OFFLINE_DROPPED = 1,          // the connection to the user was lost
  ZELTA_OFFLINE_BECOME_AUDIENCE = 2,  // a host went to the audience
};

enum zelta_audio_format { ZELTA_AUDIO_PCM = 0, ZELTA_AUDIO_AAC = 1 };
enum zelta_video_format { ZELTA_VIDEO_YUV = 0, ZELTA_VIDEO_H264 = 1, ZELTA_VIDEO_JPG = 2 };

// Interleaved 16-bit samples, or one ADTS frame.
typedef struct zelta_audio_frame {
  uint64_t time_ms;  // media time of the first sample, milliseconds
  const uint8_t* data;
  uint32_t data_bytes;
  int32_t format;        // zelta_audio_format
  uint32_t channels;     // 1 or 2
  uint32_t sample_rate;  // PCM: samples a second and channel; else 0
  uint32_t sample_bits;  // PCM: 16; else 0
  uint32_t samples;      // PCM: 16-bit samples in `data`, all channels together; else 0
  uint32_t bitrate;      // AAC: bits a second; else 0
  uint32_t reserved;     // 0
} zelta_audio_frame;

// An I420 picture, an access unit in byte-stream format with the parameter sets in front of a key
// frame, or a JPEG image.
typedef struct zelta_video_frame {
  uint64_t time_ms;  // media time, milliseconds
  const uint8_t* data;
  uint32_t data_bytes;
  int32_t format;         // zelta_video_format
  int32_t rotation;       // degrees clockwise by which to turn the picture for display
  uint32_t frame_number;  // H.264: counts the user's access units; else 0
  uint32_t width;         // YUV: pixels; else 0
  uint32_t height;
  const uint8_t* planes[3];  // YUV: Y, U and V, inside `data`; else null
  uint32_t strides[3];       // YUV: bytes a row; else 0
  uint32_t reserved;         // 0
} zelta_video_frame;

typedef struct zelta_volume {  // never grows: it stands in arrays
  uint32_t uid;
  uint32_t volume;  // 0 to 255
} zelta_volume;

// All pointers of an event live as long as the event: see zelta_event_release.
typedef struct zelta_event {
  uint32_t size;  // bytes of this event that the library knows: see ZELTA_HAS
  int32_t kind;   // zelta_event_kind
  uint32_t uid;   // of the user; 0 where none is concerned, and for mixed sound
  uint32_t reserved;
  union {
    struct {
      int32_t error;      // zelta_session_error
      int32_t stat_code;  // zelta_stat
    } error;
    struct {
      int32_t warning;  // zelta_warning
      uint32_t reserved;
    } warning;
    struct {
      const char* channel_id;
    } joined;
    struct {
      int32_t reason;  // zelta_leave_reason
      uint32_t reserved;
    } left;
    struct {
      const char* storage_dir;  // the recording folder
    } user_joined;
    struct {
      int32_t reason;  // zelta_offline_reason
      uint32_t reserved;
    } user_offline;
    zelta_audio_frame audio;
    zelta_video_frame video;
    struct {
      const zelta_volume* speakers;
      uint32_t count;
      uint32_t reserved;
    } volumes;
    struct {
      int32_t width;  // pixels
      int32_t height;
      int32_t elapsed_ms;  // since the channel was joined
      uint32_t reserved;
    } first_video;
    struct {
      int32_t elapsed_ms;
      uint32_t reserved;
    } first_audio;
    struct {
      int32_t audio;  // 1: any user's is coming in; 0: nobody's
      int32_t video;
    } receiving;
    struct {
      uint64_t audio_frames;  // that were dropped here: there was no room in the queue
      uint64_t video_frames;
      uint64_t other_events;   // lost here, because there was no memory for them; 0 but for that
      uint64_t frames_so_far;  // that this recording has dropped, these included
    } dropped;
  } as;
} zelta_event;

// Whether the library knows a member, as in ZELTA_HAS(event, as.video.rotation): to be asked for
// what came after the first version of this header. Copy no more than `size` bytes of an event.
#define ZELTA_HAS(event, member) \
  ((event)->size >= offsetof(zelta_event, member) + sizeof((event)->member))

// Called on the recording's own thread, one event at a time, and for no event once
// zelta_recording_leave() was called from inside it or has returned to another thread. `event` and
// all it points to are lent for the time of the call. It should return quickly: meanwhile nothing
// is read from the recorder. An exception that leaves it ends the process.
typedef void (*zelta_event_callback)(void* context, zelta_recording* recording,
                                     const zelta_event* event);

// ---- Made ----------------------------------------------------------------------------------

enum zelta_delivery {
  ZELTA_DELIVERY_QUEUE = 0,    // zelta_next_event() hands them out
  ZELTA_DELIVERY_CALLBACK = 1  // `callback` is called
};

typedef struct zelta_options {
  uint32_t size;                  // needed
  int32_t delivery;               // needed: zelta_delivery
  const char* app_id;             // needed, and not empty
  zelta_event_callback callback;  // of ZELTA_DELIVERY_CALLBACK; else null
  void* context;                  // handed to it as it is
  // Bytes that frames may hold that wait in the queue or weren't released yet, their descriptions
  // included; 0: 64 MiB. Up to twice as much is kept as memory. Frames that go past it are dropped,
  // and ZELTA_EVENT_DROPPED counts them; other events never are. With a callback it bounds copies.
  uint64_t queue_bytes;
} zelta_options;

// Makes a recording; nothing is started yet. `*recording` is the caller's until it is released.
// ZELTA_ERROR_ARGUMENT, ZELTA_ERROR_STRUCT_SIZE, ZELTA_ERROR_UNKNOWN_FIELD, ZELTA_ERROR_MEMORY,
// ZELTA_ERROR_SYSTEM (no descriptor for the queue).
ZELTA_C_API int zelta_recording_create(const zelta_options* options, zelta_recording** recording);

// ---- Joined --------------------------------------------------------------------------------

enum zelta_decode_video {        // what is done with video; "frames" are ZELTA_EVENT_VIDEO_FRAME
  ZELTA_DECODE_VIDEO_FILES = 0,  // recorded in files
  ZELTA_DECODE_VIDEO_H264_FRAMES = 1,          // H.264 access units as frames
  ZELTA_DECODE_VIDEO_YUV_FRAMES = 2,           // pictures as frames
  ZELTA_DECODE_VIDEO_JPG_FRAMES = 3,           // a JPEG every capture_interval as a frame
  ZELTA_DECODE_VIDEO_JPG_FILES = 4,            // a JPEG every capture_interval as a file
  ZELTA_DECODE_VIDEO_FILES_AND_JPG_FILES = 5,  // JPEG files beside the recording
};

enum zelta_decode_audio {  // the same of audio
  ZELTA_DECODE_AUDIO_FILES = 0,
  ZELTA_DECODE_AUDIO_AAC_FRAMES = 1,        // AAC of each user as frames
  ZELTA_DECODE_AUDIO_PCM_FRAMES = 2,        // samples of each user as frames
  ZELTA_DECODE_AUDIO_MIXED_PCM_FRAMES = 3,  // samples of all users mixed, uid 0
};

enum zelta_mixed_file {  // whether mixed sound and picture share a file
  ZELTA_MIXED_APART = 0,
  ZELTA_MIXED_BASELINE = 1,  // one file, H.264 constrained baseline
  ZELTA_MIXED_HIGH = 2,      // one file, H.264 high profile
};

enum zelta_audio_profile {             // of mixed sound, at 48 kHz
  ZELTA_AUDIO_PROFILE_MONO = 0,        // 48 kbit/s
  ZELTA_AUDIO_PROFILE_HIGH_MONO = 1,   // 128 kbit/s
  ZELTA_AUDIO_PROFILE_HIGH_STEREO = 2  // 192 kbit/s
};

// What to record and how: the members of RecordingConfig in the C++ header, which says what goes
// with what, and their values. Of flags 0 is no and 1 yes.
typedef struct zelta_config {
  uint32_t size;  // needed
  int32_t is_audio_only;
  int32_t is_video_only;
  int32_t is_mixing_enabled;
  int32_t mixed_video_audio;          // zelta_mixed_file
  int32_t decode_video;               // zelta_decode_video
  int32_t decode_audio;               // zelta_decode_audio
  int32_t low_udp_port;               // 0 to 65535; 0: not restricted
  int32_t high_udp_port;              // 0: not restricted; else at least low_udp_port + 3
  int32_t idle_limit_sec;             // at least 3; 0: 300 seconds
  int32_t capture_interval;           // seconds between JPEGs; 0: 5
  int32_t audio_indication_interval;  // milliseconds between ZELTA_EVENT_VOLUMES; 0: none
  int32_t channel_profile;            // 0 communication, 1 live broadcasting
  int32_t stream_type;                // 0 the large picture, 1 the small one
  int32_t trigger_mode;               // 0 recording starts with the join, 1 with start_service
  int32_t lang;                       // 0; 1 is Java
  int32_t audio_profile;              // zelta_audio_profile
  uint32_t reserved;                  // 0
  const char* mix_resolution;         // "width,height,fps,kbps"
  const char* decryption_mode;
  const char* secret;
  const char* applite_dir;           // folder of ZeltaCoreService
  const char* record_file_root_dir;  // an existing folder; null: .
  const char* cfg_file_path;         // JSON: see docs/configuration.md
  const char* proxy_server;
  const char* default_video_bg;
  const char* default_user_bg;
} zelta_config;

// Checks the configuration, prepares the recording folder and starts the recorder; doesn't wait for
// it to join: ZELTA_EVENT_JOINED or ZELTA_EVENT_ERROR follows, and may come before this returns.
// `channel_key`: null or empty: the app id is used. `channel_id`: 1 to 64 bytes, a part of the
// folder's name as it stands. `uid`: the recorder's own; 0: the recorder chooses. `config`: null is
// one of zeros. After a failure but the last four the join may be tried again.
// ZELTA_ERROR_ARGUMENT, ZELTA_ERROR_STRUCT_SIZE, ZELTA_ERROR_UNKNOWN_FIELD,
// ZELTA_ERROR_CONFIGURATION, ZELTA_ERROR_REFUSED (no recorder, folder, thread),
// ZELTA_ERROR_MEMORY, ZELTA_ERROR_HANDLE, ZELTA_ERROR_JOINED, ZELTA_ERROR_LEFT,
// ZELTA_ERROR_IN_CALLBACK.
ZELTA_C_API int zelta_recording_join(zelta_recording* recording, const char* channel_key,
                                     const char* channel_id, uint32_t uid,
                                     const zelta_config* config);

// Copies the path of the recording folder, with a slash at its end, into `buffer` of `size` bytes.
// Known from the join on, also after the finish. ZELTA_ERROR_ARGUMENT: no buffer, or too small a
// one, and the detail says how large it has to be. ZELTA_ERROR_NOT_JOINED, ZELTA_ERROR_HANDLE.
ZELTA_C_API int zelta_recording_folder(zelta_recording* recording, char* buffer, size_t size);

// ---- Commands, between join and leave ------------------------------------------------------
// Each may return ZELTA_ERROR_HANDLE, ZELTA_ERROR_NOT_JOINED, ZELTA_ERROR_LEFT, ZELTA_ERROR_REFUSED
// (no memory in the engine, or as it says) besides what it says. All that is given is copied.

typedef struct zelta_region {
  uint32_t uid;
  int32_t render_mode;  // 0 fills the region and crops, 1 fits the picture into it
  // Shares of the canvas; what lies outside of it is cut off.
  double x;       // left edge, -2 to 2 canvas widths
  double y;       // upper edge, -2 to 2 canvas heights
  double width;   // 0 to 2 canvas widths; less than a pixel isn't shown
  double height;  // 0 to 2 canvas heights
  double alpha;   // 0 (invisible) to 1: zero is no sensible default here
} zelta_region;

typedef struct zelta_layout {
  uint32_t size;            // needed
  uint32_t region_size;     // needed where there are regions: sizeof(zelta_region)
  uint32_t region_count;    // needed; 0: the background alone
  uint32_t app_data_bytes;  // needed: of `app_data`, at most 1 MiB
  int32_t canvas_width;     // without effect: the picture has the size that mix_resolution says
  int32_t canvas_height;
  const char* background_color;  // "#rrggbb"; null is black
  const zelta_region* regions;   // later ones lie on top
  const void* app_data;          // passed through
} zelta_layout;

// Arranges the users on the mixed picture. `region_size` is the size of each region, to which the
// rules for `size` apply. ZELTA_ERROR_ARGUMENT, ZELTA_ERROR_STRUCT_SIZE, ZELTA_ERROR_UNKNOWN_FIELD.
ZELTA_C_API int zelta_recording_set_layout(zelta_recording* recording, const zelta_layout* layout);

// Shows the image (png or jpeg) in place of a user's video; null or empty: none.
ZELTA_C_API int zelta_recording_set_user_background(zelta_recording* recording, uint32_t uid,
                                                    const char* image_path);

// Start and stop recording with trigger_mode 1. ZELTA_ERROR_REFUSED: the recorder isn't in the
// channel any more, the mode is automatic, or it is started (stopped) already.
ZELTA_C_API int zelta_recording_start_service(zelta_recording* recording);
ZELTA_C_API int zelta_recording_stop_service(zelta_recording* recording);

enum zelta_log {
  ZELTA_LOG_FATAL = 1,
  ZELTA_LOG_ERROR = 2,
  ZELTA_LOG_WARN = 3,
  ZELTA_LOG_NOTICE = 4,  // the default
  ZELTA_LOG_INFO = 5,
  ZELTA_LOG_DEBUG = 6
};

// Sets what is logged from here on, in all recordings of the process and in this one's recorder.
// Also before the join and after the leave, until the finish. `level`: zelta_log, else
// ZELTA_ERROR_ARGUMENT.
ZELTA_C_API int zelta_recording_set_log_level(zelta_recording* recording, int level);

// ---- Events by queue -----------------------------------------------------------------------

// `*fd` becomes a descriptor that poll() finds readable while events wait, and from the leave on; a
// release wakes who polls, too.
// It is the recording's until its release: don't read from it, write to it or close it.
// ZELTA_ERROR_HANDLE, ZELTA_ERROR_ARGUMENT (null), ZELTA_ERROR_NO_QUEUE.
ZELTA_C_API int zelta_event_fd(zelta_recording* recording, int* fd);

// Hands out the oldest event that waits, or waits for one: `timeout_ms` milliseconds, 0 not at all,
// -1 as long as it takes. `*event` and all it points to are lent until zelta_event_release(), or
// the recording's release. Several threads may call; each event goes to one.
// ZELTA_NO_EVENT, ZELTA_END; ZELTA_ERROR_HANDLE, also when the recording is released meanwhile,
// ZELTA_ERROR_ARGUMENT (a null `event`, a time below -1), ZELTA_ERROR_NO_QUEUE.
ZELTA_C_API int zelta_next_event(zelta_recording* recording, int timeout_ms,
                                 const zelta_event** event);

// Makes an event one's own for longer. From inside the callback, of the event that it was given:
// `*copy` is a copy in memory of the recording's, which may leave the callback. Of one that was
// handed out or copied: the same once more, without copying. Each is given back by one
// zelta_event_release(), at the latest before the recording's release.
// ZELTA_ERROR_FULL: only of a frame, in the callback. ZELTA_ERROR_HANDLE, ZELTA_ERROR_ARGUMENT,
// ZELTA_ERROR_UNKNOWN_EVENT, ZELTA_ERROR_MEMORY.
ZELTA_C_API int zelta_event_copy(zelta_recording* recording, const zelta_event* event,
                                 const zelta_event** copy);

// Gives an event back; it is invalid afterwards. Null does nothing. Also after the leave.
// ZELTA_ERROR_HANDLE, ZELTA_ERROR_UNKNOWN_EVENT (also of a callback's event that isn't a copy).
ZELTA_C_API int zelta_event_release(zelta_recording* recording, const zelta_event* event);

// ---- Left ----------------------------------------------------------------------------------

// Ends the session: the recorder is told to leave, and the recording's thread has ended when this
// returns (within half a second and the time of a running callback). From inside a callback it
// returns at once, takes effect when the callback returns, and a second one from elsewhere waits
// for that. Events that wait in the queue can still be taken. ZELTA_ERROR_HANDLE,
// ZELTA_ERROR_NOT_JOINED, ZELTA_ERROR_LEFT, ZELTA_ERROR_REFUSED.
ZELTA_C_API int zelta_recording_leave(zelta_recording* recording);

// Leaves, if that wasn't done, and waits for the recorder to complete its files (13 s at most, then
// it is ended by force). Unlike a release it takes no event from anybody: those that wait can still
// be taken, those that were handed out live on. Languages that collect garbage need it, as they
// can't say when the last one is given back. A second one, or one before a join, does nothing more
// than to let nothing be joined. ZELTA_ERROR_HANDLE; ZELTA_ERROR_IN_CALLBACK: nothing was done.
ZELTA_C_API int zelta_recording_finish(zelta_recording* recording);

// Finishes the recording and destroys it with all its events, its descriptor and its copies. Calls
// of it that wait on other threads end. ZELTA_ERROR_HANDLE; ZELTA_ERROR_IN_CALLBACK: nothing was
// done.
ZELTA_C_API int zelta_recording_release(zelta_recording* recording);

#ifdef __cplusplus
}
#endif

#endif  // ZELTA_RECORDING_H_
