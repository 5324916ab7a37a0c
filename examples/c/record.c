// SPDX-License-Identifier: Apache-2.0
// Records three seconds of the channel "meeting" below the current folder. The argument is a
// configuration file that names the channel server. Exit status 0: recorded, 1: not.
#include <stdio.h>
#include <time.h>

#include <zelta_recording.h>

int main(int argc, char** argv) {
  zelta_options options = {.size = sizeof options, .app_id = "my-app"};
  zelta_config config = {.size = sizeof config, .cfg_file_path = argc > 1 ? argv[1] : NULL};
  zelta_recording* recording;
  int code = zelta_recording_create(&options, &recording);
  if (code == ZELTA_OK) code = zelta_recording_join(recording, NULL, "meeting", 0, &config);
  time_t joined = 0;
  const zelta_event* event;
  while (code >= 0 && (joined == 0 || time(NULL) < joined + 3)) {
    code = zelta_next_event(recording, joined == 0 ? 20000 : 500, &event);
    if (code == ZELTA_NO_EVENT && joined == 0) break;  // nobody answers
    if (code != ZELTA_OK) continue;
    if (event->kind == ZELTA_EVENT_JOINED) joined = time(NULL);
    if (event->kind == ZELTA_EVENT_USER_JOINED) {
      printf("user %u is recorded in %s\n", (unsigned)event->uid,
             event->as.user_joined.storage_dir);
    }
    // An error of one user's ends nothing.
    const int ended =
        event->kind == ZELTA_EVENT_LEFT ||
        (event->kind == ZELTA_EVENT_ERROR && event->as.error.error != ZELTA_SESSION_USER_FAILED);
    zelta_event_release(recording, event);
    if (ended) code = ZELTA_ERROR_REFUSED;
  }
  if (code < 0) fprintf(stderr, "%s\n", zelta_error_text(code));
  if (recording != NULL) zelta_recording_release(recording);  // the files are complete
  return code >= 0 && joined != 0 ? 0 : 1;
}
