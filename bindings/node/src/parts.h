// SPDX-License-Identifier: Apache-2.0
// What the addon gives to index.js, each as a member of one object.
#pragma once

#include <node_api.h>

#include "session.h"

namespace zelta::node {

// The header's numbers by name, in groups.
napi_value constants(napi_env env);

// Names of zelta_config's members as JavaScript has them, in the order in which join() takes them.
napi_value config_numbers(napi_env env);
napi_value config_texts(napi_env env);
// Reads the arrays that stand in that order and joins. A zelta_result.
int join_with(napi_env env, zelta_recording* recording, const char* key, const char* channel,
              uint32_t uid, napi_value numbers, napi_value texts);

// The oldest event that waits as an object, or a zelta_result where there is none.
napi_value take_event(napi_env env, session& of);

}  // namespace zelta::node
