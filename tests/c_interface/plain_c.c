// SPDX-License-Identifier: Apache-2.0
// That plain C can use the header and the library: a callback that counts, and what the structs and
// the codes are. Exit status 0: all is as it should be, else the line that isn't.
#include <stdio.h>
#include <string.h>

#include "zelta_recording.h"

#define CHECK(condition)                                      \
  do {                                                        \
    if (!(condition)) {                                       \
      fprintf(stderr, "line %d: %s\n", __LINE__, #condition); \
      return 1;                                               \
    }                                                         \
  } while (0)

static void count(void* context, zelta_recording* recording, const zelta_event* event) {
  (void)recording;
  if (ZELTA_HAS(event, as.error.stat_code)) ++*(int*)context;
}

int main(void) {
  int events = 0;
  zelta_options options = {0};
  zelta_config config = {0};
  zelta_recording* recording = NULL;
  char detail[100];

  CHECK(zelta_recording_create(&options, &recording) == ZELTA_ERROR_STRUCT_SIZE);
  CHECK(recording == NULL);
  CHECK(zelta_error_detail(NULL, detail, sizeof detail) == ZELTA_OK);
  CHECK(strstr(detail, "options.size is 0") != NULL);
  CHECK(zelta_error_detail(NULL, detail, 8) == ZELTA_OK && strcmp(detail, "options") == 0);

  options.size = sizeof options;
  options.delivery = ZELTA_DELIVERY_CALLBACK;
  options.app_id = "app";
  options.callback = count;
  options.context = &events;
  CHECK(zelta_recording_create(&options, &recording) == ZELTA_OK);
  config.size = sizeof config;
  config.is_audio_only = config.is_video_only = 1;
  CHECK(zelta_recording_join(recording, NULL, "room", 0, &config) == ZELTA_ERROR_CONFIGURATION);
  CHECK(zelta_recording_release(recording) == ZELTA_OK);
  CHECK(zelta_recording_release(recording) == ZELTA_ERROR_HANDLE);
  CHECK(events == 0);
  CHECK(strlen(zelta_version()) > 0);
  return 0;
}
