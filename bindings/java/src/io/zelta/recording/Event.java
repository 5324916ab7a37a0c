// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.List;
import java.util.Set;

/** What happens in a recording. Kinds that this package doesn't know are skipped. */
public sealed interface Event
    permits Event.Failure,
        Event.Warning,
        Event.Joined,
        Event.Left,
        Event.UserJoined,
        Event.UserOffline,
        Event.Speaker,
        Event.Volumes,
        Event.FirstVideo,
        Event.FirstAudio,
        Event.Receiving,
        Event.Lost,
        Event.Interrupted,
        Event.Dropped,
        Frame {

  /**
   * Something has failed. The session has ended and was left, unless it is one user's alone.
   *
   * @param error what has failed
   * @param stats what is added to it
   * @param statCode the same as a number, {@code zelta_stat} of the C header
   */
  record Failure(SessionError error, Set<Stat> stats, int statCode) implements Event {
    /**
     * Whether the session has ended by it.
     *
     * @return false where it is one user's alone
     */
    public boolean isFatal() {
      return error != SessionError.USER_FAILED;
    }
  }

  /**
   * Something went wrong, and the recording goes on.
   *
   * @param warning what it was
   * @param number the same as a number, {@code zelta_warning} of the C header
   */
  record Warning(WarningCode warning, int number) implements Event {}

  /**
   * The recorder is in the channel; comes again when it was recovered.
   *
   * @param uid the recorder's own
   * @param channelId the channel
   */
  record Joined(long uid, String channelId) implements Event {}

  /**
   * The recorder has left by itself, and its files are complete. The recording was left, too.
   *
   * @param reasons why
   */
  record Left(Set<LeaveReason> reasons) implements Event {}

  /**
   * A user is in the channel.
   *
   * @param uid the user
   * @param folderText the recording folder, also where the locale has no path for its name
   */
  record UserJoined(long uid, String folderText) implements Event {
    /**
     * The recording folder.
     *
     * @return its path
     * @throws InvalidPathException where the name has letters that the locale doesn't have
     */
    public Path folder() {
      return Path.of(folderText);
    }
  }

  /**
   * A user has gone.
   *
   * @param uid the user
   * @param reason why
   */
  record UserOffline(long uid, OfflineReason reason) implements Event {}

  /**
   * Another user speaks loudest.
   *
   * @param uid the user
   */
  record Speaker(long uid) implements Event {}

  /**
   * How loud users are, every {@link Config.Builder#volumeInterval}.
   *
   * @param speakers those who are heard
   */
  record Volumes(List<Volume> speakers) implements Event {}

  /**
   * The first picture of a user came.
   *
   * @param uid the user
   * @param width pixels
   * @param height pixels
   * @param elapsedMs milliseconds since the channel was joined
   */
  record FirstVideo(long uid, int width, int height, int elapsedMs) implements Event {}

  /**
   * The first sound of a user came.
   *
   * @param uid the user
   * @param elapsedMs milliseconds since the channel was joined
   */
  record FirstAudio(long uid, int elapsedMs) implements Event {}

  /**
   * Whether anybody's media is coming in, when that changes.
   *
   * @param audio sound is
   * @param video pictures are
   */
  record Receiving(boolean audio, boolean video) implements Event {}

  /** The connection to the channel is lost for good. */
  record Lost() implements Event {}

  /** The connection to the channel is interrupted; the recorder tries again. */
  record Interrupted() implements Event {}

  /**
   * Frames are missing at this place: there was no room in the queue.
   *
   * @param audioFrames of sound, here
   * @param videoFrames of pictures, here
   * @param otherEvents events that were lost here because there was no memory; 0 but for that
   * @param framesSoFar frames that this recording has dropped, these included
   */
  record Dropped(long audioFrames, long videoFrames, long otherEvents, long framesSoFar)
      implements Event {}
}
