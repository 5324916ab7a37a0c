// SPDX-License-Identifier: Apache-2.0
// The addon: functions that lib/*.js calls, over zelta_recording.h. They take a session or a
// frame's memory first, and their result is a zelta_result where it is nothing else; what
// applications give was checked in JavaScript before. Each environment has one of its own, and they
// share nothing.
#include <array>
#include <climits>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <node_api.h>
#include <zelta_recording.h>

#include "frame_memory.h"
#include "parts.h"
#include "session.h"
#include "values.h"

namespace zelta::node {

namespace {

// ---- Made and joined -----------------------------------------------------------------------

// app id, queue bytes -> a session, or a zelta_result.
napi_value create(napi_env env, const arguments& given) {
  const std::string app_id = given.text(0);
  zelta_options options{};
  options.size = sizeof options;
  options.delivery = ZELTA_DELIVERY_QUEUE;
  options.app_id = app_id.c_str();
  options.queue_bytes = static_cast<uint64_t>(given.number(1));
  zelta_recording* made = nullptr;
  const int code = zelta_recording_create(&options, &made);
  if (code != ZELTA_OK) return number_value(env, code);
  std::shared_ptr<session> opened =
      session::open(env, std::make_shared<const lease>(made),
                    std::make_shared<frame_account>(options.queue_bytes));
  if (!opened) return number_value(env, ZELTA_ERROR_SYSTEM);
  // A share that tells the session when JavaScript has no more of it.
  return share_value(env, std::shared_ptr<session>(opened.get(), [opened](session* of) mutable {
                       of->abandon();
                       opened.reset();
                     }));
}

// session, key, channel, uid, numbers and texts of the configuration.
napi_value join(napi_env env, const arguments& given) {
  const auto of = given.share<session>(0);
  const std::string key = given.text(1);
  const std::string channel = given.text(2);
  return number_value(env, join_with(env, of->recording(), key.c_str(), channel.c_str(),
                                     given.uid(3), given.at(4), given.at(5)));
}

// The folder, or a zelta_result.
napi_value folder(napi_env env, const arguments& given) {
  const auto of = given.share<session>(0);
  std::array<char, PATH_MAX> path{};
  const int code = zelta_recording_folder(of->recording(), path.data(), path.size());
  return code == ZELTA_OK ? text_value(env, path.data()) : number_value(env, code);
}

// session or nothing -> the detail of the last failure.
napi_value error_detail(napi_env env, const arguments& given) {
  std::array<char, 1024> detail{};
  const auto of = given.is_nothing(0) ? nullptr : given.share<session>(0);
  zelta_error_detail(of ? of->recording() : nullptr, detail.data(), detail.size());
  return text_value(env, detail.data());
}

napi_value error_text(napi_env env, const arguments& given) {
  return text_value(env, zelta_error_text(static_cast<int>(given.number(0))));
}

// ---- Commands ------------------------------------------------------------------------------

// session, a Float64Array of seven numbers a region, color or nothing, Uint8Array.
napi_value set_layout(napi_env env, const arguments& given) {
  constexpr size_t kNumbersOfRegion = 7;
  const auto of = given.share<session>(0);
  size_t count = 0;
  size_t bytes = 0;
  void* numbers = nullptr;
  void* app_data = nullptr;
  if (napi_get_typedarray_info(env, given.at(1), nullptr, &count, &numbers, nullptr, nullptr) !=
          napi_ok ||
      napi_get_typedarray_info(env, given.at(3), nullptr, &bytes, &app_data, nullptr, nullptr) !=
          napi_ok ||
      bytes > UINT32_MAX) {
    return number_value(env, ZELTA_ERROR_ARGUMENT);
  }
  std::vector<zelta_region> regions(count / kNumbersOfRegion);
  const auto* next = static_cast<const double*>(numbers);
  for (zelta_region& region : regions) {
    region.uid = static_cast<uint32_t>(*next++);
    region.render_mode = static_cast<int32_t>(*next++);
    for (double* share : {&region.x, &region.y, &region.width, &region.height, &region.alpha}) {
      *share = *next++;
    }
  }
  const std::string color = given.text(2);
  zelta_layout layout{};
  layout.size = sizeof layout;
  layout.region_size = sizeof(zelta_region);
  layout.region_count = static_cast<uint32_t>(regions.size());
  layout.regions = regions.data();
  layout.background_color = given.is_nothing(2) ? nullptr : color.c_str();
  layout.app_data_bytes = static_cast<uint32_t>(bytes);
  layout.app_data = app_data;
  return number_value(env, zelta_recording_set_layout(of->recording(), &layout));
}

napi_value set_user_background(napi_env env, const arguments& given) {
  const std::string path = given.text(2);
  return number_value(env, zelta_recording_set_user_background(given.share<session>(0)->recording(),
                                                               given.uid(1), path.c_str()));
}

napi_value start_service(napi_env env, const arguments& given) {
  return number_value(env, zelta_recording_start_service(given.share<session>(0)->recording()));
}

napi_value stop_service(napi_env env, const arguments& given) {
  return number_value(env, zelta_recording_stop_service(given.share<session>(0)->recording()));
}

napi_value set_log_level(napi_env env, const arguments& given) {
  return number_value(env, zelta_recording_set_log_level(given.share<session>(0)->recording(),
                                                         static_cast<int>(given.number(1))));
}

// ---- Events, frames, end -------------------------------------------------------------------

napi_value next(napi_env env, const arguments& given) {
  return take_event(env, *given.share<session>(0));
}

napi_value readable(napi_env, const arguments& given) {
  return given.share<session>(0)->readable();
}

napi_value hold(napi_env, const arguments& given) {
  given.share<session>(0)->hold(given.flag(1));
  return nullptr;
}

napi_value leave(napi_env, const arguments& given) {
  return given.share<session>(0)->leave();
}

napi_value finish(napi_env, const arguments& given) {
  return given.share<session>(0)->finish();
}

napi_value frame_buffer(napi_env, const arguments& given) {
  return given.share<frame_memory>(0)->buffer();
}

napi_value frame_release(napi_env, const arguments& given) {
  given.share<frame_memory>(0)->release(given.at(1));
  return nullptr;
}

// ---- The module ----------------------------------------------------------------------------

template <napi_value (*function)(napi_env, const arguments&)>
napi_value called(napi_env env, napi_callback_info info) {
  try {
    return function(env, arguments(env, info));
  } catch (const std::bad_alloc&) {
    static_cast<void>(napi_throw_error(env, "ERR_ZELTA_MEMORY", "no memory"));
    return nullptr;
  }
}

struct function {
  const char* name;
  napi_callback call;
};

constexpr function kFunctions[] = {{"create", called<create>},
                                   {"join", called<join>},
                                   {"folder", called<folder>},
                                   {"errorDetail", called<error_detail>},
                                   {"errorText", called<error_text>},
                                   {"setLayout", called<set_layout>},
                                   {"setUserBackground", called<set_user_background>},
                                   {"startService", called<start_service>},
                                   {"stopService", called<stop_service>},
                                   {"setLogLevel", called<set_log_level>},
                                   {"next", called<next>},
                                   {"readable", called<readable>},
                                   {"hold", called<hold>},
                                   {"leave", called<leave>},
                                   {"finish", called<finish>},
                                   {"frameBuffer", called<frame_buffer>},
                                   {"frameRelease", called<frame_release>}};

napi_value fill(napi_env env, napi_value exports) {
  for (const function& of : kFunctions) {
    napi_value made = nullptr;
    if (napi_create_function(env, of.name, NAPI_AUTO_LENGTH, of.call, nullptr, &made) != napi_ok ||
        napi_set_named_property(env, exports, of.name, made) != napi_ok) {
      return nullptr;
    }
  }
  const std::pair<const char*, napi_value> values[] = {
      {"constants", constants(env)},
      {"configNumbers", config_numbers(env)},
      {"configTexts", config_texts(env)},
      {"version", text_value(env, zelta_version())}};
  for (const auto& [name, value] : values) {
    if (napi_set_named_property(env, exports, name, value) != napi_ok) return nullptr;
  }
  return exports;
}

}  // namespace

}  // namespace zelta::node

NAPI_MODULE_INIT() {
  return zelta::node::fill(env, exports);
}
