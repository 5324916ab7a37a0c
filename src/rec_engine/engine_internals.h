// SPDX-License-Identifier: Apache-2.0
// What the parts of the engine share: its log lines, its refusals, and how it sends.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <utility>

#include <unistd.h>

#include "base/log.h"
#include "base/safe_log.h"
#include "protocol/ipc_protocol.h"
#include "rec_engine/RecordingEngineImpl.h"
#include "zelta_revision.h"

// A line that is streamed together: ENGINE_LOG(NOTICE_LOG) << "uid: " << uid;
#define ENGINE_LOG(level)                                      \
  base::safe_log(logdir_.c_str(), __FILE__, __LINE__, (level), \
                 base::ZELTA_LOG_MODULE_RECORDING_ENGINE)      \
      .stream()
// A line with a format: ENGINE_LOGF(NOTICE_LOG, "%s", text);
#define ENGINE_LOGF(level, format, ...)                                            \
  base::log_dir(logdir_.c_str(), (level), base::ZELTA_LOG_MODULE_RECORDING_ENGINE, \
                "(%d) %s:%d: " format, getpid(), __FILE__, __LINE__, ##__VA_ARGS__)

namespace zelta::recording {

using base::ERROR_LOG;
using base::INFO_LOG;
using base::log_config;
using base::NOTICE_LOG;
using base::WARN_LOG;

// What the public calls refuse with.
constexpr int kRefused = -1;
constexpr int kBadConfiguration = -2;

constexpr const char* kRevision = ZELTA_REVISION;

inline bool is_set(const char* text) {
  return text != nullptr && *text != '\0';
}

// The modes that take pictures instead of recording video.
inline bool captures_instead_of_video(VIDEO_FORMAT_TYPE decode_video) {
  return decode_video == VIDEO_FORMAT_JPG_FRAME_TYPE || decode_video == VIDEO_FORMAT_JPG_FILE_TYPE;
}

// No exception crosses the public interface: memory or a thread that is not to be had refuses the
// call. What was begun by then ends with the engine.
template <class Call>
int guarded(const char* name, const std::string& logdir, Call call) {
  try {
    return call();
  } catch (const std::exception& failure) {
    base::log_dir(logdir.c_str(), ERROR_LOG, base::ZELTA_LOG_MODULE_RECORDING_ENGINE,
                  "(%d) %s:%d: %s failed: %s", getpid(), __FILE__, __LINE__, name, failure.what());
    return kRefused;
  }
}

// Every packet is made here: the router takes it over, so it is the one thing that is released.
template <class Packet, class Fill>
void RecordingEngineImpl::send(Fill fill) {
  if (!router_) return;
  auto p = std::make_unique<Packet>(uint16_t{0});
  fill(*p);
  router_->send_packet(p.release());
}

}  // namespace zelta::recording
