// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;

/** Makes events of what {@link Native#take} hands out. */
final class Events {
  // zelta_event_kind of the C header.
  private static final int ERROR = 1;
  private static final int WARNING = 2;
  private static final int JOINED = 3;
  private static final int LEFT = 4;
  private static final int USER_JOINED = 5;
  private static final int USER_OFFLINE = 6;
  private static final int AUDIO_FRAME = 7;
  private static final int VIDEO_FRAME = 8;
  private static final int SPEAKER = 9;
  private static final int VOLUMES = 10;
  private static final int FIRST_VIDEO = 11;
  private static final int FIRST_AUDIO = 12;
  private static final int RECEIVING = 13;
  private static final int LOST = 14;
  private static final int INTERRUPTED = 15;
  private static final int DROPPED = 16;

  private Events() {}

  /** Null: of a kind that isn't known here. */
  static Event of(Handle handle, long[] fields, Object content) {
    int kind = (int) fields[Native.FIELD_KIND];
    long uid = fields[Native.FIELD_UID];
    int at = Native.FIELD_FIRST;
    long first = fields[at];
    long second = fields[at + 1];
    long third = fields[at + 2];
    return switch (kind) {
      case ERROR -> new Event.Failure(SessionError.of(first), Stat.of(second), (int) second);
      case WARNING -> new Event.Warning(WarningCode.of(first), (int) first);
      case JOINED -> new Event.Joined(uid, text(content));
      case LEFT -> new Event.Left(LeaveReason.of(first));
      case USER_JOINED -> new Event.UserJoined(uid, text(content));
      case USER_OFFLINE -> new Event.UserOffline(uid, OfflineReason.of(first));
      case AUDIO_FRAME, VIDEO_FRAME -> frame(handle, kind, fields, (ByteBuffer) content);
      case SPEAKER -> new Event.Speaker(uid);
      case VOLUMES -> new Event.Volumes(volumes((int[]) content));
      case FIRST_VIDEO -> new Event.FirstVideo(uid, (int) first, (int) second, (int) third);
      case FIRST_AUDIO -> new Event.FirstAudio(uid, (int) first);
      case RECEIVING -> new Event.Receiving(first != 0, second != 0);
      case LOST -> new Event.Lost();
      case INTERRUPTED -> new Event.Interrupted();
      case DROPPED -> new Event.Dropped(first, second, third, fields[at + 3]);
      default -> null;
    };
  }

  private static Frame frame(Handle handle, int kind, long[] fields, ByteBuffer lent) {
    long uid = fields[Native.FIELD_UID];
    long event = fields[Native.FIELD_EVENT];
    Lease lease = null;
    handle.holdOnceMore();
    try {
      lease = Lease.of(handle, event, lent);
      return kind == AUDIO_FRAME
          ? new AudioFrame(uid, fields, Native.FIELD_FIRST, lent, lease)
          : new VideoFrame(uid, fields, Native.FIELD_FIRST, lent, lease);
    } catch (Throwable noMemory) {
      if (lease != null) {
        // The hold goes with the buffer.
        lease.end();
      } else {
        Native.releaseEvent(handle.number(), event);
        handle.drop();
      }
      throw noMemory;
    }
  }

  private static String text(Object content) {
    return Texts.of((byte[]) content);
  }

  private static List<Volume> volumes(int[] uidsAndVolumes) {
    List<Volume> made = new ArrayList<>(uidsAndVolumes.length / 2);
    for (int i = 0; i < uidsAndVolumes.length; i += 2) {
      made.add(new Volume(Integer.toUnsignedLong(uidsAndVolumes[i]), uidsAndVolumes[i + 1]));
    }
    return List.copyOf(made);
  }
}
