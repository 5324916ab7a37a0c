// SPDX-License-Identifier: Apache-2.0
// The native methods that take events, give them back, and wait for them.
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "io_zelta_recording_Native.h"
#include "java_calls.h"

using namespace zelta::java;  // NOLINT(google-build-using-namespace): the functions below

namespace {

using natives = std::array<jlong, io_zelta_recording_Native_FIELDS>;

// Where a frame has no bytes there may be no address, which a buffer has to have.
uint8_t nothing = 0;

struct field_writer {
  natives& fields;
  size_t at = io_zelta_recording_Native_FIELD_FIRST;

  template <class... Numbers>
  void operator()(Numbers... numbers) {
    ((fields.at(at++) = static_cast<jlong>(numbers)), ...);
  }
};

// The numbers of each kind, in the order of its struct.
void write_numbers(const zelta_event& event, field_writer write) {
  const auto& as = event.as;
  switch (event.kind) {
    case ZELTA_EVENT_ERROR:
      return write(as.error.error, as.error.stat_code);
    case ZELTA_EVENT_WARNING:
      return write(as.warning.warning);
    case ZELTA_EVENT_LEFT:
      return write(as.left.reason);
    case ZELTA_EVENT_USER_OFFLINE:
      return write(as.user_offline.reason);
    case ZELTA_EVENT_AUDIO_FRAME:
      return write(as.audio.time_ms, as.audio.format, as.audio.channels, as.audio.sample_rate,
                   as.audio.bitrate);
    case ZELTA_EVENT_VIDEO_FRAME:
      write(as.video.time_ms, as.video.format, as.video.rotation, as.video.frame_number,
            as.video.width, as.video.height);
      for (const uint8_t* const plane : as.video.planes) {
        write(plane != nullptr ? plane - as.video.data : 0);
      }
      return write(as.video.strides[0], as.video.strides[1], as.video.strides[2]);
    case ZELTA_EVENT_FIRST_VIDEO:
      return write(as.first_video.width, as.first_video.height, as.first_video.elapsed_ms);
    case ZELTA_EVENT_FIRST_AUDIO:
      return write(as.first_audio.elapsed_ms);
    case ZELTA_EVENT_RECEIVING:
      return write(as.receiving.audio, as.receiving.video);
    case ZELTA_EVENT_DROPPED:
      return write(as.dropped.audio_frames, as.dropped.video_frames, as.dropped.other_events,
                   as.dropped.frames_so_far);
    default:
      return;
  }
}

// Java's views of it are read-only.
jobject buffer_over(JNIEnv* env, const uint8_t* data, uint32_t bytes) {
  const uint8_t* const from = bytes != 0 ? data : &nothing;
  return env->NewDirectByteBuffer(const_cast<uint8_t*>(from), jlong{bytes});
}

jobject numbers_of(JNIEnv* env, const zelta_volume* speakers, uint32_t count) {
  std::vector<jint> numbers;
  numbers.reserve(2 * size_t{count});
  for (uint32_t i = 0; i < count; ++i) {
    numbers.push_back(static_cast<jint>(speakers[i].uid));
    numbers.push_back(static_cast<jint>(speakers[i].volume));
  }
  const auto length = static_cast<jsize>(numbers.size());
  jintArray const made = env->NewIntArray(length);
  if (made != nullptr) env->SetIntArrayRegion(made, 0, length, numbers.data());
  return made;
}

// Null where the kind has numbers alone.
jobject content_of(JNIEnv* env, const zelta_event& event) {
  const auto& as = event.as;
  switch (event.kind) {
    case ZELTA_EVENT_JOINED:
      return bytes_of(env, as.joined.channel_id);
    case ZELTA_EVENT_USER_JOINED:
      return bytes_of(env, as.user_joined.storage_dir);
    case ZELTA_EVENT_AUDIO_FRAME:
      return buffer_over(env, as.audio.data, as.audio.data_bytes);
    case ZELTA_EVENT_VIDEO_FRAME:
      return buffer_over(env, as.video.data, as.video.data_bytes);
    case ZELTA_EVENT_VOLUMES:
      return numbers_of(env, as.volumes.speakers, as.volumes.count);
    default:
      return nullptr;
  }
}

// An event that is given back at the end, unless Java has it.
class taken_event {
 public:
  taken_event(zelta_recording* recording, const zelta_event* event)
      : recording_(recording), event_(event) {}
  ~taken_event() {
    // It was lent, and nobody else has it.
    if (!is_javas_) zelta_event_release(recording_, event_);
  }
  taken_event(const taken_event&) = delete;
  taken_event& operator=(const taken_event&) = delete;

  const zelta_event& operator*() const { return *event_; }
  bool is_frame() const {
    return event_->kind == ZELTA_EVENT_AUDIO_FRAME || event_->kind == ZELTA_EVENT_VIDEO_FRAME;
  }
  void hand_over() { is_javas_ = true; }

 private:
  zelta_recording* const recording_;
  const zelta_event* const event_;
  bool is_javas_ = false;
};

// Throws what a system call says that failed.
void throw_errno(JNIEnv* env, const char* call) {
  const std::string detail = std::string(call) + ": " + std::strerror(errno);
  succeeded(env, nullptr, ZELTA_ERROR_SYSTEM, detail.c_str());
}

}  // namespace

jint Java_io_zelta_recording_Native_eventFd(JNIEnv* env, jclass, jlong recording) {
  int fd = -1;
  succeeded(env, recording_of(recording), zelta_event_fd(recording_of(recording), &fd));
  return fd;
}

jobject Java_io_zelta_recording_Native_take(JNIEnv* env, jclass, jlong recording,
                                            jlongArray fields) {
  return guarded(env, [&]() -> jobject {
    const zelta_event* event = nullptr;
    natives numbers{};
    const int code = zelta_next_event(recording_of(recording), 0, &event);
    if (!succeeded(env, recording_of(recording), code)) return nullptr;
    numbers[io_zelta_recording_Native_FIELD_RESULT] = code;
    if (code != ZELTA_OK) {
      env->SetLongArrayRegion(fields, 0, jsize{numbers.size()}, numbers.data());
      return nullptr;
    }
    taken_event taken(recording_of(recording), event);
    if (taken.is_frame()) {
      numbers[io_zelta_recording_Native_FIELD_EVENT] = number_of(event);
    }
    numbers[io_zelta_recording_Native_FIELD_KIND] = event->kind;
    numbers[io_zelta_recording_Native_FIELD_UID] = event->uid;
    write_numbers(*taken, field_writer{numbers});
    jobject const content = content_of(env, *taken);
    if (env->ExceptionCheck() == JNI_TRUE) return nullptr;
    env->SetLongArrayRegion(fields, 0, jsize{numbers.size()}, numbers.data());
    if (env->ExceptionCheck() == JNI_TRUE) return nullptr;
    if (taken.is_frame()) taken.hand_over();
    return content;
  });
}

void Java_io_zelta_recording_Native_dropQueue(JNIEnv*, jclass, jlong recording) {
  const zelta_event* event = nullptr;
  while (zelta_next_event(recording_of(recording), 0, &event) == ZELTA_OK) {
    // It was lent, and nobody else has it.
    zelta_event_release(recording_of(recording), event);
  }
}

void Java_io_zelta_recording_Native_releaseEvent(JNIEnv* env, jclass, jlong recording,
                                                 jlong event) {
  succeeded(env, recording_of(recording),
            zelta_event_release(recording_of(recording), pointer_of<const zelta_event>(event)));
}

jint Java_io_zelta_recording_Native_openWaker(JNIEnv* env, jclass) {
  const int made = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (made < 0) guarded(env, [&] { throw_errno(env, "eventfd"); });
  return made;
}

void Java_io_zelta_recording_Native_wake(JNIEnv*, jclass, jint waker) {
  const uint64_t one = 1;
  // It fails only when it is awake as often as can be counted.
  [[maybe_unused]] const ssize_t written = write(waker, &one, sizeof one);
}

void Java_io_zelta_recording_Native_closeWaker(JNIEnv*, jclass, jint waker) {
  // Nothing can be written late, so nothing can fail.
  close(waker);
}

void Java_io_zelta_recording_Native_poll(JNIEnv* env, jclass, jint event_fd, jint waker,
                                         jint timeout_ms) {
  std::array<pollfd, 2> waits = {pollfd{event_fd, POLLIN, 0}, pollfd{waker, POLLIN, 0}};
  // A signal ends the wait early, and whoever waits looks for how long it is to go on.
  if (poll(waits.data(), waits.size(), timeout_ms) < 0 && errno != EINTR) {
    guarded(env, [&] { throw_errno(env, "poll"); });
  }
}
