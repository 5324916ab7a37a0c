// SPDX-License-Identifier: Apache-2.0
#include "java_calls.h"

#include <array>
#include <cstring>

namespace zelta::java {

namespace {

constexpr size_t kMostDetail = 1024;

// Written when the library is loaded, before any other function runs.
jclass native_class = nullptr;
jmethodID failure_method = nullptr;

}  // namespace

bool remember_classes(JNIEnv* env) {
  jclass const found = env->FindClass("io/zelta/recording/Native");
  if (found == nullptr) return false;
  failure_method =
      env->GetStaticMethodID(found, "failure", "(I[B[B)Lio/zelta/recording/ZeltaException;");
  if (failure_method == nullptr) return false;
  native_class = static_cast<jclass>(env->NewGlobalRef(found));
  env->DeleteLocalRef(found);
  return native_class != nullptr;
}

void forget_classes(JNIEnv* env) {
  env->DeleteGlobalRef(native_class);
  native_class = nullptr;
}

bool succeeded(JNIEnv* env, zelta_recording* recording, int code, const char* detail) {
  if (code >= ZELTA_OK) return true;
  std::array<char, kMostDetail> said{};
  // Of a recording that isn't known nothing is known; then it stays empty.
  if (detail == nullptr) zelta_error_detail(recording, said.data(), said.size());
  jbyteArray const text = bytes_of(env, zelta_error_text(code));
  if (text == nullptr) return false;
  jbyteArray const details = bytes_of(env, detail != nullptr ? detail : said.data());
  if (details == nullptr) return false;
  jobject const failure =
      env->CallStaticObjectMethod(native_class, failure_method, jint{code}, text, details);
  if (env->ExceptionCheck() == JNI_FALSE) env->Throw(static_cast<jthrowable>(failure));
  return false;
}

bool copy_bytes(JNIEnv* env, jbyteArray from, std::string& to) {
  const jsize count = env->GetArrayLength(from);
  to.resize(static_cast<size_t>(count));
  env->GetByteArrayRegion(from, 0, count, reinterpret_cast<jbyte*>(to.data()));
  return env->ExceptionCheck() == JNI_FALSE;
}

const char* next_text(const std::string& texts, size_t& at) {
  if (at >= texts.size()) return nullptr;
  const char* const text = texts.c_str() + at;
  at += std::strlen(text) + 1;
  return *text != '\0' ? text : nullptr;
}

bool copy_numbers(JNIEnv* env, jintArray from, std::vector<jint>& to) {
  const jsize count = env->GetArrayLength(from);
  to.resize(static_cast<size_t>(count));
  env->GetIntArrayRegion(from, 0, count, to.data());
  return env->ExceptionCheck() == JNI_FALSE;
}

bool copy_numbers(JNIEnv* env, jdoubleArray from, std::vector<jdouble>& to) {
  const jsize count = env->GetArrayLength(from);
  to.resize(static_cast<size_t>(count));
  env->GetDoubleArrayRegion(from, 0, count, to.data());
  return env->ExceptionCheck() == JNI_FALSE;
}

jbyteArray bytes_of(JNIEnv* env, const char* text) {
  const auto count = static_cast<jsize>(std::strlen(text));
  jbyteArray const made = env->NewByteArray(count);
  if (made == nullptr) return nullptr;
  env->SetByteArrayRegion(made, 0, count, reinterpret_cast<const jbyte*>(text));
  return env->ExceptionCheck() == JNI_FALSE ? made : nullptr;
}

void throw_out_of_memory(JNIEnv* env) {
  jclass const error = env->FindClass("java/lang/OutOfMemoryError");
  // Where even that isn't found, what is pending says so.
  if (error != nullptr) env->ThrowNew(error, "native memory");
}

}  // namespace zelta::java
