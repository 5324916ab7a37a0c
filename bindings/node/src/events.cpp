// SPDX-License-Identifier: Apache-2.0
#include <memory>

#include "frame_memory.h"
#include "parts.h"
#include "values.h"

namespace zelta::node {

namespace {

// What is copied of an event whose kind has no memory of its own. False: a kind that isn't known.
bool describe(napi_env env, const zelta_event& event, object_value& made) {
  const auto& as = event.as;
  switch (event.kind) {
    case ZELTA_EVENT_ERROR:
      made.set("type", "error");
      made.set("error", as.error.error).set("stat", as.error.stat_code);
      made.set_flag("endsSession", as.error.error != ZELTA_SESSION_USER_FAILED);
      return true;
    case ZELTA_EVENT_WARNING:
      made.set("type", "warning").set("warning", as.warning.warning);
      return true;
    case ZELTA_EVENT_JOINED:
      made.set("type", "joined").set("uid", event.uid).set("channelId", as.joined.channel_id);
      return true;
    case ZELTA_EVENT_LEFT:
      made.set("type", "left").set("reason", as.left.reason);
      return true;
    case ZELTA_EVENT_USER_JOINED:
      made.set("type", "userJoined").set("uid", event.uid);
      made.set("storageDir", as.user_joined.storage_dir);
      return true;
    case ZELTA_EVENT_USER_OFFLINE:
      made.set("type", "userOffline").set("uid", event.uid).set("reason", as.user_offline.reason);
      return true;
    case ZELTA_EVENT_SPEAKER:
      made.set("type", "speaker").set("uid", event.uid);
      return true;
    case ZELTA_EVENT_VOLUMES: {
      napi_value speakers = array_value(env);
      for (uint32_t i = 0; i < as.volumes.count; ++i) {
        const zelta_volume& of = as.volumes.speakers[i];
        object_value speaker(env);
        append(env, speakers, speaker.set("uid", of.uid).set("volume", of.volume).get());
      }
      made.set("type", "volumes").set("speakers", speakers);
      return true;
    }
    case ZELTA_EVENT_FIRST_VIDEO:
      made.set("type", "firstVideo").set("uid", event.uid);
      made.set("width", as.first_video.width).set("height", as.first_video.height);
      made.set("elapsedMs", as.first_video.elapsed_ms);
      return true;
    case ZELTA_EVENT_FIRST_AUDIO:
      made.set("type", "firstAudio").set("uid", event.uid);
      made.set("elapsedMs", as.first_audio.elapsed_ms);
      return true;
    case ZELTA_EVENT_RECEIVING:
      made.set("type", "receiving").set_flag("audio", as.receiving.audio != 0);
      made.set_flag("video", as.receiving.video != 0);
      return true;
    case ZELTA_EVENT_LOST:
      made.set("type", "lost");
      return true;
    case ZELTA_EVENT_INTERRUPTED:
      made.set("type", "interrupted");
      return true;
    case ZELTA_EVENT_DROPPED:
      made.set("type", "dropped");
      made.set("audioFrames", static_cast<double>(as.dropped.audio_frames));
      made.set("videoFrames", static_cast<double>(as.dropped.video_frames));
      made.set("otherEvents", static_cast<double>(as.dropped.other_events));
      made.set("framesSoFar", static_cast<double>(as.dropped.frames_so_far));
      return true;
    default:
      return false;
  }
}

// What AudioFrame shows.
void describe_audio(const zelta_audio_frame& audio, object_value& made) {
  made.set("timeMs", static_cast<double>(audio.time_ms)).set("format", audio.format);
  made.set("channels", audio.channels).set("sampleRate", audio.sample_rate);
  made.set("bitrate", audio.bitrate).set("byteLength", audio.data_bytes);
}

// What VideoFrame shows; of YUV, where in the memory each plane begins and how far its rows are
// apart.
void describe_video(napi_env env, const zelta_video_frame& video, object_value& made) {
  made.set("timeMs", static_cast<double>(video.time_ms)).set("format", video.format);
  made.set("rotation", video.rotation).set("frameNumber", video.frame_number);
  made.set("width", video.width).set("height", video.height).set("byteLength", video.data_bytes);
  if (video.format != ZELTA_VIDEO_YUV) return;
  napi_value offsets = array_value(env);
  napi_value strides = array_value(env);
  for (size_t i = 0; i < 3; ++i) {
    append(env, offsets, number_value(env, static_cast<double>(video.planes[i] - video.data)));
    append(env, strides, number_value(env, video.strides[i]));
  }
  made.set("offsets", offsets).set("strides", strides);
}

bool is_frame(const zelta_event& event) {
  return event.kind == ZELTA_EVENT_AUDIO_FRAME || event.kind == ZELTA_EVENT_VIDEO_FRAME;
}

napi_value frame_value(napi_env env, const session& of, const zelta_event* event) {
  object_value made(env);
  const bool is_audio = event->kind == ZELTA_EVENT_AUDIO_FRAME;
  made.set("type", is_audio ? "audioFrame" : "videoFrame").set("uid", event->uid);
  if (is_audio) {
    describe_audio(event->as.audio, made);
  } else {
    describe_video(env, event->as.video, made);
  }
  made.set("memory",
           share_value(env, std::make_shared<frame_memory>(env, of.owner(), of.account(), event)));
  return made.get();
}

}  // namespace

napi_value take_event(napi_env env, session& of) {
  const zelta_event* event = nullptr;
  int code = ZELTA_OK;
  while ((code = zelta_next_event(of.recording(), 0, &event)) == ZELTA_OK) {
    if (is_frame(*event)) return frame_value(env, of, event);
    if (event->kind == ZELTA_EVENT_DROPPED) of.account()->dropped(env);
    object_value made(env);
    const bool known = describe(env, *event, made);
    zelta_event_release(of.recording(), event);
    if (known) return made.get();
  }
  return number_value(env, code);
}

}  // namespace zelta::node
