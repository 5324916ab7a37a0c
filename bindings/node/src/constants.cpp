// SPDX-License-Identifier: Apache-2.0
#include <initializer_list>

#include "parts.h"
#include "values.h"

namespace zelta::node {

namespace {

struct named {
  const char* name;
  int value;
};

napi_value group(napi_env env, std::initializer_list<named> members) {
  object_value made(env);
  for (const named& member : members) made.set(member.name, member.value);
  return made.get();
}

}  // namespace

napi_value constants(napi_env env) {
  object_value all(env);
  all.set("ErrorKind", group(env, {{"FAILED", ZELTA_SESSION_FAILED},
                                   {"USER_FAILED", ZELTA_SESSION_USER_FAILED},
                                   {"RECORDER_GONE", ZELTA_SESSION_RECORDER_GONE}}));
  all.set("Stat", group(env, {{"NONE", ZELTA_STAT_NONE},
                              {"MEDIA_ENGINE", ZELTA_STAT_MEDIA_ENGINE},
                              {"JOIN", ZELTA_STAT_JOIN},
                              {"PROCESS", ZELTA_STAT_PROCESS},
                              {"MIXED_VIDEO", ZELTA_STAT_MIXED_VIDEO},
                              {"NOT_GIVEN", ZELTA_STAT_NOT_GIVEN},
                              {"PROXY", ZELTA_STAT_PROXY},
                              {"POLL_ERROR", ZELTA_STAT_POLL_ERROR},
                              {"POLL_HANG_UP", ZELTA_STAT_POLL_HANG_UP},
                              {"POLL_INVALID", ZELTA_STAT_POLL_INVALID}}));
  all.set("WarningKind", group(env, {{"NO_AVAILABLE_CHANNEL", ZELTA_WARNING_NO_AVAILABLE_CHANNEL},
                                     {"LOOKUP_TIMEOUT", ZELTA_WARNING_LOOKUP_TIMEOUT},
                                     {"LOOKUP_REJECTED", ZELTA_WARNING_LOOKUP_REJECTED},
                                     {"OPEN_TIMEOUT", ZELTA_WARNING_OPEN_TIMEOUT},
                                     {"OPEN_REJECTED", ZELTA_WARNING_OPEN_REJECTED},
                                     {"RECOVERED", ZELTA_WARNING_RECOVERED}}));
  all.set("LeaveReason", group(env, {{"SIGNAL", ZELTA_LEAVE_SIGNAL},
                                     {"NO_USERS", ZELTA_LEAVE_NO_USERS},
                                     {"GUARD", ZELTA_LEAVE_GUARD},
                                     {"APPLICATION", ZELTA_LEAVE_APPLICATION}}));
  all.set("OfflineReason", group(env, {{"QUIT", ZELTA_OFFLINE_QUIT},
                                       {"DROPPED", ZELTA_OFFLINE_DROPPED},
                                       {"BECOME_AUDIENCE", ZELTA_OFFLINE_BECOME_AUDIENCE}}));
  all.set("AudioFormat", group(env, {{"PCM", ZELTA_AUDIO_PCM}, {"AAC", ZELTA_AUDIO_AAC}}));
  all.set(
      "VideoFormat",
      group(env, {{"YUV", ZELTA_VIDEO_YUV}, {"H264", ZELTA_VIDEO_H264}, {"JPG", ZELTA_VIDEO_JPG}}));
  all.set("DecodeVideo",
          group(env, {{"FILES", ZELTA_DECODE_VIDEO_FILES},
                      {"H264_FRAMES", ZELTA_DECODE_VIDEO_H264_FRAMES},
                      {"YUV_FRAMES", ZELTA_DECODE_VIDEO_YUV_FRAMES},
                      {"JPG_FRAMES", ZELTA_DECODE_VIDEO_JPG_FRAMES},
                      {"JPG_FILES", ZELTA_DECODE_VIDEO_JPG_FILES},
                      {"FILES_AND_JPG_FILES", ZELTA_DECODE_VIDEO_FILES_AND_JPG_FILES}}));
  all.set("DecodeAudio", group(env, {{"FILES", ZELTA_DECODE_AUDIO_FILES},
                                     {"AAC_FRAMES", ZELTA_DECODE_AUDIO_AAC_FRAMES},
                                     {"PCM_FRAMES", ZELTA_DECODE_AUDIO_PCM_FRAMES},
                                     {"MIXED_PCM_FRAMES", ZELTA_DECODE_AUDIO_MIXED_PCM_FRAMES}}));
  all.set("MixedFile", group(env, {{"APART", ZELTA_MIXED_APART},
                                   {"BASELINE", ZELTA_MIXED_BASELINE},
                                   {"HIGH", ZELTA_MIXED_HIGH}}));
  all.set("AudioProfile", group(env, {{"MONO", ZELTA_AUDIO_PROFILE_MONO},
                                      {"HIGH_MONO", ZELTA_AUDIO_PROFILE_HIGH_MONO},
                                      {"HIGH_STEREO", ZELTA_AUDIO_PROFILE_HIGH_STEREO}}));
  all.set("LogLevel", group(env, {{"FATAL", ZELTA_LOG_FATAL},
                                  {"ERROR", ZELTA_LOG_ERROR},
                                  {"WARN", ZELTA_LOG_WARN},
                                  {"NOTICE", ZELTA_LOG_NOTICE},
                                  {"INFO", ZELTA_LOG_INFO},
                                  {"DEBUG", ZELTA_LOG_DEBUG}}));
  // Of zelta_result, for error.code and for what next() gives in place of an event.
  all.set("Result", group(env, {{"OK", ZELTA_OK},
                                {"NO_EVENT", ZELTA_NO_EVENT},
                                {"END", ZELTA_END},
                                {"CLOSED", ZELTA_ERROR_HANDLE},
                                {"ARGUMENT", ZELTA_ERROR_ARGUMENT},
                                {"CONFIGURATION", ZELTA_ERROR_CONFIGURATION},
                                {"REFUSED", ZELTA_ERROR_REFUSED},
                                {"NOT_JOINED", ZELTA_ERROR_NOT_JOINED},
                                {"JOINED", ZELTA_ERROR_JOINED},
                                {"LEFT", ZELTA_ERROR_LEFT},
                                {"MEMORY", ZELTA_ERROR_MEMORY},
                                {"SYSTEM", ZELTA_ERROR_SYSTEM}}));
  return all.get();
}

}  // namespace zelta::node
