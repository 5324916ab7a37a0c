// SPDX-License-Identifier: Apache-2.0
// The functions of zelta_recording.h: each finds its recording, keeps exceptions in, and notes down
// what went wrong.
#include "zelta_recording.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>

#include <pthread.h>

#include "c_interface/handles.h"
#include "c_interface/outcome.h"
#include "c_interface/recording.h"

namespace zelta::c_interface {

namespace {

// Of this thread's last failure without a recording.
thread_local std::string detail_without_recording;

void note_down(recording_object* of, const outcome& failure) noexcept {
  try {
    const std::string& text =
        failure.detail.empty() ? zelta_error_text(failure.code) : failure.detail;
    if (of != nullptr) {
      of->set_detail(text);
    } else {
      detail_without_recording = text;
    }
  } catch (const std::bad_alloc&) {
    // The code says what there is to say.
    return;
  }
}

// A thread that is cancelled is unwound by what looks like an exception, and none leaves a
// function.
class without_cancellation {
 public:
  without_cancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~without_cancellation() { pthread_setcancelstate(before_, nullptr); }
  without_cancellation(const without_cancellation&) = delete;
  without_cancellation& operator=(const without_cancellation&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

// What `call` comes to, of `of`, which may be null.
template <class Call>
int guarded(recording_object* of, Call call) noexcept {
  const without_cancellation whole;
  outcome done;
  try {
    done = call();
  } catch (const std::bad_alloc&) {
    done.code = ZELTA_ERROR_MEMORY;
  } catch (const std::exception& failure) {
    done.code = ZELTA_ERROR_SYSTEM;
    try {
      done.detail = failure.what();
    } catch (const std::bad_alloc&) {
      done.detail.clear();
    }
  } catch (...) {
    done.code = ZELTA_ERROR_SYSTEM;
  }
  if (done.failed()) note_down(of, done);
  return done.code;
}

template <class Call>
int with_recording(const zelta_recording* handle, Call call) noexcept {
  std::shared_ptr<recording_object> found;
  const int code = guarded(nullptr, [&]() -> outcome {
    found = find_recording(handle);
    if (found) return {};
    return {ZELTA_ERROR_HANDLE, handle == nullptr
                                    ? "recording is null"
                                    : "recording was released, or made by another process"};
  });
  return code != ZELTA_OK ? code : guarded(found.get(), [&] { return call(*found); });
}

struct code_text {
  int code;
  const char* text;
};

constexpr std::array kTexts = {
    code_text{ZELTA_OK, "done"},
    code_text{ZELTA_NO_EVENT, "no event came in time"},
    code_text{ZELTA_END, "no event will come any more"},
    code_text{ZELTA_ERROR_HANDLE, "no recording: null, or released"},
    code_text{ZELTA_ERROR_ARGUMENT, "an argument, or a member of a struct, can't be"},
    code_text{ZELTA_ERROR_STRUCT_SIZE, "the size of a struct can't be"},
    code_text{ZELTA_ERROR_UNKNOWN_FIELD,
              "a struct has something set that this library is too old for"},
    code_text{ZELTA_ERROR_CONFIGURATION, "parts of the configuration don't go together"},
    code_text{ZELTA_ERROR_REFUSED, "the engine could not do it; its log says why"},
    code_text{ZELTA_ERROR_NOT_JOINED, "not before a join"},
    code_text{ZELTA_ERROR_JOINED, "joined already"},
    code_text{ZELTA_ERROR_LEFT, "left already"},
    code_text{ZELTA_ERROR_IN_CALLBACK, "not from inside a callback"},
    code_text{ZELTA_ERROR_NO_QUEUE, "the events of this recording come by callback"},
    code_text{ZELTA_ERROR_FULL, "copies hold as much as they may"},
    code_text{ZELTA_ERROR_UNKNOWN_EVENT, "no event of this recording, or released already"},
    code_text{ZELTA_ERROR_MEMORY, "no memory"},
    code_text{ZELTA_ERROR_SYSTEM, "the system has refused something"},
};

}  // namespace

}  // namespace zelta::c_interface

using namespace zelta::c_interface;  // NOLINT(google-build-using-namespace): the functions below

const char* zelta_version(void) {
  return ZELTA_VERSION;
}

const char* zelta_error_text(int code) {
  const auto* const found = std::find_if(kTexts.begin(), kTexts.end(),
                                         [code](const code_text& one) { return one.code == code; });
  return found != kTexts.end() ? found->text : "no code of this library";
}

int zelta_error_detail(zelta_recording* recording, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return ZELTA_ERROR_ARGUMENT;
  // Not by with_recording(), which notes down what fails: to ask for a detail doesn't change it.
  bool is_known = true;
  const int code = guarded(nullptr, [&]() -> outcome {
    const auto of = recording != nullptr ? find_recording(recording) : nullptr;
    is_known = recording == nullptr || of != nullptr;
    if (!is_known) return {};
    const std::string text = of != nullptr ? of->detail() : detail_without_recording;
    buffer[text.copy(buffer, size - 1)] = '\0';
    return {};
  });
  return is_known ? code : ZELTA_ERROR_HANDLE;
}

int zelta_recording_create(const zelta_options* options, zelta_recording** recording) {
  if (recording != nullptr) *recording = nullptr;
  return guarded(nullptr, [&]() -> outcome {
    if (recording == nullptr) return is_null("recording");
    zelta_options known{};
    outcome done = recording_object::read_options(options, known);
    if (done.failed()) return done;
    zelta_recording* const handle = new_handle();
    const auto made = std::make_shared<recording_object>(handle, known);
    done = made->start();
    if (done.failed()) return done;
    add_recording(handle, made);
    *recording = handle;
    return {};
  });
}

int zelta_recording_join(zelta_recording* recording, const char* channel_key,
                         const char* channel_id, uint32_t uid, const zelta_config* config) {
  return with_recording(recording,
                        [&](auto& of) { return of.join(channel_key, channel_id, uid, config); });
}

int zelta_recording_folder(zelta_recording* recording, char* buffer, size_t size) {
  return with_recording(recording, [&](auto& of) { return of.folder(buffer, size); });
}

int zelta_recording_set_layout(zelta_recording* recording, const zelta_layout* layout) {
  return with_recording(recording, [&](auto& of) { return of.set_layout(layout); });
}

int zelta_recording_set_user_background(zelta_recording* recording, uint32_t uid,
                                        const char* image_path) {
  return with_recording(recording,
                        [&](auto& of) { return of.set_user_background(uid, image_path); });
}

int zelta_recording_start_service(zelta_recording* recording) {
  return with_recording(recording, [](auto& of) { return of.start_service(); });
}

int zelta_recording_stop_service(zelta_recording* recording) {
  return with_recording(recording, [](auto& of) { return of.stop_service(); });
}

int zelta_recording_set_log_level(zelta_recording* recording, int level) {
  return with_recording(recording, [&](auto& of) { return of.set_log_level(level); });
}

int zelta_event_fd(zelta_recording* recording, int* fd) {
  return with_recording(recording, [&](auto& of) { return of.event_fd(fd); });
}

int zelta_next_event(zelta_recording* recording, int timeout_ms, const zelta_event** event) {
  if (event != nullptr) *event = nullptr;
  return with_recording(recording, [&](auto& of) {
    return event == nullptr ? is_null("event") : of.next_event(timeout_ms, event);
  });
}

int zelta_event_copy(zelta_recording* recording, const zelta_event* event,
                     const zelta_event** copy) {
  if (copy != nullptr) *copy = nullptr;
  return with_recording(recording, [&](auto& of) {
    return copy == nullptr ? is_null("copy") : of.copy_event(event, copy);
  });
}

int zelta_event_release(zelta_recording* recording, const zelta_event* event) {
  return with_recording(recording, [&](auto& of) { return of.release_event(event); });
}

int zelta_recording_leave(zelta_recording* recording) {
  return with_recording(recording, [](auto& of) { return of.leave(); });
}

int zelta_recording_finish(zelta_recording* recording) {
  return with_recording(recording, [](auto& of) { return of.finish(); });
}

int zelta_recording_release(zelta_recording* recording) {
  return with_recording(recording, [&](auto& of) -> outcome {
    // Found until then, by callbacks that the release waits for.
    outcome done = of.release();
    if (!done.failed()) remove_recording(recording);
    return done;
  });
}
