// SPDX-License-Identifier: Apache-2.0
// Takes frames from the queue of the C interface and gives each back at once, for frames.py:
// what the queue costs before a language is added. Arguments: a folder to record in, and how many
// frames. Prints JSON: nanoseconds of processor a frame, of the process and of this thread, and
// frames dropped.
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <zelta_recording.h>

static double processor_ns(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return (double)now.tv_sec * 1e9 + (double)now.tv_nsec;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const uint64_t frames = strtoull(argv[2], NULL, 10);
  zelta_options options = {.size = sizeof options, .app_id = "bench", .queue_bytes = 1 << 30};
  zelta_config config = {.size = sizeof config,
                         .record_file_root_dir = argv[1],
                         .decode_video = ZELTA_DECODE_VIDEO_YUV_FRAMES,
                         .decode_audio = ZELTA_DECODE_AUDIO_PCM_FRAMES};
  zelta_recording* recording;
  const zelta_event* event;
  if (zelta_recording_create(&options, &recording) != ZELTA_OK) return 1;
  int code = zelta_recording_join(recording, NULL, "bench", 0, &config);
  uint64_t seen = 0;
  uint64_t dropped = 0;
  double process = 0;
  double thread = 0;
  while (code == ZELTA_OK && seen + dropped < frames) {
    code = zelta_next_event(recording, 60000, &event);
    if (code != ZELTA_OK) break;
    if (event->kind == ZELTA_EVENT_DROPPED) {
      dropped += event->as.dropped.audio_frames + event->as.dropped.video_frames;
    }
    if (event->kind == ZELTA_EVENT_AUDIO_FRAME || event->kind == ZELTA_EVENT_VIDEO_FRAME) {
      if (seen++ == 0) {
        process = processor_ns(CLOCK_PROCESS_CPUTIME_ID);
        thread = processor_ns(CLOCK_THREAD_CPUTIME_ID);
      }
    }
    zelta_event_release(recording, event);
  }
  const double counted = (double)(seen - 1);
  printf("{\"process\": %.1f, \"thread\": %.1f, \"dropped\": %" PRIu64 "}\n",
         (processor_ns(CLOCK_PROCESS_CPUTIME_ID) - process) / counted,
         (processor_ns(CLOCK_THREAD_CPUTIME_ID) - thread) / counted, dropped);
  zelta_recording_release(recording);
  return code == ZELTA_OK && seen > 1 ? 0 : 1;
}
