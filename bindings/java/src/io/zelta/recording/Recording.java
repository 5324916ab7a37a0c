// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.Iterator;
import java.util.List;
import java.util.NoSuchElementException;
import java.util.Objects;
import java.util.Optional;
import java.util.concurrent.atomic.AtomicReference;

/**
 * One recording of one channel. It joins once and leaves once; make a new one for the next.
 *
 * <pre>{@code
 * create  ->  join  ->  events ...  ->  leave or finish  ->  close
 *               |         |
 *               |         a Left or a fatal Failure leaves by itself
 *               Joined or Failure follows as an event
 * }</pre>
 *
 * <p>{@link #close()} does all that is left to do. A recording that nobody closes is closed when
 * the collector has found it, on a daemon thread; when the process ends before that, the recorder
 * notices, and completes its files by itself.
 */
public final class Recording implements AutoCloseable {
  private static final long DEFAULT_QUEUE_BYTES = 0;
  private static final int HANDLE = -1;
  private static final int NOT_JOINED = -7;
  private static final int LEFT = -9;

  /** Longer waits are cut to it: a century, which a long has room for in nanoseconds. */
  private static final Duration FOREVER = Duration.ofDays(36_500);

  private final Handle handle;
  private final Cleaner.Cleanable forgotten;
  private volatile boolean hasEnded;
  private volatile boolean isJoined;
  private volatile boolean isToBeLeft;
  private volatile String folderAtClose;
  private final AtomicReference<Event.Failure> fatal = new AtomicReference<>();

  private Recording(Handle handle) {
    this.handle = handle;
    forgotten = Lease.cleaner().register(this, () -> closeForgotten(handle));
  }

  // Files take seconds to complete, and others' frames come back on the cleaner's thread.
  private static void closeForgotten(Handle handle) {
    if (handle.isClosed()) {
      return;
    }
    Thread closer = new Thread(handle::close, "zelta-forgotten-recording");
    closer.setDaemon(true);
    closer.start();
  }

  // ---- Made -----------------------------------------------------------------------------------

  /**
   * Makes a recording, whose frames may hold 64 MiB; nothing is started yet.
   *
   * @param appId whose application it is; not empty
   * @return the recording, to be closed
   * @throws ZeltaException where it can't be made
   */
  public static Recording create(String appId) {
    return create(appId, DEFAULT_QUEUE_BYTES);
  }

  /**
   * Makes a recording; nothing is started yet.
   *
   * @param appId whose application it is; not empty
   * @param queueBytes what frames may hold that wait to be taken, or that weren't closed yet;
   *     frames past it are dropped, and {@link Event.Dropped} counts them. 0: 64 MiB
   * @return the recording, to be closed
   * @throws ZeltaException where it can't be made
   */
  public static Recording create(String appId, long queueBytes) {
    Objects.requireNonNull(appId, "appId");
    if (queueBytes < 0) {
      throw new IllegalArgumentException(
          "queueBytes is " + queueBytes + ", it should be at least 0");
    }
    return new Recording(new Handle(Native.create(Texts.one("appId", appId), queueBytes)));
  }

  /**
   * The version of the native library.
   *
   * @return it, as {@code "1.2.3"}
   */
  public static String libraryVersion() {
    return Texts.of(Native.version());
  }

  // ---- Joined ---------------------------------------------------------------------------------

  /**
   * Joins a channel, with the app id for a key and a uid that the recorder chooses.
   *
   * @param channelId 1 to 64 bytes, a part of the folder's name as it stands
   * @param config what to record
   * @throws ZeltaException as {@link #join(String, String, long, Config)}
   */
  public void join(String channelId, Config config) {
    join("", channelId, 0, config);
  }

  /**
   * Checks the configuration, prepares the recording folder and starts the recorder; doesn't wait
   * for it to join: {@link Event.Joined} or {@link Event.Failure} follows.
   *
   * @param channelKey the key of the channel; empty: the app id
   * @param channelId 1 to 64 bytes, a part of the folder's name as it stands
   * @param uid the recorder's own; 0: the recorder chooses
   * @param config what to record
   * @throws ArgumentException where a value can't be used; it may be tried again
   * @throws ConfigurationException where values don't go together; it may be tried again
   * @throws RefusedException where there is no recorder, or no folder; it may be tried again
   * @throws RecordingStateException where it was joined, left or closed before
   */
  public void join(String channelKey, String channelId, long uid, Config config) {
    byte[] key = Texts.one("channelKey", Objects.requireNonNull(channelKey, "channelKey"));
    byte[] id = Texts.one("channelId", Objects.requireNonNull(channelId, "channelId"));
    Objects.requireNonNull(config, "config");
    int number = Uids.toInt(uid);
    call(() -> Native.join(handle.number(), key, id, number, config.numbers(), config.texts()));
    isJoined = true;
  }

  /**
   * The recording folder: known from the join on, also after {@link #close()}.
   *
   * @return its path
   * @throws RecordingStateException before the join
   * @throws InvalidPathException where the name has letters that the locale doesn't have
   */
  public Path folder() {
    return Path.of(folderText());
  }

  private String folderText() {
    String known = folderAtClose;
    if (known != null) {
      return known;
    }
    byte[][] found = new byte[1][];
    call(() -> found[0] = Native.folder(handle.number()));
    return Texts.of(found[0]);
  }

  // ---- Commands, between join and leave -------------------------------------------------------

  /**
   * Arranges the users on the mixed picture.
   *
   * @param layout where each is
   * @throws ArgumentException where a place or the color can't be
   * @throws RefusedException where the engine can't
   * @throws RecordingStateException before the join or after the leave
   */
  public void setLayout(Layout layout) {
    List<Region> regions = Objects.requireNonNull(layout, "layout").regions();
    int[] numbers = new int[2 * regions.size()];
    double[] places = new double[5 * regions.size()];
    int number = 0;
    int place = 0;
    for (Region region : regions) {
      numbers[number++] = Uids.toInt(region.uid());
      numbers[number++] = region.renderMode().value();
      places[place++] = region.x();
      places[place++] = region.y();
      places[place++] = region.width();
      places[place++] = region.height();
      places[place++] = region.alpha();
    }
    byte[] color = Texts.one("backgroundColor", layout.backgroundColor());
    call(() -> Native.setLayout(handle.number(), color, numbers, places));
  }

  /**
   * Shows an image in place of a user's video.
   *
   * @param uid the user
   * @param image a PNG or JPEG file; null: none any more
   * @throws RefusedException where the engine can't
   * @throws RecordingStateException before the join or after the leave
   */
  public void setUserBackground(long uid, Path image) {
    byte[] path = Texts.one("image", image == null ? "" : image.toString());
    int number = Uids.toInt(uid);
    call(() -> Native.setUserBackground(handle.number(), number, path));
  }

  /**
   * Starts what {@link TriggerMode#MANUAL} waits for.
   *
   * @throws RefusedException where it is started, the mode is automatic, or the recorder has gone
   * @throws RecordingStateException before the join or after the leave
   */
  public void startService() {
    call(() -> Native.startService(handle.number()));
  }

  /**
   * Stops what {@link #startService()} has started.
   *
   * @throws RefusedException where it is stopped, the mode is automatic, or the recorder has gone
   * @throws RecordingStateException before the join or after the leave
   */
  public void stopService() {
    call(() -> Native.stopService(handle.number()));
  }

  /**
   * Sets what is logged from here on, in all recordings of the process and in this one's recorder.
   * Also before the join and after the leave, until the finish.
   *
   * @param level the least severe that is logged
   * @throws RecordingStateException after {@link #finish()} or {@link #close()}
   */
  public void setLogLevel(LogLevel level) {
    int number = Objects.requireNonNull(level, "level").value();
    call(() -> Native.setLogLevel(handle.number(), number));
  }

  // ---- Events ---------------------------------------------------------------------------------

  /**
   * Takes the oldest event, or waits for one. Several threads may call; each event goes to one.
   *
   * <p>When a {@link Event.Left} or a fatal {@link Event.Failure} is handed out the recording has
   * been left, so that a loop until {@link #hasEnded()} ends whatever happened to the recorder.
   *
   * @param limit how long to wait at most; zero or less: not at all
   * @return the event; empty when none came in that time, and at once when none will come: {@link
   *     #hasEnded()} tells which. A {@link Frame} is to be closed
   * @throws InterruptedException where the thread is interrupted; no event is lost by that
   * @throws RecordingStateException before the join, as no event would come
   */
  public Optional<Event> nextEvent(Duration limit) throws InterruptedException {
    Objects.requireNonNull(limit, "limit");
    // Neither has a length that can't be reckoned with.
    Duration least = limit.isNegative() ? Duration.ZERO : limit;
    return Optional.ofNullable(next(least.compareTo(FOREVER) < 0 ? least : FOREVER));
  }

  /**
   * All events, until none will come: in a loop, each is waited for as long as it takes. The loop
   * ends when the recording was left or closed and all that waited was handed out; by an interrupt,
   * too, and the thread's interrupt status is set then. Where the session has failed the loop ends
   * by a {@link SessionException}, and where nothing was joined it begins by a {@link
   * RecordingStateException}.
   *
   * @return events to go through once; each {@link Frame} is to be closed
   */
  public Iterable<Event> events() {
    return () ->
        new Iterator<>() {
          private Event waiting;

          @Override
          public boolean hasNext() {
            try {
              while (waiting == null && !hasEnded) {
                waiting = Recording.this.next(FOREVER);
              }
            } catch (InterruptedException interrupt) {
              Thread.currentThread().interrupt();
              return false;
            }
            if (waiting == null && fatal.get() != null) {
              throw new SessionException(fatal.get());
            }
            return waiting != null;
          }

          @Override
          public Event next() {
            if (!hasNext()) {
              throw new NoSuchElementException("no event will come");
            }
            Event event = waiting;
            waiting = null;
            return event;
          }
        };
  }

  /**
   * Whether no event will come any more: the recording was left, and all that waited was taken, or
   * it was closed. Known when a {@link #nextEvent} has found no event.
   *
   * @return true from then on
   */
  public boolean hasEnded() {
    return hasEnded;
  }

  /** Null: none in that time, or none will come. */
  private Event next(Duration limit) throws InterruptedException {
    long beganNs = System.nanoTime();
    if (Thread.interrupted()) {
      throw new InterruptedException();
    }
    if (!handle.tryHold()) {
      hasEnded = true;
      return null;
    }
    try {
      for (long[] fields = new long[Native.FIELDS]; ; ) {
        Object content = Native.take(handle.number(), fields);
        if (fields[Native.FIELD_RESULT] == Native.OK) {
          Event event = Events.of(handle, fields, content);
          leaveAfter(event);
          if (event != null) {
            return event;
          }
          continue;
        }
        if (fields[Native.FIELD_RESULT] == Native.END || handle.isClosed()) {
          hasEnded = true;
          return null;
        }
        Duration left = limit.minusNanos(System.nanoTime() - beganNs);
        if (!isJoined) {
          throw new RecordingStateException(
              NOT_JOINED, "not before a join", "none waits, and none would come");
        }
        if (isToBeLeft) {
          leaveOnce();
          continue;
        }
        if (left.isZero() || left.isNegative()) {
          return null;
        }
        // One more, because what is cut off would be waited for without sleeping.
        handle.await((int) Math.min(left.toMillis() + 1, Integer.MAX_VALUE));
      }
    } finally {
      handle.drop();
      // A recording whose events are waited for is not forgotten.
      Reference.reachabilityFence(this);
    }
  }

  private void leaveAfter(Event event) {
    boolean isOver =
        event instanceof Event.Left || event instanceof Event.Failure failure && failure.isFatal();
    if (!isOver) {
      return;
    }
    if (event instanceof Event.Failure failure) {
      fatal.compareAndSet(null, failure);
    }
    isToBeLeft = true;
    try {
      leaveOnce();
    } catch (ZeltaException refused) {
      // The event comes first; who waits for the next one tries again.
    }
  }

  private void leaveOnce() {
    try {
      Native.leave(handle.number());
    } catch (RecordingStateException wrong) {
      if (wrong.code() != LEFT) {
        throw wrong;
      }
    }
    isToBeLeft = false;
  }

  // ---- Left -----------------------------------------------------------------------------------

  /**
   * Ends the session, within about half a second: no event is made any more, and what waits can
   * still be taken. Does nothing where the recording was left before, also by itself, or closed.
   *
   * @throws RecordingStateException before the join
   */
  public void leave() {
    if (handle.tryHold()) {
      whileHeld(this::leaveOnce);
    }
  }

  /**
   * Leaves, and waits for the recorder to complete its files, 13 s at most. What waits can still be
   * taken, and frames stay as they are. Also where it was never joined; a second time does nothing.
   *
   * @throws RecordingStateException after {@link #close()}
   */
  public void finish() {
    call(() -> Native.finish(handle.number()));
  }

  /**
   * As {@link #finish()}, and gives up what waits to be taken; who waits for events on another
   * thread gets none. The files are complete when it returns. Frames that were handed out stay
   * readable until each is closed. A second time does nothing. An interrupt doesn't shorten it.
   */
  @Override
  public void close() {
    try {
      folderAtClose = folderText();
    } catch (RecordingStateException notJoined) {
      // There is none, or it is known already.
    } finally {
      handle.close();
      hasEnded = true;
      forgotten.clean();
    }
  }

  private void call(Runnable nativeCall) {
    if (!handle.tryHold()) {
      throw new RecordingStateException(HANDLE, "not a recording", "the recording was closed");
    }
    whileHeld(nativeCall);
  }

  private void whileHeld(Runnable nativeCall) {
    try {
      nativeCall.run();
    } finally {
      handle.drop();
      Reference.reachabilityFence(this);
    }
  }
}
