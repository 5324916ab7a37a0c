// SPDX-License-Identifier: Apache-2.0
// Threads that wait for events, and what ends their waits.
import io.zelta.recording.Event;
import io.zelta.recording.Recording;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;

final class ThreadsTest {
  private static final Duration LONG = Duration.ofSeconds(Long.MAX_VALUE);
  private static final int SEVERAL = 4;

  private ThreadsTest() {}

  static void addTo(Suite suite) {
    suite.add("WaitEndsAfterItsTime", ThreadsTest::time);
    suite.add("InterruptEndsAWait", ThreadsTest::interrupt);
    suite.add("InterruptEndsALoopAndStaysSet", ThreadsTest::interruptedLoop);
    suite.add("InterruptOfOneLeavesOthersWaiting", ThreadsTest::interruptOfOne);
    suite.add("CloseEndsWaitsOfOtherThreads", ThreadsTest::close);
    suite.add("LeaveEndsALoopOfAnotherThread", ThreadsTest::leave);
    suite.add("SeveralRecordingsAtOnce", ThreadsTest::several);
    suite.add("ForgottenRecordingIsClosed", ThreadsTest::forgotten);
  }

  /** A thread that runs it, and has begun. */
  private static <T> FutureTask<T> start(java.util.concurrent.Callable<T> call, Thread[] made)
      throws InterruptedException {
    CountDownLatch begun = new CountDownLatch(1);
    FutureTask<T> task =
        new FutureTask<>(
            () -> {
              begun.countDown();
              return call.call();
            });
    made[0] = new Thread(task, "waits");
    made[0].setDaemon(true);
    made[0].start();
    begun.await();
    return task;
  }

  private static <T> T result(FutureTask<T> task) throws Exception {
    return task.get(Channel.LIMIT.toSeconds(), TimeUnit.SECONDS);
  }

  /**
   * Until the thread is inside poll(), where the virtual machine calls it running, in a native
   * method.
   */
  private static void awaitNative(Thread thread) throws InterruptedException {
    long endNs = System.nanoTime() + Channel.LIMIT.toNanos();
    while (System.nanoTime() < endNs) {
      StackTraceElement[] stack = thread.getStackTrace();
      if (stack.length > 0 && stack[0].getMethodName().equals("poll")) {
        return;
      }
      Thread.sleep(10);
    }
    throw new AssertionError("the thread doesn't wait");
  }

  private static void time() throws Exception {
    try (Recording recording = Recording.create("java-test")) {
      for (Duration limit : List.of(Duration.ZERO, Duration.ofSeconds(-1), Duration.ofNanos(100),
               Duration.ofMillis(120))) {
        long beganNs = System.nanoTime();
        Suite.check(recording.nextEvent(limit).isEmpty());
        long ns = System.nanoTime() - beganNs;
        Suite.check(ns >= limit.toNanos() && ns < Channel.LIMIT.toNanos(), limit, ns);
      }
      Suite.check(!recording.hasEnded());
    }
  }

  private static void interrupt() throws Exception {
    try (Recording recording = Recording.create("java-test")) {
      Thread[] thread = new Thread[1];
      FutureTask<Boolean> task =
          start(
              () -> {
                Suite.thrown(InterruptedException.class, () -> recording.nextEvent(LONG));
                boolean isCleared = !Thread.currentThread().isInterrupted();
                // Before a wait as well as in it.
                Thread.currentThread().interrupt();
                Suite.thrown(InterruptedException.class, () -> recording.nextEvent(Duration.ZERO));
                return isCleared;
              },
              thread);
      awaitNative(thread[0]);
      long beganNs = System.nanoTime();
      thread[0].interrupt();
      Suite.check(result(task), "the status is still set");
      Suite.check(System.nanoTime() - beganNs < 5_000_000_000L, "it took long");
    }
  }

  private static void interruptedLoop() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = channel.join(channel.config(), 0)) {
      Thread[] thread = new Thread[1];
      FutureTask<Boolean> task =
          start(
              () -> {
                for (Event event : recording.events()) {
                  Suite.check(!(event instanceof Event.Left), event);
                }
                return Thread.currentThread().isInterrupted();
              },
              thread);
      awaitNative(thread[0]);
      thread[0].interrupt();
      Suite.check(result(task), "the status isn't set");
      Suite.check(!recording.hasEnded());
    }
  }

  private static void interruptOfOne() throws Exception {
    Recording recording = Recording.create("java-test");
    Thread[] first = new Thread[1];
    Thread[] second = new Thread[1];
    FutureTask<Boolean> stays = start(() -> recording.nextEvent(LONG).isEmpty(), first);
    FutureTask<Boolean> goes = start(() -> recording.nextEvent(LONG).isEmpty(), second);
    awaitNative(first[0]);
    awaitNative(second[0]);
    second[0].interrupt();
    Throwable cause = Suite.thrown(ExecutionException.class, () -> result(goes)).getCause();
    Suite.check(cause instanceof InterruptedException, cause);
    awaitNative(first[0]);
    Suite.check(!stays.isDone());
    recording.close();
    Suite.check(result(stays) && recording.hasEnded());
  }

  // Never joined, and in a channel.
  private static void close() throws Exception {
    try (Channel channel = new Channel()) {
      for (boolean joins : new boolean[] {false, true}) {
        Recording recording =
            joins ? channel.join(channel.config(), 0) : Recording.create("java-test");
        List<FutureTask<Boolean>> tasks = new ArrayList<>();
        for (int i = 0; i < SEVERAL; ++i) {
          Thread[] thread = new Thread[1];
          tasks.add(
              start(
                  () -> {
                    while (!recording.hasEnded()) {
                      recording.nextEvent(LONG);
                    }
                    return true;
                  },
                  thread));
          awaitNative(thread[0]);
        }
        recording.close();
        for (FutureTask<Boolean> task : tasks) {
          Suite.check(result(task));
        }
        Suite.check(!joins || !channel.files(".json").isEmpty());
      }
    }
  }

  private static void leave() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = channel.join(channel.config(), 0)) {
      Thread[] thread = new Thread[1];
      FutureTask<Boolean> task =
          start(
              () -> {
                recording.events().forEach(event -> {});
                return recording.hasEnded();
              },
              thread);
      awaitNative(thread[0]);
      recording.leave();
      Suite.check(result(task));
    }
  }

  private static void several() throws Exception {
    try (Channel channel = new Channel()) {
      List<Recording> recordings = new ArrayList<>();
      for (int i = 0; i < SEVERAL; ++i) {
        recordings.add(Recording.create("java-test"));
        recordings.get(i).join("room" + i, channel.config().audioOnly(true).build());
      }
      for (Recording recording : recordings) {
        Channel.await(recording, Event.FirstAudio.class);
      }
      recordings.parallelStream().forEach(Recording::close);
      Suite.same(SEVERAL, channel.files("recording.json").size());
      Suite.check(channel.files(".m4a").size() >= SEVERAL, channel.files(""));
    }
  }

  private static void forgotten() throws Exception {
    try (Channel channel = new Channel()) {
      channel.join(channel.config(), 0);
      long endNs = System.nanoTime() + Channel.LIMIT.toNanos();
      while (!channel.isComplete(1)) {
        Suite.check(System.nanoTime() < endNs, "it was not closed");
        System.gc();
        Thread.sleep(20);
      }
    }
  }
}
