// SPDX-License-Identifier: Apache-2.0
// What every function of the JNI library needs: results that become Java's exceptions, and arrays.
// Where one of these says that it failed an exception is pending, and the function is to return.
#pragma once

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include <jni.h>

#include <zelta_recording.h>

namespace zelta::java {

// Keeps what it throws with; once, when the library is loaded. `false`: an exception is pending.
bool remember_classes(JNIEnv* env);
void forget_classes(JNIEnv* env);

// Java has numbers alone.
template <class Pointed>
Pointed* pointer_of(jlong number) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): it is what number_of() has made
  return reinterpret_cast<Pointed*>(static_cast<intptr_t>(number));
}
inline jlong number_of(const void* pointer) {
  return static_cast<jlong>(reinterpret_cast<intptr_t>(pointer));
}
inline zelta_recording* recording_of(jlong number) {
  return pointer_of<zelta_recording>(number);
}

// Whether `code` is no failure; else throws the exception that stands for it, with the detail that
// the library has for `recording`, or `detail` where that isn't null.
bool succeeded(JNIEnv* env, zelta_recording* recording, int code, const char* detail = nullptr);

// Copies an array. Texts that follow each other in one, each with a null at its end, are taken
// apart by next_text(), where an empty one is null.
bool copy_bytes(JNIEnv* env, jbyteArray from, std::string& to);
const char* next_text(const std::string& texts, size_t& at);
bool copy_numbers(JNIEnv* env, jintArray from, std::vector<jint>& to);
bool copy_numbers(JNIEnv* env, jdoubleArray from, std::vector<jdouble>& to);

// A new array; null: an exception is pending.
jbyteArray bytes_of(JNIEnv* env, const char* text);

void throw_out_of_memory(JNIEnv* env);

// No C++ exception leaves a function: the one that there may be becomes Java's.
template <class Call>
auto guarded(JNIEnv* env, Call call) noexcept -> decltype(call()) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    throw_out_of_memory(env);
    return decltype(call())();
  }
}

}  // namespace zelta::java
