// SPDX-License-Identifier: Apache-2.0
// Recordings by the C interface, with a recorder that does what a test tells it.
#pragma once

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/temp_dir.h"
#include "zelta_recording.h"

namespace zelta::test {

struct CRelease {
  void operator()(zelta_recording* recording) const { zelta_recording_release(recording); }
};
using CRecording = std::unique_ptr<zelta_recording, CRelease>;
using OnEvent = std::function<void(zelta_recording*, const zelta_event&)>;

class CInterfaceTest : public ::testing::Test {
 protected:
  CInterfaceTest() {
    setenv("ZELTA_SERVICE_DIR", FAKE_SERVICE_DIR, 1);
    config.size = sizeof config;
    config.record_file_root_dir = dir.path().c_str();
  }
  ~CInterfaceTest() override { unsetenv("ZELTA_SERVICE_DIR"); }

  static zelta_options options(OnEvent* called = nullptr) {
    zelta_options made{};
    made.size = sizeof made;
    made.app_id = "app";
    if (called == nullptr) return made;
    made.delivery = ZELTA_DELIVERY_CALLBACK;
    made.context = called;
    made.callback = [](void* context, zelta_recording* recording, const zelta_event* event) {
      (*static_cast<OnEvent*>(context))(recording, *event);
    };
    return made;
  }
  static CRecording made(const zelta_options& how = options()) {
    zelta_recording* recording = nullptr;
    EXPECT_EQ(zelta_recording_create(&how, &recording), ZELTA_OK) << detail(nullptr);
    return CRecording(recording);
  }
  void join(const CRecording& recording, const std::string& script) const {
    setenv("FAKE_RECORDER", script.c_str(), 1);
    ASSERT_EQ(zelta_recording_join(recording.get(), "key", "room", 1, &config), ZELTA_OK)
        << detail(recording.get());
  }
  static std::string detail(zelta_recording* recording) {
    char text[400];
    EXPECT_EQ(zelta_error_detail(recording, text, sizeof text), ZELTA_OK);
    return text;
  }

  TempDir dir;
  zelta_config config{};
};

}  // namespace zelta::test
