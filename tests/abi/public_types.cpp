// SPDX-License-Identifier: Apache-2.0
// Every type of the public headers, in one function's arguments: what a compiler says of them to
// debuggers is compared with what it was. The library itself tells only of those that it hands
// over.
#include "IZeltaRecordingEngine.h"
#include "zelta_recording.h"

using namespace zelta;

struct ZELTA_C_API cpp_types {
  linuxsdk::ERROR_CODE_TYPE error;
  linuxsdk::STAT_CODE_TYPE stat;
  linuxsdk::LEAVE_PATH_CODE leave;
  linuxsdk::WARN_CODE_TYPE warning;
  linuxsdk::CHANNEL_PROFILE_TYPE profile;
  linuxsdk::USER_OFFLINE_REASON_TYPE offline;
  linuxsdk::REMOTE_VIDEO_STREAM_TYPE stream;
  linuxsdk::VIDEO_FORMAT_TYPE video_format;
  linuxsdk::AUDIO_FORMAT_TYPE audio_format;
  linuxsdk::AUDIO_FRAME_TYPE audio_type;
  linuxsdk::MEMORY_TYPE memory;
  linuxsdk::VIDEO_FRAME_TYPE video_type;
  linuxsdk::SERVICE_MODE service;
  linuxsdk::TRIGGER_MODE_TYPE trigger;
  linuxsdk::LANGUAGE_TYPE language;
  linuxsdk::AUDIO_PROFILE_TYPE audio_profile;
  linuxsdk::zelta_log_level level;
  linuxsdk::MIXED_AV_CODEC_TYPE mixed;
  linuxsdk::AudioFrame* audio_frame;
  linuxsdk::VideoFrame* video_frame;
  linuxsdk::VideoMixingLayout* layout;
  linuxsdk::UserJoinInfos* join;
  linuxsdk::AudioVolumeInfo* volume;
  recording::IRecordingEngine* engine;
  recording::IRecordingEngineEventHandler* handler;
  recording::RecordingConfig* config;
  recording::RecordingConfigEx* config_ex;
  recording::RecordingEngineProperties* properties;
  decltype(&recording::IRecordingEngine::createZeltaRecordingEngine) create;
};

struct ZELTA_C_API c_types {
  zelta_result result;
  zelta_event_kind kind;
  zelta_session_error error;
  zelta_stat stat;
  zelta_warning warning;
  zelta_leave_reason leave;
  zelta_offline_reason offline;
  zelta_audio_format audio_format;
  zelta_video_format video_format;
  zelta_delivery delivery;
  zelta_decode_video decode_video;
  zelta_decode_audio decode_audio;
  zelta_mixed_file mixed_file;
  zelta_log log;
  zelta_event* event;
  zelta_options* options;
  zelta_config* config;
  zelta_layout* layout;
};

// Symbols of C say nothing of what their functions take and return.
struct ZELTA_C_API c_functions {
  decltype(&zelta_version) version;
  decltype(&zelta_error_text) error_text;
  decltype(&zelta_error_detail) error_detail;
  decltype(&zelta_recording_create) create;
  decltype(&zelta_recording_join) join;
  decltype(&zelta_recording_folder) folder;
  decltype(&zelta_recording_set_layout) set_layout;
  decltype(&zelta_recording_set_user_background) set_user_background;
  decltype(&zelta_recording_start_service) start_service;
  decltype(&zelta_recording_stop_service) stop_service;
  decltype(&zelta_recording_set_log_level) set_log_level;
  decltype(&zelta_recording_leave) leave;
  decltype(&zelta_recording_release) release;
  decltype(&zelta_event_fd) event_fd;
  decltype(&zelta_next_event) next_event;
  decltype(&zelta_event_copy) event_copy;
  decltype(&zelta_event_release) event_release;
};

ZELTA_C_API void public_types(const cpp_types&, const c_types&, const c_functions&) {}
